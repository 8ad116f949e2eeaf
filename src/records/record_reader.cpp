#include "records/record_reader.h"

#include "records/read_ahead.h"
#include "support/file_open.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif
#include <cerrno>
#include <cstring>
#include <new>

namespace {

long long absLength(int length)
{
    return length < 0 ? -static_cast<long long>(length) : length;
}

// The nth blank (n >= 1) in the `len` bytes at `text`, or null.
const char* nthBlank(const char* text, size_t len, int n)
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
const char* firstBang(const char* from, const char* scanEnd, const char* lineEnd)
{
    return *scanEnd == '!' ? scanEnd : static_cast<const char*>(std::memchr(from, '!', static_cast<size_t>(lineEnd - from)));
}

// The messages of one parse, each ending with the whole line.
struct ParseMessages {
    FILE* out;
    const char* line;

    void say(const char* what) const
    {
        if (out != nullptr)
            std::fprintf(out, "quenby: %s%s\n", what, line);
    }
    void sayNumber(const char* what, long long value) const
    {
        if (out != nullptr)
            std::fprintf(out, "quenby: %s %lld in %s\n", what, value, line);
    }
};

// Skips the one separator at `p` and reads "<length>!<text>", as the pool
// and the SHOW attribute are written. The text, or a null view after a
// message naming `what`.
std::string_view lengthPrefixedText(const char* p, const char* lineEnd, int part, const char* what,
                                    const ParseMessages& messages)
{
    if (p < lineEnd)
        ++p;
    int length = 0;
    const char* scanEnd = p;
    if (scanLengthField(p, &length, &scanEnd) < 1) {
        char text[48];
        std::snprintf(text, sizeof text, "failed to parse shadow line [%d]", part);
        messages.say(text);
        return {};
    }
    long long bytes = absLength(length);
    const char* bang = firstBang(p, scanEnd, lineEnd);
    if (bang == nullptr) {
        char text[64];
        std::snprintf(text, sizeof text, "failed to find %s in ", what);
        messages.say(text);
        return {};
    }
    if (lineEnd - (bang + 1) < bytes) {
        char text[64];
        std::snprintf(text, sizeof text, "invalid %s length", what);
        messages.sayNumber(text, bytes);
        return {};
    }
    return {bang + 1, static_cast<size_t>(bytes)};
}

// The path after the first "!" of the head; a null view after the message.
std::string_view recordPath(const Record& rec, const char* scanEnd, int pathLen, size_t lineBufferSize,
                            const ParseMessages& messages)
{
    const char* line = rec.line;
    const char* lineEnd = line + rec.length;
    const char* bang = firstBang(line, scanEnd, lineEnd);
    if (bang == nullptr) {
        messages.say("failed to find file path in ");
        return {};
    }
    const char* path = bang + 1;
    if ((path - line) + static_cast<long long>(pathLen) > static_cast<long long>(lineBufferSize)) {
        messages.sayNumber("invalid file path length", pathLen);
        return {};
    }
    if (lineEnd - path < pathLen) {
        if (messages.out != nullptr)
            std::fprintf(messages.out, "quenby: file path length %d larger than %s\n", pathLen, line);
        return {};
    }
    return {path, static_cast<size_t>(pathLen)};
}

// What the reader reports for a record's path: a path the server cannot
// take, one of the backup machinery's own, or 0.
int classifyPath(std::string_view path, bool escaped, const ReaderOptions& options)
{
    if (!options.clusterMigration) {
        if (std::memchr(path.data(), UnsupQBSCharList[0], path.size()) != nullptr
            || std::memchr(path.data(), UnsupQBSCharList[1], path.size()) != nullptr)
            return PDR_UNSUPPORTED;
        if (escaped && path.find(UnsupEscCharList) != std::string_view::npos)
            return PDR_UNSUPPORTED;
    }
    // The path is followed by its separator, never by a NUL: the predicate
    // gets a terminated copy of the few bytes it looks at.
    if (path.empty() || path[0] != '.')
        return 0;
    char head[16] = {};
    std::memcpy(head, path.data(), path.size() < sizeof head - 1 ? path.size() : sizeof head - 1);
    if (isInternalPath(head))
        return PDR_INTERNAL;
    return 0;
}

// Fields 1 to 5, field 6 and the rest of the SHOW text; false when it has
// fewer than five blanks.
bool splitShow(std::string_view show, Record& rec)
{
    const char* fifth = nthBlank(show.data(), show.size(), 5);
    if (fifth == nullptr)
        return false;
    rec.show = {show.data(), static_cast<size_t>(fifth - show.data())};
    const char* fileset = fifth + 1;
    const char* end = show.data() + show.size();
    const char* blank = static_cast<const char*>(std::memchr(fileset, ' ', static_cast<size_t>(end - fileset)));
    if (blank == nullptr) {
        rec.fileset = {fileset, static_cast<size_t>(end - fileset)};
        return true;
    }
    rec.fileset = {fileset, static_cast<size_t>(blank - fileset)};
    rec.hsmState = {blank + 1, static_cast<size_t>(end - (blank + 1))};
    return true;
}

} // namespace

int parseRecord(Record& rec, size_t lineBufferSize, const ReaderOptions& options, FILE* messagesTo)
{
    const ParseMessages messages{messagesTo, rec.line};
    rec.escapedPath = false;
    rec.path = rec.show = rec.fileset = rec.hsmState = {};
    unsigned int flag = 0;
    int pathLen = 0;
    const char* scanEnd = rec.line;
    if (scanRecordHead(rec.line, &rec.ino, &rec.gen, &flag, &pathLen, &scanEnd) < 4 || pathLen < -4096) {
        messages.say("failed to parse shadow line [1]");
        return -1;
    }
    rec.escapedPath = pathLen < 0;
    if (rec.escapedPath)
        pathLen = -pathLen;
    const std::string_view path = recordPath(rec, scanEnd, pathLen, lineBufferSize, messages);
    if (path.data() == nullptr)
        return -1;
    rec.path = path;
    const char* lineEnd = rec.line + rec.length;
    // Storage pool: read over. Then the SHOW attribute.
    std::string_view pool = lengthPrefixedText(path.data() + path.size(), lineEnd, 2, "storage pool", messages);
    if (pool.data() == nullptr)
        return -1;
    std::string_view show =
        lengthPrefixedText(pool.data() + pool.size(), lineEnd, 3, "show attribute", messages);
    if (show.data() == nullptr)
        return -1;
    rec.state = static_cast<int>(flag);
    if (!splitShow(show, rec)) {
        rec.show = show;
        messages.say("invalid show attribute in ");
        return -1;
    }
    if (!options.classify)
        return 0;
    return classifyPath(path, rec.escapedPath, options);
}

int RecordReader::take(const LineView& line, Record& rec)
{
    rec.line = line.text;
    rec.length = line.length;
    rec.offset = line.offset;
    lineBufferSize_ = lineBufferAfter(lineBufferSize_, line.span);
    return parseRecord(rec, lineBufferSize_, options_, stderr);
}

RecordReader::RecordReader(LineSource& source, ReaderOptions options) : source_(source), options_(options) {}

RecordReader::~RecordReader() = default;

bool RecordReader::readAhead()
{
    auto ahead = std::unique_ptr<ReadAhead>(new (std::nothrow) ReadAhead(source_, options_, lineBufferSize_));
    if (ahead == nullptr || !ahead->start())
        return false;
    ahead_ = std::move(ahead);
    return true;
}

void RecordReader::stopReadAhead()
{
    ahead_.reset();
}

int RecordReader::next(Record& rec)
{
    if (ahead_ != nullptr)
        return ahead_->next(rec, atEnd_);
    atEnd_ = false;
    LineView line;
    for (;;) {
        int got = source_.next(line);
        if (got < 0) {
            // A list that cannot be read must not pass for an empty one: the
            // merge would expire every file it no longer sees.
            if (errno == ENOMEM)
                std::fprintf(stderr, "quenby: failed to realloc memory for line %s\n", "");
            else
                std::fprintf(stderr, "quenby: failed to read records (error=%d)\n", portableErrnoNonZero());
            return -1;
        }
        if (got == 0) {
            atEnd_ = true;
            return 0;
        }
        rec.lineNumber = source_.linesRead();
        if (!isShadowHeaderLine(line.text))
            return take(line, rec);
    }
}

int RecordReader::recordAt(offset_t offset, Record& rec, bool& eof)
{
    eof = false;
    LineView line;
    for (;;) {
        int got = source_.lineAt(offset, line);
        if (got <= 0) {
            eof = got == 0;
            return got == 0 ? 0 : kReadFailed;
        }
        if (!isShadowHeaderLine(line.text))
            return take(line, rec);
        offset += static_cast<offset_t>(line.span);
    }
}
