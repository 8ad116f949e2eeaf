// Small owners of the program's resources: a stdio stream and a heap buffer
// that readers may enlarge with realloc. Each releases what it still holds
// when it goes out of scope, so no way out of a sub-command leaks.
#pragma once

#include "support/sys_call.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

class StdioFile {
public:
    StdioFile() = default;
    explicit StdioFile(FILE* stream) : stream_(stream) {}
    StdioFile(const StdioFile&) = delete;
    StdioFile& operator=(const StdioFile&) = delete;
    StdioFile(StdioFile&& other) noexcept : stream_(std::exchange(other.stream_, nullptr)) {}
    StdioFile& operator=(StdioFile&& other) noexcept
    {
        if (this != &other) {
            close();
            stream_ = std::exchange(other.stream_, nullptr);
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
        return sysFclose(std::exchange(stream_, nullptr));
    }

private:
    FILE* stream_ = nullptr;
};

// A malloc'd buffer with its size as an int, the shape the record readers
// take by address and enlarge in place.
struct HeapBuf {
    char* ptr = nullptr;
    int size = 0;

    HeapBuf() = default;
    HeapBuf(const HeapBuf&) = delete;
    HeapBuf& operator=(const HeapBuf&) = delete;
    ~HeapBuf() { std::free(ptr); }

    bool allocate(int bytes)
    {
        void* p = sysRealloc(ptr, static_cast<size_t>(bytes));
        if (p == nullptr)
            return false;
        ptr = static_cast<char*>(p);
        size = bytes;
        ptr[0] = '\0';
        return true;
    }

    // Enlarges the buffer keeping its contents.
    bool grow(int bytes)
    {
        void* p = sysRealloc(ptr, static_cast<size_t>(bytes));
        if (p == nullptr)
            return false;
        ptr = static_cast<char*>(p);
        size = bytes;
        return true;
    }
};
