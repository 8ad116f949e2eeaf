#include "records/policy_record.h"

#include "cli/dispatch.h"
#include "support/file_open.h"
#include "support/sys_call.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

bool cSpace(unsigned char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// Digit values by character: 0-15 for hexadecimal digits, -1 for the rest.
struct DigitTable {
    signed char value[256];
    constexpr DigitTable() : value()
    {
        for (int c = 0; c < 256; ++c)
            value[c] = -1;
        for (int c = '0'; c <= '9'; ++c)
            value[c] = static_cast<signed char>(c - '0');
        for (int c = 'a'; c <= 'f'; ++c)
            value[c] = static_cast<signed char>(c - 'a' + 10);
        for (int c = 'A'; c <= 'F'; ++c)
            value[c] = static_cast<signed char>(c - 'A' + 10);
    }
};
constexpr DigitTable digits;

// A cursor over NUL-terminated text that converts integers and matches
// literal characters the way glibc's scanf does, including its odd corners:
// leading white space, a sign, a "0x" prefix that is consumed even when no
// digit follows, field widths that count the sign and the prefix, and
// out-of-range values clamped as strtoul/strtol clamp them.
class ScanfCursor {
public:
    explicit ScanfCursor(const char* text) : p_(text) {}

    // Values stored so far, or -1 when the input ran out before the first.
    int result() const { return inputFailed_ && stored_ == 0 ? -1 : stored_; }
    const char* position() const { return p_; }
    bool failed() const { return failed_; }

    // One integer conversion; `width` < 0 means none. Returns false when the
    // scan stops here.
    __attribute__((always_inline)) bool number(int width, bool hex)
    {
        if (failed_)
            return false;
        while (cSpace(static_cast<unsigned char>(*p_)))
            ++p_;
        if (*p_ == '\0')
            return stop(true);
        neg_ = false;
        mag_ = 0;
        overflow_ = false;
        int digitCount = 0;
        if (*p_ == '-' || *p_ == '+') {
            neg_ = *p_ == '-';
            ++p_;
            if (width > 0)
                --width;
        }
        if (width != 0 && *p_ == '0') {
            if (width > 0)
                --width;
            ++p_;
            digitCount = 1;
            if (hex && width != 0 && (*p_ == 'x' || *p_ == 'X')) {
                if (width > 0)
                    --width;
                ++p_;
            }
        }
        // A field without a width stops only at a non-digit (NUL included).
        const char* start = p_;
        int left = width; // below 0: no width, never reaches 0
        if (hex) {
            for (int v; left != 0 && (v = digits.value[static_cast<unsigned char>(*p_)]) >= 0; ++p_, --left) {
                if (mag_ >> 60 != 0)
                    overflow_ = true;
                else
                    mag_ = mag_ << 4 | static_cast<unsigned>(v);
            }
        } else {
            constexpr unsigned long long tenth = ULLONG_MAX / 10;
            for (unsigned v; left != 0 && (v = static_cast<unsigned char>(*p_) - '0') < 10; ++p_, --left) {
                if (mag_ > tenth || (mag_ == tenth && v > ULLONG_MAX % 10))
                    overflow_ = true;
                else
                    mag_ = mag_ * 10 + v;
            }
        }
        digitCount += static_cast<int>(p_ - start);
        if (digitCount == 0)
            return stop(false);
        return true;
    }

    // The last number as strtoull gives it.
    unsigned long long asUnsigned() const
    {
        if (overflow_)
            return ULLONG_MAX;
        return neg_ ? 0ULL - mag_ : mag_;
    }

    // The last number as strtol gives it, truncated to int as scanf's %d stores it.
    int asInt() const
    {
        long value;
        if (!neg_)
            value = (overflow_ || mag_ > static_cast<unsigned long long>(LONG_MAX)) ? LONG_MAX
                                                                                     : static_cast<long>(mag_);
        else if (overflow_ || mag_ > static_cast<unsigned long long>(LONG_MAX) + 1ULL)
            value = LONG_MIN;
        else
            value = static_cast<long>(0ULL - mag_);
        return static_cast<int>(static_cast<unsigned int>(static_cast<unsigned long>(value)));
    }

    void stored() { ++stored_; }

    bool literal(char c)
    {
        if (failed_)
            return false;
        if (*p_ == '\0')
            return stop(true);
        if (*p_ != c)
            return stop(false);
        ++p_;
        return true;
    }

private:
    bool stop(bool inputFailure)
    {
        failed_ = true;
        inputFailed_ = inputFailure;
        return false;
    }

    const char* p_;
    int stored_ = 0;
    bool failed_ = false;
    bool inputFailed_ = false;
    bool neg_ = false;
    bool overflow_ = false;
    unsigned long long mag_ = 0;
};

// Enlarges a caller's buffer to hold `need` bytes: to twice its size, or to
// `need` when that is more.
bool growToFit(char** buf, int* size, long long need)
{
    if (need <= *size)
        return true;
    long long target = 2LL * *size;
    if (target < need)
        target = need;
    if (target > INT_MAX)
        return false;
    void* p = sysRealloc(*buf, static_cast<size_t>(target));
    if (p == nullptr)
        return false;
    *buf = static_cast<char*>(p);
    *size = static_cast<int>(target);
    return true;
}

bool startsWith(const char* text, const char* prefix, size_t prefixLen)
{
    return std::strncmp(text, prefix, prefixLen) == 0;
}

bool isHeaderLine(const char* line)
{
    return line[0] == '%'
           && (startsWith(line, SHADOW_MAGIC, sizeof SHADOW_MAGIC - 1)
               || startsWith(line, SHADOW_COMMENT_TAG, sizeof SHADOW_COMMENT_TAG - 1));
}

long long absLength(int length)
{
    return length < 0 ? -static_cast<long long>(length) : length;
}

} // namespace

int scanRecordHead(const char* text, uint64_t* ino, uint64_t* gen, unsigned int* flag, int* pathLen,
                   const char** end)
{
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

bool isInternalPath(const char* path)
{
    return path[0] == '.'
           && (path[1] == '\0' || startsWith(path, ".kestrel", 8) || startsWith(path, ".execScript", 11));
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
                        int* escapedPath, size_t* lineLength)
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
    size_t len;
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
        if (fgets_unlocked(line, size, stream) == nullptr || feof_unlocked(stream)) {
            // A list that cannot be read must not pass for an empty one: the
            // merge would expire every file it no longer sees.
            if (ferror_unlocked(stream)) {
                std::fprintf(stderr, "quenby: failed to read records (error=%d)\n", cxiErrnoChecked());
                return -1;
            }
            *endOfFile = 1;
            return 0;
        }
        len = std::strlen(line);
        if (len == static_cast<size_t>(size) - 1 && line[len - 1] != '\n') {
            if (size > INT_MAX / 2 || !growToFit(lineBuf, lineBufSize, 2LL * size)) {
                std::fprintf(stderr, "quenby: failed to realloc memory for line %s\n", line);
                return -1;
            }
            int rc = sysFseeko(stream, -static_cast<off_t>(len), SEEK_CUR);
            if (rc != 0)
                return rc;
            continue;
        }
        if (isHeaderLine(line))
            continue;
        break;
    }
    if (lineLength != nullptr)
        *lineLength = len;
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

    const char* bang = firstBang(line, scanEnd);
    if (bang == nullptr) {
        std::fprintf(stderr, "quenby: failed to find file path in %s\n", line);
        return -1;
    }
    const char* path = bang + 1;
    if ((path - line) + static_cast<long long>(pathLen) > *lineBufSize) {
        std::fprintf(stderr, "quenby: invalid file path length %d in %s\n", pathLen, line);
        return -1;
    }
    if (lineEnd - path < pathLen) {
        std::fprintf(stderr, "quenby: file path length %d larger than %s\n", pathLen, line);
        return -1;
    }
    if (!growToFit(pathBuf, pathBufSize, static_cast<long long>(pathLen) + 1)) {
        std::fprintf(stderr, "quenby: failed to realloc memory for line %s\n", line);
        return -1;
    }
    std::memcpy(*pathBuf, path, static_cast<size_t>(pathLen));
    (*pathBuf)[pathLen] = '\0';

    // Storage pool: read over. Then the SHOW attribute.
    const char* pool = lengthPrefixedText(path + pathLen, line, lineEnd, 2, "storage pool");
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

    // Fields 1 to 5 stay at the front of the SHOW buffer; 6 and 7 are cut off.
    char* blank = show;
    for (int blanks = 0;; ++blank) {
        if (*blank == '\0') {
            std::fprintf(stderr, "quenby: invalid show attribute in %s\n", line);
            return -1;
        }
        if (*blank == ' ' && ++blanks == 5)
            break;
    }
    *blank = '\0';
    if (filesetName == nullptr || hsmState == nullptr)
        return 0;
    *filesetName = blank + 1;
    char* next = std::strchr(blank + 1, ' ');
    if (next != nullptr) {
        *next = '\0';
        *hsmState = next + 1;
    }

    const char* recordPath = *pathBuf;
    if (!migDiff) {
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
