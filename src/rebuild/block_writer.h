// An output built in large blocks and written by a thread of its own: the
// copy into the page cache runs on the other core while the next block is
// filled.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string_view>
#include <thread>

class BlockWriter {
public:
    static constexpr size_t kBlockSize = 1 << 20;

    BlockWriter() = default;
    ~BlockWriter() { finish(); }
    BlockWriter(const BlockWriter&) = delete;
    BlockWriter& operator=(const BlockWriter&) = delete;

    // Writes to `out` from now on; false (ENOMEM) when the blocks or the
    // thread cannot be had. `writeBack`: the written data goes on its way
    // to the disk as the run goes on, so that the sync at its end finds
    // little left to do.
    bool start(FILE* out, bool writeBack = false);

    // False (errno set) once a write has failed: every later byte is dropped.
    bool put(std::string_view text);

    // Writes what is left and ends the thread: 0, or -1 with errno of the
    // first write that failed. Later calls return 0.
    int finish();

private:
    bool handOff();
    void run();
    void startWriteBack(size_t bytes);

    FILE* out_ = nullptr;
    bool writeBack_ = false;
    uint64_t written_ = 0;     // bytes handed to `out`
    uint64_t writtenBack_ = 0; // bytes whose write-back was started
    char* block_ = nullptr; // being filled
    char* spare_ = nullptr; // being written, or free
    size_t used_ = 0;
    std::thread thread_;
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t pending_ = 0; // bytes of spare_ the thread is to write
    bool stop_ = false;
    int error_ = 0; // errno of the first failed write
};
