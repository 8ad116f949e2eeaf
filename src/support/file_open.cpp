#include "support/file_open.h"

#include "support/sys_call.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace {

// Linux errno 0..129 to the portable numbering. Entries 0..34 are the
// identity; a value of 0 beyond that means "errno + 1000".
constexpr int kErrnoTableSize = 130;
constexpr int kErrnoTable[kErrnoTableSize] = {
    0,   1,   2,   3,   4,   5,   6,   7,   8,   9,   //   0..9
    10,  11,  12,  13,  14,  15,  16,  17,  18,  19,  //  10..19
    20,  21,  22,  23,  24,  25,  26,  27,  28,  29,  //  20..29
    30,  31,  32,  33,  34,  45,  86,  49,  109, 87,  //  30..39
    85,  0,   35,  36,  37,  38,  39,  40,  41,  42,  //  40..49
    43,  44,  0,   0,   0,   0,   0,   0,   0,   0,   //  50..59
    123, 122, 119, 118, 0,   0,   93,  126, 0,   0,   //  60..69
    0,   121, 125, 0,   120, 127, 0,   0,   0,   0,   //  70..79
    0,   0,   0,   0,   116, 82,  0,   84,  57,  58,  //  80..89
    59,  60,  61,  62,  63,  64,  65,  66,  67,  68,  //  90..99
    69,  70,  71,  72,  73,  74,  75,  76,  77,  115, // 100..109
    78,  79,  80,  81,  56,  55,  52,  0,   0,   0,   // 110..119
    0,   0,   88,  0,   0,   117, 0,   0,   0,   0,   // 120..129
};

} // namespace

int errnoToPortable(int e)
{
    if (e <= 0)
        return e;
    if (e >= kErrnoTableSize)
        return e + 1000;
    if (e <= 34)
        return kErrnoTable[e];
    int mapped = kErrnoTable[e];
    return mapped != 0 ? mapped : e + 1000;
}

int portableErrno()
{
    int e = errno;
    return e == 0 ? 0 : errnoToPortable(e);
}

int portableErrnoNonZero()
{
    int code = portableErrno();
    return code == 0 ? -1 : code;
}

int openFile(const char* path, const char* mode, FILE** streamOut)
{
    *streamOut = nullptr;
    if (path == nullptr)
        return 22;
    FILE* stream = sysFopen(path, mode);
    if (stream == nullptr)
        return portableErrnoNonZero();
    if (sysFcntl(fileno(stream), F_SETFD, FD_CLOEXEC) == -1) {
        int result = portableErrnoNonZero();
        int saved = errno;
        std::fclose(stream);
        errno = saved;
        return result;
    }
    *streamOut = stream;
    return 0;
}

void systemError(const char* prefix)
{
    std::fprintf(stderr, "%s: %s\n", prefix, std::strerror(errno));
}
