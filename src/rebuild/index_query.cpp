#include "rebuild/index_query.h"

#include "records/policy_record.h"
#include "records/scanf_cursor.h"
#include "support/debug_level.h"
#include "support/file_stream.h"
#include "support/sys_call.h"

#include <cerrno>
#include <algorithm>
#include <cstring>

namespace {

constexpr int kIndexLineSize = 8192;
constexpr int kIndexPathStart = 17;
constexpr int kQueryPathMax = 4096;
constexpr int kQueryWordMax = 11;

// "%s" into a 12-byte field; a longer word makes the line unparsable.
bool queryWord(ScanfCursor& in, char* out)
{
    char word[kQueryWordMax + 2];
    if (!in.word(kQueryWordMax + 1, word) || std::strlen(word) > kQueryWordMax)
        return false;
    std::memcpy(out, word, std::strlen(word) + 1);
    return true;
}

// One plain number: a sign when `sign`, then 1 to `digits` digits and no
// more; what "%d" and "%lld" make of it, without their corners.
bool plainNumber(const char*& p, int digits, bool sign, long long& out)
{
    const bool negative = sign && *p == '-';
    const char* start = p + (negative ? 1 : 0);
    const char* q = start;
    long long value = 0;
    while (*q >= '0' && *q <= '9' && q - start < digits)
        value = value * 10 + (*q++ - '0');
    if (q == start || (*q >= '0' && *q <= '9'))
        return false;
    p = q;
    out = negative ? -value : value;
    return true;
}

// One word of at most 11 bytes and the single blank after it.
bool plainWord(const char*& p, char* out)
{
    size_t n = 0;
    while (n <= kQueryWordMax && p[n] != '\0' && !scanf_detail::cSpace(static_cast<unsigned char>(p[n])))
        ++n;
    if (n == 0 || n > kQueryWordMax || p[n] != ' ')
        return false;
    std::memcpy(out, p, n);
    out[n] = '\0';
    p += n + 1;
    return true;
}

// The fields of a query line as the driver writes them: single blanks,
// plain numbers, the path length right before the "!". False for anything
// else, which the full conversion then reads.
bool plainQueryFields(const char* p, queryRecord* rec, int* pathLen)
{
    queryRecord got = *rec;
    long long attr = 0, size = 0, length = 0;
    if (!plainNumber(p, 9, true, attr) || *p++ != ' ' || !plainWord(p, got.mtimeDate) || !plainWord(p, got.mtimeTime)
        || !plainWord(p, got.ctimeDate) || !plainWord(p, got.ctimeTime) || !plainNumber(p, 18, true, size)
        || *p++ != ' ' || !plainNumber(p, 9, false, length) || *p != '!')
        return false;
    got.attrFlag = static_cast<int>(attr);
    got.fileSize = size;
    *rec = got;
    *pathLen = static_cast<int>(length);
    return true;
}

// The fields by the full conversion of "%d %s %s %s %s %lld %d".
bool scannedQueryFields(const char* line, queryRecord* rec, int* pathLen)
{
    ScanfCursor in(line);
    bool parsed = in.number(-1, false);
    if (parsed)
        rec->attrFlag = in.asInt();
    parsed = parsed && queryWord(in, rec->mtimeDate) && queryWord(in, rec->mtimeTime) && queryWord(in, rec->ctimeDate)
             && queryWord(in, rec->ctimeTime) && in.number(-1, false);
    if (parsed)
        rec->fileSize = in.asLongLong();
    parsed = parsed && in.number(-1, false);
    if (parsed)
        *pathLen = in.asInt();
    return parsed;
}

} // namespace

int readIndexFile(LineSource& source, IndexLine* out, unsigned int* eof)
{
    for (;;) {
        LineView view;
        int got = source.next(view);
        if (got <= 0) {
            *eof = 1;
            return got;
        }
        char* line = view.text;
        size_t len = view.length;
        if (view.span > kIndexLineSize - 1) {
            std::fprintf(stderr, "quenby: readIndexFile: sorted Index line is too long. [%.*s]\n",
                         static_cast<int>(std::min<size_t>(len, kIndexLineSize - 1)), line);
            return -1;
        }
        ScanfCursor in(line);
        int count = 0;
        if (in.number(16, true)) {
            out->offset = static_cast<long long>(in.asUnsigned());
            in.stored();
        }
        count = in.result();
        if (count != 1) {
            std::fprintf(stderr, "quenby: readIndexFile: sscanf(%s) return %d\n", line, count);
            return -1;
        }
        if (len < static_cast<size_t>(kIndexPathStart)) {
            std::fprintf(stderr, "quenby: readIndexFile: index line without a path [%s]\n", line);
            return -1;
        }
        char* path = line + kIndexPathStart;
        size_t pathLen = len - kIndexPathStart;
        if (pathLen > 0 && path[pathLen - 1] == '\n')
            path[--pathLen] = '\0';
        if (quenby_debug > 4)
            std::fprintf(stderr, "readIndexFile:%lld:%s\n", out->offset, path);
        if (isInternalPath(path, InternalPaths::noScripts))
            continue;
        out->path = {path, pathLen};
        return 0;
    }
}

int readQueryRecord(LineSource& source, QueryPathRoom& room, queryRecord* rec, unsigned int* eof,
                    const char** lineOut)
{
    *eof = 0;
    LineView view;
    int got = source.next(view);
    if (got <= 0) {
        *eof = 1;
        return got < 0 ? (errno == ENOMEM ? 12 : -1) : 0;
    }
    const char* line = view.text;
    if (lineOut != nullptr)
        *lineOut = line;
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:readQueryRecord: lineP=%s", line);

    int pathLen = -1;
    const bool parsed = plainQueryFields(line, rec, &pathLen) || scannedQueryFields(line, rec, &pathLen);
    if (!parsed || pathLen < 0) {
        std::fprintf(stderr, "quenby: readQueryRecord: failed to parse query record line [%s]\n", line);
        return -1;
    }
    if (room.size <= pathLen) {
        if (pathLen > kQueryPathMax)
            return 22;
        room.size = 2 * room.size > pathLen + 1 ? 2 * room.size : pathLen + 1;
    }
    // The path must be there, whole, after the first "!"; the line holds no
    // NUL before its length.
    const char* bang = std::strchr(line, '!');
    if (bang == nullptr || line + view.length - (bang + 1) < pathLen) {
        std::fprintf(stderr, "quenby: readQueryRecord: failed to parse query record line [%s]\n", line);
        return -1;
    }
    rec->path = {bang + 1, static_cast<size_t>(pathLen)};
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:readQueryRecord: len=%d, pathname=%.*s, size=%lld\n", pathLen, pathLen, bang + 1,
                     static_cast<long long>(rec->fileSize));
    rec->pathLen = pathLen;
    return 0;
}

int QueryOrder::next(std::string_view path, const char* prefix, const char* file)
{
    ++line_;
    if (line_ > 1 && path < std::string_view(last_.ptr, lastLength_)) {
        std::fprintf(stderr, "%s%s line %ld: the query file is not sorted by path\n", prefix, file, line_);
        return -1;
    }
    const size_t len = path.size();
    if (len >= static_cast<size_t>(last_.size)
        && !resizeBuffer(&last_.ptr, &last_.size, std::max(static_cast<long long>(len) + 1, 2LL * last_.size))) {
        std::fprintf(stderr, "%sfailed to allocate memory\n", prefix);
        return -1;
    }
    std::memcpy(last_.ptr, path.data(), len);
    lastLength_ = len;
    return 0;
}
