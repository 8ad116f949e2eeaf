#include "rebuild/record_copier.h"

#include "records/scanf_cursor.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <system_error>
#include <utility>

namespace {

// The walk hands back the ring in steps of this size at least: fewer
// wake-ups of a thread waiting for room.
constexpr uint64_t kReleaseStep = 256 * 1024;
// Entries the thread writes before it makes them visible.
constexpr uint64_t kPublishEvery = 32;

// The offset of an index line as the index writes it: 16 hexadecimal
// digits and a blank. -1 for anything else, which the walk reads itself.
int64_t plainOffset(const LineView& line)
{
    if (line.length < 17 || line.text[16] != ' ')
        return -1;
    uint64_t value = 0;
    for (int i = 0; i < 16; ++i) {
        const int digit = scanf_detail::digits.value[static_cast<unsigned char>(line.text[i])];
        if (digit < 0)
            return -1;
        value = value << 4 | static_cast<uint64_t>(digit);
    }
    return value >> 63 != 0 ? -1 : static_cast<int64_t>(value);
}

} // namespace

size_t RecordCopier::entryBytes(uint64_t span)
{
    return sizeof(Entry) + (span == kNotCopied ? 0 : (span + 1 + 7) & ~size_t{7});
}

bool RecordCopier::start(const char* indexPath, const char* list, size_t size)
{
    stop();
    if (indexPath == nullptr || list == nullptr || index_.open(indexPath) != 0)
        return false;
    ring_ = static_cast<char*>(std::malloc(kCapacity));
    if (ring_ != nullptr) {
        list_ = list;
        size_ = size;
        written_ = read_ = passed_ = 0;
        write_ = pending_ = take_ = held_ = 0;
        stop_ = false;
        try {
            thread_ = std::thread(&RecordCopier::run, this);
            pthread_setname_np(thread_.native_handle(), "quenby-copy"); // for ps and perf
            return true;
        } catch (const std::system_error&) {
        }
    }
    std::free(std::exchange(ring_, nullptr));
    index_.close();
    return false;
}

void RecordCopier::stop()
{
    if (thread_.joinable()) {
        stop_ = true;
        wake();
        thread_.join();
    }
    std::free(std::exchange(ring_, nullptr));
    index_.close();
}

// Reads the index a few lines ahead of the copying, so that the lines to
// copy are on their way into the cache: the misses then overlap.
void RecordCopier::run()
{
    constexpr size_t kAhead = 16;
    Pending ahead[kAhead];
    size_t first = 0, count = 0;
    LineView line;
    bool going = true;
    while (going && !stop_ && index_.next(line) > 0) {
        const Pending next{index_.linesRead(), plainOffset(line)};
        if (next.line <= passed_)
            continue;
        if (next.offset >= 0 && static_cast<uint64_t>(next.offset) < size_)
            for (size_t at = static_cast<size_t>(next.offset), end = at + 256; at < end && at < size_; at += 64)
                __builtin_prefetch(list_ + at);
        if (count == kAhead) {
            going = put(ahead[first]);
            first = (first + 1) % kAhead;
            --count;
        }
        ahead[(first + count++) % kAhead] = next;
    }
    for (; going && count > 0; --count, first = (first + 1) % kAhead)
        going = put(ahead[first]);
    publish();
}

// One entry for an index line: the record line it points at, copied, when
// a whole line starts at a plain offset within the list.
bool RecordCopier::put(const Pending& line)
{
    if (line.line <= passed_)
        return true;
    const int64_t offset = line.offset;
    uint64_t span = kNotCopied;
    if (offset >= 0 && static_cast<uint64_t>(offset) < size_) {
        const char* from = list_ + offset;
        const void* lf = std::memchr(from, '\n', size_ - static_cast<size_t>(offset));
        if (lf != nullptr && entryBytes(static_cast<const char*>(lf) - from + 1) <= kCapacity / 4)
            span = static_cast<uint64_t>(static_cast<const char*>(lf) - from + 1);
    }
    const size_t bytes = entryBytes(span);
    const size_t tail = kCapacity - write_ % kCapacity;
    if (tail < bytes) {
        // An entry is never split: the rest of the ring is passed over.
        if (!waitForRoom(tail))
            return false;
        if (tail >= sizeof(Entry))
            std::memset(ring_ + write_ % kCapacity, 0, sizeof(Entry));
        write_ += tail;
    }
    if (!waitForRoom(bytes))
        return false;
    char* at = ring_ + write_ % kCapacity;
    const Entry entry{line.line, offset, span};
    std::memcpy(at, &entry, sizeof entry);
    if (span != kNotCopied) {
        std::memcpy(at + sizeof entry, list_ + offset, span);
        at[sizeof entry + span] = '\0';
    }
    write_ += bytes;
    if (++pending_ >= kPublishEvery)
        publish();
    return true;
}

bool RecordCopier::waitForRoom(size_t bytes)
{
    if (kCapacity - (write_ - read_) >= bytes)
        return true;
    publish(); // for the walk to take meanwhile
    // Sleeps until a quarter of the ring is free: fewer wake-ups.
    const size_t want = bytes > kCapacity / 4 ? bytes : kCapacity / 4;
    sleepUntil([&] { return stop_ || kCapacity - (write_ - read_) >= want; });
    return !stop_;
}

void RecordCopier::publish()
{
    written_ = write_;
    pending_ = 0;
}

// Hands the ring up to the walk's position back to the thread.
void RecordCopier::release()
{
    read_ = take_;
    wake();
}

void RecordCopier::wake()
{
    if (sleepers_ > 0) {
        std::lock_guard lock(mutex_);
        changed_.notify_all();
    }
}

char* RecordCopier::take(uint64_t lineNumber, int64_t offset, size_t& span)
{
    if (ring_ == nullptr)
        return nullptr;
    take_ += std::exchange(held_, 0);
    if (take_ - read_ >= kReleaseStep)
        release();
    for (;;) {
        if (take_ == written_) {
            // Behind: the walk fetches this one itself, and the thread
            // passes over what the walk has passed.
            passed_ = lineNumber;
            release();
            return nullptr;
        }
        const size_t at = take_ % kCapacity, tail = kCapacity - at;
        Entry entry{};
        if (tail >= sizeof entry)
            std::memcpy(&entry, ring_ + at, sizeof entry);
        if (entry.line == 0) {
            take_ += tail;
            continue;
        }
        if (entry.line > lineNumber)
            return nullptr;
        const size_t bytes = entryBytes(entry.span);
        if (entry.line < lineNumber) {
            take_ += bytes;
            continue;
        }
        held_ = bytes;
        // The next copy was written on the other core: its load starts now.
        for (size_t ahead = 0; ahead < 512; ahead += 64)
            __builtin_prefetch(ring_ + (take_ + bytes + ahead) % kCapacity);
        if (entry.offset != offset || entry.span == kNotCopied)
            return nullptr;
        span = entry.span;
        return ring_ + at + sizeof entry;
    }
}
