#include "records/read_ahead.h"

#include "support/file_open.h"
#include "support/sys_call.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// Blocks of a megabyte: one being read, one being taken, two between.
constexpr size_t kBlockSize = 1 << 20;

} // namespace

ReadAhead::ReadAhead(LineSource& source, ReaderOptions options, size_t lineBufferSize)
    : source_(source), options_(options), lineBufferSize_(lineBufferSize)
{
    lineNumber_ = source.linesRead();
    for (Block& block : blocks_)
        free_.push(&block);
}

bool ReadAhead::start()
{
    // A small stack: the thread only reads and parses.
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    auto body = [](void* self) -> void* {
        static_cast<ReadAhead*>(self)->run();
        return nullptr;
    };
    started_ = pthread_create(&worker_, &attributes, body, this) == 0;
    pthread_attr_destroy(&attributes);
    return started_;
}

ReadAhead::~ReadAhead()
{
    restoreTerminator();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    if (started_)
        pthread_join(worker_, nullptr);
    for (Block& block : blocks_) {
        std::free(block.bytes);
        std::free(block.slots);
    }
}

ReadAhead::Block* ReadAhead::takeFree()
{
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return stopping_ || free_.count > 0; });
    if (stopping_)
        return nullptr;
    Block* block = free_.pop();
    block->used = block->parsed = 0;
    block->count = 0;
    block->end = End::none;
    return block;
}

void ReadAhead::handOver(Block* block)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        filled_.push(block);
    }
    changed_.notify_all();
}

bool ReadAhead::growSlots(Block& block)
{
    size_t capacity = block.slotCapacity == 0 ? 4096 : 2 * block.slotCapacity;
    void* grown = sysRealloc(block.slots, capacity * sizeof(Slot));
    if (grown == nullptr)
        return false;
    block.slots = static_cast<Slot*>(grown);
    block.slotCapacity = capacity;
    return true;
}

// Parses the whole lines behind block.parsed; stops at a record that does
// not parse, which the taker parses again to tell why.
void ReadAhead::parseLines(Block& block)
{
    while (block.end == End::none) {
        char* line = block.bytes + block.parsed;
        const size_t ready = block.used - block.parsed;
        char* lf = ready > 0 ? static_cast<char*>(std::memchr(line, '\n', ready)) : nullptr;
        if (lf == nullptr)
            return;
        const size_t span = static_cast<size_t>(lf - line) + 1;
        ++lineNumber_;
        const char saved = line[span];
        line[span] = '\0';
        if (!isShadowHeaderLine(line)) {
            lineBufferSize_ = lineBufferAfter(lineBufferSize_, span);
            if (block.count == block.slotCapacity && !growSlots(block)) {
                line[span] = saved;
                block.end = End::noMemory;
                return;
            }
            Slot& slot = *new (&block.slots[block.count++]) Slot{};
            slot.rec.line = line;
            slot.rec.length = textLength(line, span);
            slot.rec.offset = block.offset + static_cast<int64_t>(block.parsed);
            slot.rec.lineNumber = lineNumber_;
            slot.span = span;
            slot.lineBufferSize = lineBufferSize_;
            slot.result = parseRecord(slot.rec, lineBufferSize_, options_, nullptr);
            if (slot.result < 0)
                block.end = End::badRecord;
        }
        line[span] = saved;
        block.parsed += span;
    }
}

// Reads into `block` until it is full or the input ends; a block that is
// full goes to the taker and its unfinished line starts the next one.
// False when the reading is over.
bool ReadAhead::fillBlock(Block*& block)
{
    if (block->used + 1 >= block->capacity) {
        const size_t tail = block->used - block->parsed;
        if (block->parsed == 0) {
            // One line fills the whole block: the block grows.
            size_t size = block->capacity == 0 ? kBlockSize : 2 * block->capacity;
            void* grown = sysRealloc(block->bytes, size);
            if (grown == nullptr) {
                block->end = End::noMemory;
                return false;
            }
            block->bytes = static_cast<char*>(grown);
            block->capacity = size;
        } else {
            Block* next = takeFree();
            if (next == nullptr)
                return false;
            if (next->capacity < tail + kBlockSize / 2) {
                void* grown = sysRealloc(next->bytes, tail + kBlockSize);
                if (grown == nullptr) {
                    block->end = End::noMemory;
                    std::lock_guard<std::mutex> lock(mutex_);
                    free_.push(next);
                    return false;
                }
                next->bytes = static_cast<char*>(grown);
                next->capacity = tail + kBlockSize;
            }
            std::memcpy(next->bytes, block->bytes + block->parsed, tail);
            next->used = tail;
            next->offset = block->offset + static_cast<int64_t>(block->parsed);
            handOver(block);
            block = next;
        }
    }
    ssize_t got = source_.readRaw(block->bytes + block->used, block->capacity - 1 - block->used);
    if (got < 0) {
        block->error = errno;
        block->end = errno == ENOMEM ? End::noMemory : End::readError;
        return false;
    }
    if (got == 0) {
        block->end = End::input; // a last line without its line feed is not a record
        return false;
    }
    block->used += static_cast<size_t>(got);
    return true;
}

void ReadAhead::run()
{
    Block* block = takeFree();
    if (block == nullptr)
        return;
    block->offset = source_.position();
    for (;;) {
        bool more = fillBlock(block);
        parseLines(*block);
        if (!more || block->end != End::none) {
            if (block->end == End::none)
                block->end = End::input;
            handOver(block);
            return;
        }
    }
}

void ReadAhead::restoreTerminator()
{
    if (terminatorAt_ != nullptr) {
        *terminatorAt_ = terminatorSaved_;
        terminatorAt_ = nullptr;
    }
}

int ReadAhead::next(Record& rec, bool& atEnd)
{
    restoreTerminator();
    atEnd = false;
    while (current_ == nullptr || nextSlot_ >= current_->count) {
        if (current_ != nullptr && current_->end != End::none) {
            switch (current_->end) {
            case End::readError:
                errno = current_->error;
                std::fprintf(stderr, "quenby: failed to read records (error=%d)\n", portableErrnoNonZero());
                return -1;
            case End::noMemory:
                std::fprintf(stderr, "quenby: failed to realloc memory for line %s\n", "");
                return -1;
            default:
                atEnd = true;
                return 0;
            }
        }
        std::unique_lock<std::mutex> lock(mutex_);
        if (current_ != nullptr)
            free_.push(current_);
        changed_.notify_all();
        changed_.wait(lock, [this] { return filled_.count > 0; });
        current_ = filled_.pop();
        nextSlot_ = 0;
    }
    Slot& slot = current_->slots[nextSlot_++];
    rec = slot.rec;
    terminatorAt_ = rec.line + slot.span;
    terminatorSaved_ = *terminatorAt_;
    *terminatorAt_ = '\0';
    // A record that does not parse is parsed again, here, for its message.
    if (slot.result < 0)
        return parseRecord(rec, slot.lineBufferSize, options_, stderr);
    return slot.result;
}
