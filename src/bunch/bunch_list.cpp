#include "bunch/bunch_list.h"

#include "bunch/path_index.h"

#include "records/scanf_cursor.h"
#include "support/debug_level.h"
#include "support/file_open.h"
#include "support/line_source.h"
#include "support/file_stream.h"
#include "support/sys_call.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kListBufferSize = 1 << 16;
inline constexpr char kSeparator[] = " -- ";

struct ListFile {
    const char* path;
    int bit;
    int openFailure;
    const char* openMessage;
    StdioFile file;
};

// Parses "%llu %llu %llu %15s %llx" (or, for an old-format line, the three
// numbers); true when every value was read.
bool parseBunchHead(const char* line, bool oldFormat, char* disposition, offset_t* offset)
{
    ScanfCursor in(line);
    for (int i = 0; i < 3; ++i)
        if (!in.number(-1, false))
            return false;
    if (oldFormat) {
        std::strcpy(disposition, "expired");
        *offset = 0;
        return true;
    }
    if (!in.word(15, disposition) || !in.number(-1, true))
        return false;
    *offset = static_cast<offset_t>(in.asUnsigned());
    return true;
}

// Cuts the first occurrence of `removePath`, and one "/" right after it,
// out of `path`. False when the path does not contain it.
bool removePathPart(char* path, const char* removePath)
{
    char* at = std::strstr(path, removePath);
    if (at == nullptr)
        return false;
    const char* rest = at + std::strlen(removePath);
    if (*rest == '/')
        ++rest;
    std::memmove(at, rest, std::strlen(rest) + 1);
    return true;
}

} // namespace

void unescapeBunchPath(char* path)
{
    // Nothing before the first backslash moves; most paths have none.
    char* out = std::strchr(path, '\\');
    if (out == nullptr)
        return;
    for (const char* in = out; *in != '\0'; ++in) {
        if (in[0] == '\\' && in[1] == 'n') {
            *out++ = '\n';
            ++in;
        } else if (in[0] == '\\' && in[1] == '\\') {
            *out++ = '\\';
            ++in;
        } else {
            *out++ = *in;
        }
    }
    *out = '\0';
}

namespace {

const char* orNull(const char* s)
{
    return s != nullptr ? s : "(null)";
}

// The lines of one bunch file written to their lists and registered in the
// index; the lists are opened at their first line.
class BunchSplitter {
public:
    BunchSplitter(const char* outChange, const char* outExpire, const char* outStateChange, const char* removePath,
                  bool oldFormat, PathIndex& index, bool quoted)
        : lists_{{outExpire, BUNCH_LIST_EXPIRE, -104, "quenby: could not open output %s:\n", {}},
                 {outChange, BUNCH_LIST_BACKUP, -103, "quenby: could not open output %s\n", {}},
                 {outStateChange, BUNCH_LIST_UPDATE, -106, "quenby: could not open output %s\n", {}}},
          quotes_(quoted), removePath_(removePath), oldFormat_(oldFormat), index_(index)
    {
    }

    // 0 to go on, else the run's failure code.
    int line(char* text);
    // The bits of the lists written.
    int listMask() const;
    // Flushes and closes the lists: the number of failures.
    int close();

    offset_t first = 0;
    offset_t last = 0;

private:
    ListFile* listFor(const char* disposition);
    int write(ListFile& list, const char* path);
    void widenRange(offset_t offset);

    ListFile lists_[3]; // expire, backup, update
    const bool quotes_;
    const char* removePath_;
    bool oldFormat_;
    PathIndex& index_;
};

ListFile* BunchSplitter::listFor(const char* disposition)
{
    if (std::strncmp(disposition, "updated", 7) == 0)
        return &lists_[1];
    if (std::strncmp(disposition, "expired", 7) == 0)
        return &lists_[0];
    if (std::strncmp(disposition, "ctimech", 7) == 0)
        return &lists_[2];
    return nullptr;
}

// Writes the path as one line of the list: 0, or the failure code.
int BunchSplitter::write(ListFile& list, const char* path)
{
    if (!list.file) {
        FILE* out = nullptr;
        openFile(list.path, "w", &out);
        if (out == nullptr) {
            std::fprintf(stderr, list.openMessage, orNull(list.path));
            return list.openFailure;
        }
        list.file = StdioFile(out);
        list.file.setBuffer(kListBufferSize);
    }
    FILE* f = list.file.get();
    size_t pathLen = std::strlen(path);
    bool written = (!quotes_ || sysFwrite("\"", 1, f) == 1) && sysFwrite(path, pathLen, f) == pathLen
                   && (!quotes_ || sysFwrite("\"", 1, f) == 1) && sysFwrite("\n", 1, f) == 1;
    return written ? 0 : -107;
}

void BunchSplitter::widenRange(offset_t offset)
{
    if (first == 0) {
        first = offset;
        last = offset;
    } else {
        if (offset < first)
            first = offset;
        if (offset > last)
            last = offset;
    }
}

int BunchSplitter::line(char* text)
{
    if (quenby_debug > 7)
        std::fprintf(stderr, "quenby:parseBackupRecords()%s", text);
    char disposition[16];
    offset_t offset = 0;
    if (!parseBunchHead(text, oldFormat_, disposition, &offset)) {
        std::fprintf(stderr, "quenby: input line %s could not be parsed\n", text);
        return -101;
    }
    char* sep = std::strstr(text, kSeparator);
    if (sep == nullptr) {
        std::fprintf(stderr, "quenby: could not locate start of file path in %s\n", text);
        return -102;
    }
    char* path = sep + sizeof kSeparator - 1;
    if (char* lf = std::strrchr(path, '\n'))
        *lf = '\0';
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby:parseBackupRecords() [%s] [%s]\n", disposition, path);
    unescapeBunchPath(path);
    if (removePath_ != nullptr && !removePathPart(path, removePath_)) {
        std::fprintf(stderr, "quenby:parseBackupRecords() [%s] not found in [%s], skipping\n", removePath_, path);
        return 0;
    }
    ListFile* list = listFor(disposition);
    if (list == nullptr) {
        std::fprintf(stderr, "quenby: cannot determine disposition for %s\n", disposition);
        return 0;
    }
    if (int rc = write(*list, path))
        return rc;
    if (!oldFormat_) {
        int rc = index_.insert(path, offset);
        if (rc < 0) {
            std::fprintf(stderr, "quenby: error while adding path %s to index %d\n", path, rc);
            return -105;
        }
    }
    widenRange(offset);
    return 0;
}

int BunchSplitter::listMask() const
{
    int mask = 0;
    for (const ListFile& list : lists_)
        if (list.file)
            mask |= list.bit;
    return mask;
}

int BunchSplitter::close()
{
    int failures = 0;
    for (ListFile& list : lists_) {
        if (!list.file)
            continue;
        failures += sysFflush(list.file.get()) != 0;
        failures += list.file.close() != 0;
    }
    return failures;
}

// Every line of the bunch through the splitter: 0, or the failure code.
int splitLines(LineSource& in, BunchSplitter& splitter)
{
    LineView line;
    for (;;) {
        int got = in.next(line);
        if (got < 0 && errno == ENOMEM) {
            std::fputs("quenby: parseBackupRecords() out of memory for a bunch line\n", stderr);
            return -1;
        }
        // A read error ends the bunch as its end does: the client runs over
        // what was split.
        if (got <= 0)
            return 0;
        if (int rc = splitter.line(line.text))
            return rc;
    }
}

} // namespace

int parseBackupRecords(const char* inList, const char* outChange, const char* outExpire,
                       const char* outStateChange, const char* removePath, offset_t* firstOffset,
                       offset_t* lastOffset, PathIndex& index, bool quoted)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:parseBackupRecords(%s %s %s %s %s ...)\n", orNull(inList), orNull(outChange),
                     orNull(outExpire), orNull(outStateChange), orNull(removePath));

    LineSource in({.blockSize = kListBufferSize});
    if (in.open(inList) != 0) {
        std::fprintf(stderr, "quenby: input file %s could not be opened\n", orNull(inList));
        return -1;
    }

    if (removePath != nullptr && std::strcmp(removePath, "NONE") == 0)
        removePath = nullptr;
    int result = 0;
    const bool oldFormat = outChange == nullptr && outStateChange == nullptr;
    if (outChange == nullptr && outStateChange != nullptr) {
        std::fputs("quenby: inconsistent input args\n", stderr);
        result = -1;
    }
    BunchSplitter splitter(outChange, outExpire, outStateChange, removePath, oldFormat, index, quoted);
    if (result == 0)
        result = splitLines(in, splitter);
    *firstOffset = splitter.first;
    *lastOffset = splitter.last;
    if (result == 0)
        result = splitter.listMask();

    int failures = splitter.close();
    failures += in.close() != 0;
    if (failures != 0) {
        std::fprintf(stderr, "quenby: %d errors occurred in closing output files.\n", failures);
        result = -110;
    }
    return result;
}
