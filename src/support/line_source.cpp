#include "support/line_source.h"

#include "support/file_open.h"
#include "support/sys_call.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

LineSource::LineSource() : LineSource(Options{}) {}

LineSource::LineSource(Options options) : options_(options)
{
    if (options_.blockSize < 2)
        options_.blockSize = 2;
}

LineSource::~LineSource()
{
    close();
    std::free(buf_);
}

int LineSource::open(const char* path)
{
    close();
    if (path == nullptr)
        return 22;
    int fd = sysOpen(path, O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return portableErrnoNonZero();
    attach(fd);
    owned_ = true;
    return 0;
}

void LineSource::attach(int fd, int64_t position)
{
    close();
    fd_ = fd;
    owned_ = false;
    reader_ = nullptr;
    terminatorAt_ = nullptr;
    begin_ = end_ = 0;
    bufferOffset_ = position;
    atEnd_ = discarding_ = false;
}

void LineSource::attachReader(ReadFunction reader, void* context)
{
    attach(-1);
    reader_ = reader;
    readerContext_ = context;
}

int LineSource::close()
{
    restoreTerminator();
    reader_ = nullptr;
    int fd = fd_;
    fd_ = -1;
    if (fd < 0 || !owned_)
        return 0;
    owned_ = false;
    return ::close(fd);
}

void LineSource::restoreTerminator()
{
    if (terminatorAt_ != nullptr) {
        *terminatorAt_ = terminatorSaved_;
        terminatorAt_ = nullptr;
    }
}

bool LineSource::reserve(size_t bytes)
{
    if (bytes <= capacity_)
        return true;
    void* grown = sysRealloc(buf_, bytes);
    if (grown == nullptr) {
        errno = ENOMEM;
        return false;
    }
    buf_ = static_cast<char*>(grown);
    capacity_ = bytes;
    return true;
}

// Reads the next block behind what is buffered, first moving the unread
// bytes to the front and growing the buffer when they fill it. 1 read, 0 at
// the end, -1 failed.
int LineSource::fill()
{
    if (begin_ > 0) {
        std::memmove(buf_, buf_ + begin_, end_ - begin_);
        bufferOffset_ += static_cast<int64_t>(begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    // One byte stays free for the NUL after the last line.
    size_t want = end_ + options_.blockSize + 1;
    if (capacity_ < want && !reserve(capacity_ == 0 ? want : (2 * capacity_ > want ? 2 * capacity_ : want)))
        return -1;
    ssize_t got = readInput(buf_ + end_, capacity_ - 1 - end_, bufferOffset_ + static_cast<int64_t>(end_));
    if (got < 0)
        return -1;
    if (got == 0) {
        atEnd_ = true;
        return 0;
    }
    end_ += static_cast<size_t>(got);
    return 1;
}

ssize_t LineSource::readInput(char* out, size_t size, int64_t offset)
{
    ssize_t got;
    do {
        if (reader_ != nullptr)
            got = reader_(readerContext_, out, size);
        else if (options_.access == Access::positioned)
            got = sysPread(fd_, out, size, static_cast<off_t>(offset));
        else
            got = sysRead(fd_, out, size);
    } while (got < 0 && errno == EINTR);
    if (got > 0)
        bytesRead_.fetch_add(static_cast<uint64_t>(got), std::memory_order_relaxed);
    return got;
}

ssize_t LineSource::readRaw(char* out, size_t size)
{
    restoreTerminator();
    if (begin_ < end_) {
        size_t take = end_ - begin_ < size ? end_ - begin_ : size;
        std::memcpy(out, buf_ + begin_, take);
        begin_ += take;
        return static_cast<ssize_t>(take);
    }
    bufferOffset_ += static_cast<int64_t>(begin_);
    begin_ = end_ = 0;
    if (atEnd_)
        return 0;
    ssize_t got = readInput(out, size, bufferOffset_);
    if (got > 0)
        bufferOffset_ += got;
    else if (got == 0)
        atEnd_ = true;
    return got;
}

int LineSource::handOut(LineView& line, size_t span, size_t consumed)
{
    line.text = buf_ + begin_;
    line.span = span;
    line.offset = bufferOffset_ + static_cast<int64_t>(begin_);
    line.length = textLength(line.text, span);
    begin_ += consumed;
    terminatorAt_ = line.text + span;
    terminatorSaved_ = *terminatorAt_;
    *terminatorAt_ = '\0';
    ++linesRead_;
    return 1;
}

// The head of a line longer than the limit, ending in a line feed; the
// rest of it is skipped by the next call.
int LineSource::cutLongLine(LineView& line)
{
    const size_t span = options_.maxLine - 1;
    buf_[begin_ + span - 1] = '\n';
    discarding_ = true;
    return handOut(line, span, span);
}

int LineSource::next(LineView& line)
{
    restoreTerminator();
    size_t scanned = 0; // unread bytes already searched for a line feed
    for (;;) {
        char* p = buf_ + begin_;
        const size_t ready = end_ - begin_;
        const char* lf = ready > scanned ? static_cast<const char*>(std::memchr(p + scanned, '\n', ready - scanned))
                                         : nullptr;
        if (discarding_) {
            begin_ = lf != nullptr ? static_cast<size_t>(lf - buf_) + 1 : end_;
            scanned = 0;
            if (lf != nullptr || atEnd_)
                discarding_ = false;
            else if (fill() < 0)
                return -1;
            continue;
        }
        const size_t limit = options_.maxLine;
        if (lf != nullptr) {
            const size_t span = static_cast<size_t>(lf - p) + 1;
            return limit != 0 && span > limit - 1 ? cutLongLine(line) : handOut(line, span, span);
        }
        if (limit != 0 && ready >= limit - 1)
            return cutLongLine(line);
        scanned = ready;
        if (atEnd_) {
            if (ready > 0 && options_.keepUnterminatedLine)
                return handOut(line, ready, ready);
            begin_ = end_;
            return 0;
        }
        if (fill() < 0)
            return -1;
    }
}

int LineSource::lineAt(int64_t offset, LineView& line)
{
    restoreTerminator();
    const int64_t bufferEnd = bufferOffset_ + static_cast<int64_t>(end_);
    if (offset >= bufferOffset_ && offset <= bufferEnd) {
        begin_ = static_cast<size_t>(offset - bufferOffset_);
    } else {
        bufferOffset_ = offset;
        begin_ = end_ = 0;
    }
    atEnd_ = false;
    discarding_ = false;
    size_t scanned = 0;
    for (;;) {
        char* p = buf_ + begin_;
        const size_t ready = end_ - begin_;
        const char* lf = ready > scanned ? static_cast<const char*>(std::memchr(p + scanned, '\n', ready - scanned))
                                         : nullptr;
        if (lf != nullptr) {
            const size_t span = static_cast<size_t>(lf - p) + 1;
            return handOut(line, span, span);
        }
        if (atEnd_)
            return 0;
        scanned = ready;
        if (fill() < 0)
            return -1;
    }
}

int LineSource::rewind(int64_t offset)
{
    restoreTerminator();
    if (options_.access == Access::sequential && lseek(fd_, static_cast<off_t>(offset), SEEK_SET) < 0)
        return -1;
    begin_ = end_ = 0;
    bufferOffset_ = offset;
    atEnd_ = discarding_ = false;
    return 0;
}

uint64_t LineSource::size() const
{
    struct stat st;
    if (fd_ < 0 || fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode))
        return 0;
    return static_cast<uint64_t>(st.st_size);
}

void LineSource::forget()
{
    restoreTerminator();
    bufferOffset_ += static_cast<int64_t>(begin_);
    begin_ = end_ = 0;
    atEnd_ = discarding_ = false;
}
