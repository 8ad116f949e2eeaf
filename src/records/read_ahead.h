// Reading and parsing records on a thread of their own, a block ahead of
// the one who takes them: on two cores the parse of a list overlaps the
// merge and the writing. Records are handed out in place, in the block
// they were read into.
#pragma once

#include "records/record_reader.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <pthread.h>

class ReadAhead {
public:
    ReadAhead(LineSource& source, ReaderOptions options, size_t lineBufferSize);
    // Takes over the source from its position on; false when no thread
    // could be started (nothing was read then).
    bool start();
    ~ReadAhead();
    ReadAhead(const ReadAhead&) = delete;
    ReadAhead& operator=(const ReadAhead&) = delete;

    // As RecordReader::next: the messages come from this thread, in the
    // order the records are taken.
    int next(Record& rec, bool& atEnd);

private:
    enum class End { none, input, readError, noMemory, badRecord };
    struct Slot {
        Record rec;
        size_t span = 0;
        int result = 0;
        size_t lineBufferSize = 0;
    };
    struct Block {
        char* bytes = nullptr;
        size_t capacity = 0;
        size_t used = 0;
        size_t parsed = 0; // bytes of whole lines parsed
        int64_t offset = 0;
        Slot* slots = nullptr; // grown with realloc: nothing here throws
        size_t count = 0;
        size_t slotCapacity = 0;
        End end = End::none;
        int error = 0;
    };

    void run();
    bool fillBlock(Block*& block);
    void parseLines(Block& block);
    bool growSlots(Block& block);
    Block* takeFree();
    void handOver(Block* block);
    void restoreTerminator();

    LineSource& source_;
    ReaderOptions options_;
    size_t lineBufferSize_;
    uint64_t lineNumber_ = 0;
    // Blocks go round: free, read and parsed, filled, taken, free again.
    struct Queue {
        Block* items[4] = {};
        size_t head = 0;
        size_t count = 0;
        void push(Block* block) { items[(head + count++) % 4] = block; }
        Block* pop()
        {
            Block* block = items[head];
            head = (head + 1) % 4;
            --count;
            return block;
        }
    };
    Block blocks_[4];
    std::mutex mutex_;
    std::condition_variable changed_;
    Queue free_;
    Queue filled_;
    bool stopping_ = false;
    // The taker's side.
    Block* current_ = nullptr;
    size_t nextSlot_ = 0;
    char* terminatorAt_ = nullptr;
    char terminatorSaved_ = 0;
    pthread_t worker_{};
    bool started_ = false;
};
