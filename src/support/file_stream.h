// Small owners of the program's resources: a stdio stream and a heap buffer
// that readers may enlarge with realloc. Each releases what it still holds
// when it goes out of scope, so no way out of a sub-command leaks.
#pragma once

#include "support/file_open.h"
#include "support/sys_call.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <utility>

class StdioFile {
public:
    StdioFile() = default;
    explicit StdioFile(FILE* stream) : stream_(stream) {}
    StdioFile(const StdioFile&) = delete;
    StdioFile& operator=(const StdioFile&) = delete;
    StdioFile(StdioFile&& other) noexcept
        : stream_(std::exchange(other.stream_, nullptr)), buffer_(std::exchange(other.buffer_, nullptr))
    {
    }
    StdioFile& operator=(StdioFile&& other) noexcept
    {
        if (this != &other) {
            close();
            stream_ = std::exchange(other.stream_, nullptr);
            buffer_ = std::exchange(other.buffer_, nullptr);
        }
        return *this;
    }
    ~StdioFile() { close(); }

    FILE* get() const { return stream_; }
    explicit operator bool() const { return stream_ != nullptr; }

    // Closes the stream; returns fclose's result (0, or EOF when the close or
    // the flush of buffered output failed). Closing a closed file returns 0.
    int close()
    {
        if (stream_ == nullptr)
            return 0;
        int rc = sysFclose(std::exchange(stream_, nullptr));
        std::free(std::exchange(buffer_, nullptr));
        return rc;
    }

    // Gives the open stream a buffer of `size` bytes. stdio ignores a size
    // without a buffer, so the buffer is ours, freed after the close. On
    // failure the stream keeps its own.
    void setBuffer(size_t size)
    {
        if (stream_ == nullptr || buffer_ != nullptr)
            return;
        char* buffer = static_cast<char*>(std::malloc(size));
        if (buffer == nullptr)
            return;
        if (std::setvbuf(stream_, buffer, _IOFBF, size) != 0) {
            std::free(buffer);
            return;
        }
        buffer_ = buffer;
    }

private:
    FILE* stream_ = nullptr;
    char* buffer_ = nullptr;
};

// A malloc'd buffer with its size as an int, the shape the record readers
// take by address and enlarge in place.
// Reallocates a caller's growable buffer to `bytes`, keeping its contents;
// false, with the buffer as it was, when that fails or passes INT_MAX.
inline bool resizeBuffer(char** buf, int* size, long long bytes)
{
    if (bytes > INT_MAX)
        return false;
    void* p = sysRealloc(*buf, static_cast<size_t>(bytes));
    if (p == nullptr)
        return false;
    *buf = static_cast<char*>(p);
    *size = static_cast<int>(bytes);
    return true;
}

struct HeapBuf {
    char* ptr = nullptr;
    int size = 0;

    HeapBuf() = default;
    HeapBuf(const HeapBuf&) = delete;
    HeapBuf& operator=(const HeapBuf&) = delete;
    ~HeapBuf() { std::free(ptr); }

    bool allocate(int bytes)
    {
        if (!resizeBuffer(&ptr, &size, bytes))
            return false;
        ptr[0] = '\0';
        return true;
    }

    // Enlarges the buffer keeping its contents.
    bool grow(int bytes) { return resizeBuffer(&ptr, &size, bytes); }
};

// The read end of a command started through the shell; closing it waits for
// the command and returns its wait status.
class PipeStream {
public:
    explicit PipeStream(FILE* pipe) : pipe_(pipe) {}
    PipeStream(const PipeStream&) = delete;
    PipeStream& operator=(const PipeStream&) = delete;
    ~PipeStream() { close(); }

    FILE* get() const { return pipe_; }
    int close()
    {
        if (pipe_ == nullptr)
            return 0;
        return sysPclose(std::exchange(pipe_, nullptr));
    }

private:
    FILE* pipe_;
};

constexpr size_t SEQUENTIAL_BUFFER_SIZE = 1 << 20;

// Opens `path` (not inherited by children) with a large buffer for reading
// or writing it from start to end. On failure prints `failFormat` with the
// path and the open's error code, and returns -1.
inline int openSequential(StdioFile& file, const char* path, const char* mode, const char* failFormat)
{
    FILE* stream = nullptr;
    int err = openFile(path, mode, &stream);
    if (stream == nullptr) {
        std::fprintf(stderr, failFormat, path != nullptr ? path : "(null)", err);
        return -1;
    }
    file = StdioFile(stream);
    file.setBuffer(SEQUENTIAL_BUFFER_SIZE);
    return 0;
}
