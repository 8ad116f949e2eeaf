#include "records/policy_record.h"

#include "records/scanf_cursor.h"

#include <cstdlib>
#include <cstring>

namespace {

bool startsWith(const char* text, const char* prefix, size_t prefixLen)
{
    return std::strncmp(text, prefix, prefixLen) == 0;
}

// One plain hexadecimal field of at most 16 digits, no sign, no "0x", and
// the ':' after it: what every record written by a scan holds. Anything
// else is left to the full conversion.
inline bool plainHexField(const char*& p, uint64_t& value)
{
    const char* start = p;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X'))
        return false;
    uint64_t v = 0;
    int d;
    while ((d = scanf_detail::digits.value[static_cast<unsigned char>(*p)]) >= 0) {
        v = v << 4 | static_cast<unsigned>(d);
        ++p;
    }
    if (p == start || p - start > 16 || *p != ':')
        return false;
    value = v;
    ++p;
    return true;
}

// The whole head in its plain form; false when the line needs the full
// conversion (which gives the same values for every line accepted here).
bool plainRecordHead(const char* text, uint64_t* ino, uint64_t* gen, unsigned int* flag, int* pathLen,
                     const char** end)
{
    const char* p = text;
    uint64_t field[8];
    for (uint64_t& f : field)
        if (!plainHexField(p, f))
            return false;
    bool negative = *p == '-';
    const char* digitsStart = negative ? p + 1 : p;
    const char* q = digitsStart;
    int length = 0;
    while (*q >= '0' && *q <= '9' && q - digitsStart < 9)
        length = length * 10 + (*q++ - '0');
    if (q == digitsStart || (*q >= '0' && *q <= '9'))
        return false;
    *ino = field[2];
    *gen = field[3];
    *flag = static_cast<unsigned int>(field[7]);
    *pathLen = negative ? -length : length;
    if (end != nullptr)
        *end = q;
    return true;
}

} // namespace

int scanRecordHead(const char* text, uint64_t* ino, uint64_t* gen, unsigned int* flag, int* pathLen,
                   const char** end)
{
    if (plainRecordHead(text, ino, gen, flag, pathLen, end))
        return 4;
    ScanfCursor in(text);
    struct EndGuard {
        ScanfCursor& in;
        const char** end;
        ~EndGuard()
        {
            if (end != nullptr)
                *end = in.position();
        }
    } guard{in, end};
    // %*x:%*llx:
    if (!in.number(-1, true) || !in.literal(':') || !in.number(-1, true) || !in.literal(':'))
        return in.result();
    // %016llx:
    if (!in.number(16, true))
        return in.result();
    *ino = in.asUnsigned();
    in.stored();
    // %llx:
    if (!in.literal(':') || !in.number(-1, true))
        return in.result();
    *gen = in.asUnsigned();
    in.stored();
    // :%*llx:%*x:%*x:
    if (!in.literal(':') || !in.number(-1, true) || !in.literal(':') || !in.number(-1, true)
        || !in.literal(':') || !in.number(-1, true) || !in.literal(':'))
        return in.result();
    // %x: — scanf's %x goes through strtoul and keeps the low 32 bits.
    if (!in.number(-1, true))
        return in.result();
    *flag = static_cast<unsigned int>(in.asUnsigned());
    in.stored();
    // %d (what follows it cannot change the count)
    if (!in.literal(':') || !in.number(-1, false))
        return in.result();
    *pathLen = in.asInt();
    in.stored();
    return in.result();
}

int scanLengthField(const char* text, int* length, const char** end)
{
    // The plain form, a few digits and the "!": no sign, blank or overflow.
    if (text[0] >= '0' && text[0] <= '9') {
        int value = text[0] - '0';
        const char* p = text + 1;
        while (*p >= '0' && *p <= '9' && p - text < 9)
            value = value * 10 + (*p++ - '0');
        if (*p == '!') {
            *length = value;
            if (end != nullptr)
                *end = p;
            return 1;
        }
    }
    ScanfCursor in(text);
    bool ok = in.number(-1, false);
    if (end != nullptr)
        *end = in.position();
    if (!ok)
        return in.result();
    *length = in.asInt();
    in.stored();
    return in.result();
}

bool isShadowHeaderLine(const char* line)
{
    return line[0] == '%'
           && (startsWith(line, SHADOW_MAGIC, sizeof SHADOW_MAGIC - 1)
               || startsWith(line, SHADOW_COMMENT_TAG, sizeof SHADOW_COMMENT_TAG - 1));
}

bool isInternalPath(const char* path, InternalPaths rule)
{
    if (path[0] != '.')
        return false;
    if (startsWith(path, ".kestrel", 8))
        return true;
    if (rule == InternalPaths::toolOnly)
        return false;
    return path[1] == '\0' || (rule == InternalPaths::all && startsWith(path, ".execScript", 11));
}
