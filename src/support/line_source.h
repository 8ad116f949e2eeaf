// Lines of a file or a pipe, read in large blocks into the source's own
// buffer and handed out in place: no copy, no stdio.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// One line as a source hands it out. The bytes stay in the source's buffer,
// NUL-terminated, until the source's next call.
struct LineView {
    char* text = nullptr;
    size_t length = 0; // bytes up to the first NUL: all a string function sees
    size_t span = 0;   // bytes the line takes in the input, line feed included
    int64_t offset = 0; // where it starts in the input
};

// The length a string function sees in `n` stored bytes: up to the first NUL.
inline size_t textLength(const char* buf, size_t n)
{
    const void* nul = __builtin_memchr(buf, '\0', n);
    return nul != nullptr ? static_cast<size_t>(static_cast<const char*>(nul) - buf) : n;
}

class LineSource {
public:
    enum class Access {
        sequential, // read(2) from the descriptor's position on: files and pipes
        positioned, // pread(2) at the offsets asked for; the window is kept
    };
    struct Options {
        Access access = Access::sequential;
        size_t blockSize = 1 << 20;
        // A last line without its line feed: dropped (as every record reader
        // has always taken it, the end of the input) or handed out.
        bool keepUnterminatedLine = false;
        // A longer line keeps its head, ends in a line feed, and loses the
        // rest, so that its tail is never taken for a line of its own. 0: no limit.
        size_t maxLine = 0;
    };

    LineSource();
    explicit LineSource(Options options);
    ~LineSource();
    LineSource(const LineSource&) = delete;
    LineSource& operator=(const LineSource&) = delete;

    // Opens `path` for reading (closed on exec). 0, or the portable error
    // code of the open.
    int open(const char* path);
    // Reads `fd`, which the caller keeps open; `position` is the offset the
    // next sequential read starts at.
    void attach(int fd, int64_t position = 0);
    // Reads through `reader` instead of a descriptor: a pipe read with a
    // time limit, say. It returns as read(2) does.
    using ReadFunction = ssize_t (*)(void* context, char* buffer, size_t size);
    void attachReader(ReadFunction reader, void* context);
    // Closes a descriptor the source opened; close(2)'s result.
    int close();
    int fd() const { return fd_; }
    bool isOpen() const { return fd_ >= 0 || reader_ != nullptr; }

    // The next line: 1, 0 at the end of the input, -1 when a read failed
    // (errno tells why) or the buffer cannot grow (ENOMEM).
    int next(LineView& line);
    // The line that starts at `offset` (positioned access): 1, 0 when no
    // whole line starts there, -1 as for next().
    int lineAt(int64_t offset, LineView& line);
    // Starts reading again at `offset` (the descriptor is repositioned).
    int rewind(int64_t offset = 0);

    void keepUnterminatedLine(bool keep) { options_.keepUnterminatedLine = keep; }

    // The input offset of the next line next() hands out.
    int64_t position() const { return bufferOffset_ + static_cast<int64_t>(begin_); }

    // The size of a regular file read; 0 for anything else.
    uint64_t size() const;

    // Bytes of input read so far; lines handed out.
    uint64_t bytesRead() const { return bytesRead_.load(std::memory_order_relaxed); }
    uint64_t linesRead() const { return linesRead_; }

    // Up to `size` bytes of the input from the position on, straight into
    // `out` (what is buffered first): a block reader's way in. As read(2):
    // the bytes, 0 at the end, -1 when the read failed.
    ssize_t readRaw(char* out, size_t size);

    // Drops what is buffered: the next read goes to the input.
    void forget();

private:
    int fill();
    ssize_t readInput(char* out, size_t size, int64_t offset);
    bool reserve(size_t bytes);
    void restoreTerminator();
    int handOut(LineView& line, size_t span, size_t consumed);
    int cutLongLine(LineView& line);

    Options options_;
    int fd_ = -1;
    bool owned_ = false;
    ReadFunction reader_ = nullptr;
    void* readerContext_ = nullptr;
    char* buf_ = nullptr;
    size_t capacity_ = 0;
    size_t begin_ = 0;        // next unread byte
    size_t end_ = 0;          // end of the bytes read
    int64_t bufferOffset_ = 0; // input offset of buf_[0]
    bool atEnd_ = false;
    bool discarding_ = false; // skipping the tail of a cut line
    char* terminatorAt_ = nullptr;
    char terminatorSaved_ = 0;
    std::atomic<uint64_t> bytesRead_{0}; // also read from another thread

    uint64_t linesRead_ = 0;
};
