// The record lines a sorted index points at, copied out of the mapped list
// in index order by a thread of its own, so that the walk takes them in
// sequence: the misses of a random fetch, in the caches and in the TLB,
// are paid on the other core.
#pragma once

#include "support/line_source.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

class RecordCopier {
public:
    RecordCopier() = default;
    ~RecordCopier() { stop(); }
    RecordCopier(const RecordCopier&) = delete;
    RecordCopier& operator=(const RecordCopier&) = delete;

    // Reads the index at `indexPath` on a descriptor of its own and copies
    // from the `size` bytes at `list`; false when it cannot start.
    bool start(const char* indexPath, const char* list, size_t size);
    // The copy of the line at `offset` when index line `lineNumber` (as
    // LineSource counts them) points there: its first byte, NUL after its
    // `span` bytes, the caller's to change until the next call; otherwise,
    // or when the thread has not got that far, null. Copies of the lines
    // before are dropped. Never waits.
    char* take(uint64_t lineNumber, int64_t offset, size_t& span);
    // Ends the thread.
    void stop();

private:
    struct Entry {
        uint64_t line;  // 0: the rest of the ring is unused
        int64_t offset; // -1: no plain offset
        uint64_t span;  // kNotCopied: the line is not in the ring
    };
    static constexpr uint64_t kNotCopied = ~uint64_t{0};
    static constexpr size_t kCapacity = 4 << 20;

    // An index line read, its record not yet copied.
    struct Pending {
        uint64_t line;
        int64_t offset;
    };
    static size_t entryBytes(uint64_t span);
    void run();
    bool put(const Pending& line);
    bool waitForRoom(size_t bytes);
    void publish();
    void release();
    void wake();
    template <class Ready>
    void sleepUntil(Ready ready)
    {
        ++sleepers_;
        {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, ready);
        }
        --sleepers_;
    }

    LineSource index_{{.blockSize = 256 * 1024}};
    const char* list_ = nullptr;
    size_t size_ = 0;
    char* ring_ = nullptr;
    std::thread thread_;
    // Ring positions, counted in bytes from the start.
    std::atomic<uint64_t> written_{0}; // published by the thread
    std::atomic<uint64_t> read_{0};    // published by the walk
    std::atomic<uint64_t> passed_{0};  // the last line the walk fetched itself
    std::atomic<bool> stop_{false};
    std::atomic<int> sleepers_{0}; // the thread, waiting for room
    std::mutex mutex_;
    std::condition_variable changed_;
    uint64_t write_ = 0;   // the thread's own position
    uint64_t pending_ = 0; // entries written, not yet published
    uint64_t take_ = 0;    // the walk's own position
    uint64_t held_ = 0;    // bytes of the entry handed out last
};
