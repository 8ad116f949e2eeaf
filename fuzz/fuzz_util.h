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
