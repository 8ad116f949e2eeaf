#include "records/record_at.h"

#include "support/file_stream.h"
#include "support/sys_call.h"

#include <cerrno>
#include <cstring>

namespace {
constexpr size_t kFirstRead = 512;
} // namespace

int readRecordLineAt(int fd, offset_t offset, char** buf, int* size, size_t* len, offset_t* lineStart)
{
    for (;;) {
        size_t have = 0;
        // Most records are a few hundred bytes: read a little, more only
        // when the line goes on.
        size_t chunk = kFirstRead;
        for (;;) {
            char* line = *buf;
            size_t room = static_cast<size_t>(*size - 1) - have;
            ssize_t got = sysPread(fd, line + have, room < chunk ? room : chunk,
                                   static_cast<off_t>(offset + static_cast<offset_t>(have)));
            chunk *= 2;
            if (got < 0)
                return -1;
            have += static_cast<size_t>(got);
            line[have] = '\0';
            if (char* lf = static_cast<char*>(std::memchr(line, '\n', have))) {
                have = static_cast<size_t>(lf - line) + 1;
                line[have] = '\0';
                break;
            }
            if (got == 0)
                return 0;
            if (have + 1 == static_cast<size_t>(*size) && !resizeBuffer(buf, size, 2LL * *size)) {
                errno = ENOMEM;
                return -1;
            }
        }
        if (!isShadowHeaderLine(*buf)) {
            *len = std::strlen(*buf);
            *lineStart = offset;
            return 1;
        }
        offset += static_cast<offset_t>(have);
    }
}
