#include "records/policy_record.h"

#include "records/scanf_cursor.h"
#include "support/file_open.h"
#include "support/line_read.h"
#include "support/sys_call.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif
#include <cstdlib>
#include <cstring>

bool clusterMigrationReader = false;

namespace {

// Enlarges a caller's buffer to hold `need` bytes: to twice its size, or to
// `need` when that is more.
bool growToFit(char** buf, int* size, long long need)
{
    if (need <= *size)
        return true;
    long long target = 2LL * *size;
    return resizeBuffer(buf, size, target < need ? need : target);
}

bool startsWith(const char* text, const char* prefix, size_t prefixLen)
{
    return std::strncmp(text, prefix, prefixLen) == 0;
}


long long absLength(int length)
{
    return length < 0 ? -static_cast<long long>(length) : length;
}

} // namespace

namespace {

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

namespace {

// The nth blank (n >= 1) in the `len` bytes at `text`, or null.
char* nthBlank(char* text, size_t len, int n)
{
    size_t i = 0;
#ifdef __SSE2__
    // Sixteen bytes at a time: a SHOW text holds its five blanks in about
    // seventy bytes.
    const __m128i blanks = _mm_set1_epi8(' ');
    for (; i + 16 <= len; i += 16) {
        __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
        for (auto mask = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, blanks))); mask != 0;
             mask &= mask - 1)
            if (--n == 0)
                return text + i + __builtin_ctz(mask);
    }
#endif
    for (; i < len; ++i)
        if (text[i] == ' ' && --n == 0)
            return text + i;
    return nullptr;
}

// The first "!" at or after `from`. A scan that stopped on a "!" found it:
// everything it passed over was blanks, signs, digits and separators.
const char* firstBang(const char* from, const char* scanEnd)
{
    return *scanEnd == '!' ? scanEnd : std::strchr(from, '!');
}

// Skips the one separator at `p` and reads "<length>!<text>", as the pool
// and the SHOW attribute are written. Returns the end of the text (the text
// begins `*size` bytes before it), or null after a message naming `what`.
const char* lengthPrefixedText(const char* p, const char* line, const char* lineEnd, int part, const char* what,
                               long long* size = nullptr)
{
    if (*p != '\0')
        ++p;
    int length = 0;
    const char* scanEnd = p;
    if (scanLengthField(p, &length, &scanEnd) < 1) {
        std::fprintf(stderr, "quenby: failed to parse shadow line [%d]%s\n", part, line);
        return nullptr;
    }
    long long bytes = absLength(length);
    const char* bang = firstBang(p, scanEnd);
    if (bang == nullptr) {
        std::fprintf(stderr, "quenby: failed to find %s in %s\n", what, line);
        return nullptr;
    }
    if (lineEnd - (bang + 1) < bytes) {
        std::fprintf(stderr, "quenby: invalid %s length %lld in %s\n", what, bytes, line);
        return nullptr;
    }
    if (size != nullptr)
        *size = bytes;
    return bang + 1 + bytes;
}

} // namespace

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

int readPolicyRecord(FILE* stream, char** lineBuf, int* lineBufSize, uint64_t* ino, uint64_t* gen,
                     char** pathBuf, int* pathBufSize, char** showBuf, int* showBufSize,
                     char** filesetName, char** hsmState, unsigned int* endOfFile, int* state,
                     int* escapedPath)
{
    return readPolicyRecordLen(stream, lineBuf, lineBufSize, ino, gen, pathBuf, pathBufSize, showBuf,
                               showBufSize, filesetName, hsmState, endOfFile, state, escapedPath,
                               nullptr);
}

int readPolicyRecordLen(FILE* stream, char** lineBuf, int* lineBufSize, uint64_t* ino, uint64_t* gen,
                        char** pathBuf, int* pathBufSize, char** showBuf, int* showBufSize,
                        char** filesetName, char** hsmState, unsigned int* endOfFile, int* state,
                        int* escapedPath, size_t* lineLength, size_t* linesRead)
{
    if (escapedPath != nullptr)
        *escapedPath = 0;
    *endOfFile = 0;
    if (filesetName != nullptr)
        *filesetName = nullptr;
    if (hsmState != nullptr)
        *hsmState = nullptr;

    // Take the next line that is not a header line, growing the buffer for
    // a line that does not fit and reading it again from its start.
    char* line;
    size_t len = 0;
    for (;;) {
        line = *lineBuf;
        int size = *lineBufSize;
        if (size < 2) {
            if (!growToFit(lineBuf, lineBufSize, 2)) {
                std::fprintf(stderr, "quenby: failed to realloc memory for line %s\n", "");
                return -1;
            }
            continue;
        }
        if (!readLineText(line, size, stream, &len)) {
            // A list that cannot be read must not pass for an empty one: the
            // merge would expire every file it no longer sees.
            if (ferror_unlocked(stream)) {
                std::fprintf(stderr, "quenby: failed to read records (error=%d)\n", portableErrnoNonZero());
                return -1;
            }
            *endOfFile = 1;
            return 0;
        }
        if (len == static_cast<size_t>(size) - 1 && line[len - 1] != '\n') {
            if (!growToFit(lineBuf, lineBufSize, 2LL * size)) {
                std::fprintf(stderr, "quenby: failed to realloc memory for line %s\n", line);
                return -1;
            }
            int rc = sysFseeko(stream, -static_cast<off_t>(len), SEEK_CUR);
            if (rc != 0)
                return rc;
            continue;
        }
        if (linesRead != nullptr)
            ++*linesRead;
        if (isShadowHeaderLine(line))
            continue;
        break;
    }
    if (lineLength != nullptr)
        *lineLength = len;
    return parsePolicyRecordLine(line, len, *lineBufSize, ino, gen, pathBuf, pathBufSize, showBuf, showBufSize,
                                 filesetName, hsmState, state, escapedPath);
}

namespace {

// The path after the first '!' of the head, copied into the path buffer;
// where the path ends in the line, or null after the message.
const char* copyRecordPath(const char* line, const char* lineEnd, const char* scanEnd, int pathLen, int lineBufSize,
                           char** pathBuf, int* pathBufSize)
{
    const char* bang = firstBang(line, scanEnd);
    if (bang == nullptr) {
        std::fprintf(stderr, "quenby: failed to find file path in %s\n", line);
        return nullptr;
    }
    const char* path = bang + 1;
    if ((path - line) + static_cast<long long>(pathLen) > lineBufSize) {
        std::fprintf(stderr, "quenby: invalid file path length %d in %s\n", pathLen, line);
        return nullptr;
    }
    if (lineEnd - path < pathLen) {
        std::fprintf(stderr, "quenby: file path length %d larger than %s\n", pathLen, line);
        return nullptr;
    }
    if (!growToFit(pathBuf, pathBufSize, static_cast<long long>(pathLen) + 1)) {
        std::fprintf(stderr, "quenby: failed to realloc memory for line %s\n", line);
        return nullptr;
    }
    std::memcpy(*pathBuf, path, static_cast<size_t>(pathLen));
    (*pathBuf)[pathLen] = '\0';
    return path + pathLen;
}

// What the reader reports for a record's path: a path the server cannot
// take, one of the backup machinery's own, or 0.
int classifyPath(const char* recordPath, int pathLen, bool pathEscaped)
{
    if (!clusterMigrationReader) {
        if (std::memchr(recordPath, UnsupQBSCharList[0], static_cast<size_t>(pathLen)) != nullptr
            || std::memchr(recordPath, UnsupQBSCharList[1], static_cast<size_t>(pathLen)) != nullptr)
            return PDR_UNSUPPORTED;
        if (pathEscaped && std::strstr(recordPath, UnsupEscCharList) != nullptr)
            return PDR_UNSUPPORTED;
    }
    if (isInternalPath(recordPath))
        return PDR_INTERNAL;
    return 0;
}

} // namespace

int parsePolicyRecordLine(char* line, size_t len, int lineBufSize, uint64_t* ino, uint64_t* gen, char** pathBuf,
                          int* pathBufSize, char** showBuf, int* showBufSize, char** filesetName, char** hsmState,
                          int* state, int* escapedPath)
{
    if (escapedPath != nullptr)
        *escapedPath = 0;
    if (filesetName != nullptr)
        *filesetName = nullptr;
    if (hsmState != nullptr)
        *hsmState = nullptr;
    const char* lineEnd = line + len;

    unsigned int flag = 0;
    int pathLen = 0;
    const char* scanEnd = line;
    if (scanRecordHead(line, ino, gen, &flag, &pathLen, &scanEnd) < 4 || pathLen < -4096) {
        std::fprintf(stderr, "quenby: failed to parse shadow line [1]%s\n", line);
        return -1;
    }
    bool pathEscaped = pathLen < 0;
    if (pathEscaped) {
        if (escapedPath != nullptr)
            *escapedPath = 1;
        pathLen = -pathLen;
    }

    const char* pathEnd = copyRecordPath(line, lineEnd, scanEnd, pathLen, lineBufSize, pathBuf, pathBufSize);
    if (pathEnd == nullptr)
        return -1;

    // Storage pool: read over. Then the SHOW attribute.
    const char* pool = lengthPrefixedText(pathEnd, line, lineEnd, 2, "storage pool");
    if (pool == nullptr)
        return -1;
    long long showSize = 0;
    const char* showEnd = lengthPrefixedText(pool, line, lineEnd, 3, "show attribute", &showSize);
    if (showEnd == nullptr)
        return -1;
    if (!growToFit(showBuf, showBufSize, showSize + 1)) {
        std::fprintf(stderr, "quenby: failed to realloc memory for line %s\n", line);
        return -1;
    }
    if (state != nullptr)
        *state = static_cast<int>(flag);
    char* show = *showBuf;
    std::memcpy(show, showEnd - showSize, static_cast<size_t>(showSize));
    show[showSize] = '\0';

    // Fields 1 to 5 stay at the front of the SHOW buffer; 6 and 7 are cut
    // off.
    char* const textEnd = show + textLength(show, static_cast<size_t>(showSize));
    char* blank = nthBlank(show, static_cast<size_t>(textEnd - show), 5);
    if (blank == nullptr) {
        std::fprintf(stderr, "quenby: invalid show attribute in %s\n", line);
        return -1;
    }
    *blank = '\0';
    if (filesetName == nullptr || hsmState == nullptr)
        return 0;
    *filesetName = blank + 1;
    char* next = static_cast<char*>(std::memchr(blank + 1, ' ', static_cast<size_t>(textEnd - (blank + 1))));
    if (next != nullptr) {
        *next = '\0';
        *hsmState = next + 1;
    }

    return classifyPath(*pathBuf, pathLen, pathEscaped);
}
