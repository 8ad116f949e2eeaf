// Helpers of the fuzz targets: input as a stream, and a private scratch
// directory for targets that need files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace fuzz {

// The input as a read-only stream; null for empty input.
inline FILE* inputStream(const uint8_t* data, size_t size)
{
    if (size == 0)
        return nullptr;
    return fmemopen(const_cast<uint8_t*>(data), size, "r");
}

// The input as a NUL-terminated text (stops at the first NUL byte).
inline std::string inputText(const uint8_t* data, size_t size)
{
    return std::string(reinterpret_cast<const char*>(data), size).c_str();
}

// The input read in pieces of at most `piece` bytes, as a pipe gives them.
struct PieceReader {
    const uint8_t* data;
    size_t size;
    size_t piece;
    size_t pos = 0;
    static ssize_t read(void* self, char* out, size_t room)
    {
        auto* r = static_cast<PieceReader*>(self);
        size_t n = r->size - r->pos;
        n = n < room ? n : room;
        n = n < r->piece ? n : r->piece;
        for (size_t i = 0; i < n; ++i)
            out[i] = static_cast<char>(r->data[r->pos + i]);
        r->pos += n;
        return static_cast<ssize_t>(n);
    }
};

// A directory of this process, made once.
inline const std::string& scratchDir()
{
    static std::string dir = [] {
        char pattern[] = "/tmp/quenby-fuzz-XXXXXX";
        const char* made = mkdtemp(pattern);
        if (made == nullptr)
            std::abort();
        return std::string(made);
    }();
    return dir;
}

inline std::string writeScratch(const char* name, const uint8_t* data, size_t size)
{
    std::string path = scratchDir() + "/" + name;
    FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr)
        std::abort();
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    return path;
}

} // namespace fuzz
