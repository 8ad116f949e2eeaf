#include "bunch/bunch_list.h"

#include "records/scanf_cursor.h"
#include "support/debug_level.h"
#include "support/file_open.h"
#include "support/file_stream.h"
#include "support/line_read.h"
#include "support/sys_call.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int expireOldFormat = 0;

namespace {

constexpr int kBunchLineSize = 8192;
constexpr size_t kListBufferSize = 1 << 16;
inline constexpr char kSeparator[] = " -- ";

struct ListFile {
    const char* path;
    int bit;
    int openFailure;
    const char* openMessage;
    StdioFile file;
};

// Reads one whole line into a growable buffer: 1, or 0 at the end of the
// input (a last line without its line feed counts as the end), or -1 when
// the buffer cannot grow.
int readWholeLine(FILE* in, HeapBuf& buf, size_t& len)
{
    len = 0;
    for (;;) {
        size_t got = 0;
        if (!readLineText(buf.ptr + len, buf.size - static_cast<int>(len), in, &got))
            return 0;
        len += got;
        if (len > 0 && buf.ptr[len - 1] == '\n')
            return 1;
        if (len + 1 < static_cast<size_t>(buf.size))
            return 1; // a NUL inside the line: take what precedes it
        if (buf.size > INT_MAX / 2 || !buf.grow(buf.size * 2))
            return -1;
    }
}

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
    char* out = path;
    for (const char* in = path; *in != '\0'; ++in) {
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

int parseBackupRecords(const char* inList, const char* outChange, const char* outExpire,
                       const char* outStateChange, const char* removePath, offset_t* lowIdx, offset_t* hiIdx,
                       AddPathFunc addPath, bool quoted)
{
    auto orNull = [](const char* s) { return s != nullptr ? s : "(null)"; };
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:parseBackupRecords(%s %s %s %s %s ...)\n", orNull(inList), orNull(outChange),
                     orNull(outExpire), orNull(outStateChange), orNull(removePath));

    FILE* inStream = nullptr;
    cxiFopen(inList, "r", &inStream, inheritNone);
    if (inStream == nullptr) {
        std::fprintf(stderr, "quenby: input file %s could not be opened\n", orNull(inList));
        return -1;
    }
    StdioFile in(inStream);
    in.setBuffer(kListBufferSize);

    *lowIdx = 0;
    *hiIdx = 0;
    if (removePath != nullptr && std::strcmp(removePath, "NONE") == 0)
        removePath = nullptr;

    ListFile lists[] = {
        {outExpire, BUNCH_LIST_EXPIRE, -104, "quenby: could not open output %s:\n", {}},
        {outChange, BUNCH_LIST_BACKUP, -103, "quenby: could not open output %s\n", {}},
        {outStateChange, BUNCH_LIST_UPDATE, -106, "quenby: could not open output %s\n", {}},
    };
    ListFile& expireList = lists[0];
    ListFile& backupList = lists[1];
    ListFile& updateList = lists[2];

    int result = 0;
    bool oldFormat = false;
    if (outChange == nullptr) {
        if (outStateChange != nullptr) {
            std::fputs("quenby: inconsistent input args\n", stderr);
            result = -1;
        } else {
            expireOldFormat = 1;
            oldFormat = true;
        }
    }

    HeapBuf line;
    if (result == 0 && !line.allocate(kBunchLineSize))
        result = -1;
    size_t len = 0;
    while (result == 0) {
        int got = readWholeLine(in.get(), line, len);
        if (got <= 0) {
            if (got < 0) {
                std::fputs("quenby: parseBackupRecords() out of memory for a bunch line\n", stderr);
                result = -1;
            }
            break;
        }
        char* text = line.ptr;
        if (quenby_debug > 7)
            std::fprintf(stderr, "quenby:parseBackupRecords()%s", text);
        char disposition[16];
        offset_t offset = 0;
        if (!parseBunchHead(text, oldFormat, disposition, &offset)) {
            std::fprintf(stderr, "quenby: input line %s could not be parsed\n", text);
            result = -101;
            break;
        }
        char* sep = std::strstr(text, kSeparator);
        if (sep == nullptr) {
            std::fprintf(stderr, "quenby: could not locate start of file path in %s\n", text);
            result = -102;
            break;
        }
        char* path = sep + sizeof kSeparator - 1;
        if (char* lf = std::strrchr(path, '\n'))
            *lf = '\0';
        if (quenby_debug > 2)
            std::fprintf(stderr, "quenby:parseBackupRecords() [%s] [%s]\n", disposition, path);
        unescapeBunchPath(path);
        if (removePath != nullptr && !removePathPart(path, removePath)) {
            std::fprintf(stderr, "quenby:parseBackupRecords() [%s] not found in [%s], skipping\n", removePath, path);
            continue;
        }

        ListFile* list = nullptr;
        if (std::strncmp(disposition, "updated", 7) == 0)
            list = &backupList;
        else if (std::strncmp(disposition, "expired", 7) == 0)
            list = &expireList;
        else if (std::strncmp(disposition, "ctimech", 7) == 0)
            list = &updateList;
        if (list == nullptr) {
            std::fprintf(stderr, "quenby: cannot determine disposition for %s\n", disposition);
            continue;
        }
        if (!list->file) {
            FILE* out = nullptr;
            cxiFopen(list->path, "w", &out, inheritNone);
            if (out == nullptr) {
                std::fprintf(stderr, list->openMessage, orNull(list->path));
                result = list->openFailure;
                break;
            }
            list->file = StdioFile(out);
            list->file.setBuffer(kListBufferSize);
        }
        size_t pathLen = std::strlen(path);
        bool written = (!quoted || sysFwrite("\"", 1, list->file.get()) == 1)
                       && sysFwrite(path, pathLen, list->file.get()) == pathLen
                       && (!quoted || sysFwrite("\"", 1, list->file.get()) == 1)
                       && sysFwrite("\n", 1, list->file.get()) == 1;
        if (!written) {
            result = -107;
            break;
        }
        if (!oldFormat) {
            int rc = addPath(path, offset);
            if (rc < 0) {
                std::fprintf(stderr, "quenby: error while adding path %s to index %d\n", path, rc);
                result = -105;
                break;
            }
        }
        if (*lowIdx == 0) {
            *lowIdx = offset;
            *hiIdx = offset;
        } else {
            if (offset < *lowIdx)
                *lowIdx = offset;
            if (offset > *hiIdx)
                *hiIdx = offset;
        }
    }

    if (result == 0)
        for (const ListFile& list : lists)
            if (list.file)
                result |= list.bit;

    int failures = 0;
    for (ListFile* list : {&expireList, &backupList, &updateList}) {
        if (!list->file)
            continue;
        failures += sysFflush(list->file.get()) != 0;
        failures += list->file.close() != 0;
    }
    failures += in.close() != 0;
    if (failures != 0) {
        std::fprintf(stderr, "quenby: %d errors occurred in closing output files.\n", failures);
        result = -110;
    }
    return result;
}
