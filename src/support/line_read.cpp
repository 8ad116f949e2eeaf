#include "support/line_read.h"

#include <cerrno>
#include <cstring>

bool readLineText(char* buf, int size, FILE* in, size_t* len)
{
    long got = fgetsLength(buf, size, in);
    if (got < 0 || feof_unlocked(in))
        return false;
    *len = textLength(buf, static_cast<size_t>(got));
    return true;
}

long fgetsLength(char* buf, int size, FILE* in)
{
    if (size <= 0)
        return -1;
    size_t room = static_cast<size_t>(size) - 1;
    size_t stored = 0;
#ifdef __GLIBC__
    // As fgets, count only an error of this call: an earlier one must not
    // cost the last line.
    const int earlierError = in->_flags & _IO_ERR_SEEN;
    in->_flags &= ~_IO_ERR_SEEN;
    struct RestoreError {
        FILE* in;
        int flag;
        ~RestoreError() { in->_flags |= flag; }
    } restore{in, earlierError};
#endif
    while (stored < room) {
#ifdef __GLIBC__
        // Copy straight out of the stream's buffer, a line at a time.
        char* p = in->_IO_read_ptr;
        size_t ready = static_cast<size_t>(in->_IO_read_end - p);
        if (ready > 0) {
            size_t want = room - stored;
            size_t take = ready < want ? ready : want;
            const char* lf = static_cast<const char*>(std::memchr(p, '\n', take));
            if (lf != nullptr)
                take = static_cast<size_t>(lf - p) + 1;
            std::memcpy(buf + stored, p, take);
            in->_IO_read_ptr = p + take;
            stored += take;
            if (lf != nullptr)
                break;
            continue;
        }
#endif
        int c = getc_unlocked(in);
        if (c == EOF) {
            if (stored == 0 || (ferror_unlocked(in) && errno != EAGAIN))
                return -1;
            break;
        }
        buf[stored++] = static_cast<char>(c);
        if (c == '\n')
            break;
    }
    buf[stored] = '\0';
    return static_cast<long>(stored);
}
