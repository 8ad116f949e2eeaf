#include "rebuild/external_sort.h"

#include "rebuild/block_writer.h"
#include "records/record_reader.h"

#include "records/policy_record.h"
#include "support/file_open.h"
#include "support/file_stream.h"
#include "support/shell_quote.h"
#include "support/sys_call.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

const char* predefinedSortCommand = "LC_ALL=C /bin/sort";

namespace {

constexpr int kIndexNameSize = 4112;
constexpr size_t kSortOptionsMax = 4096;

// F1:F2:000000000000000d:-0x1:0:F6:F7:0 from the first record's fields.
char* constructExpireData(const char* line)
{
    if (line[0] == '\0')
        return nullptr;
    const char* field[8] = {};
    size_t length[8] = {};
    const char* p = line;
    for (int i = 0; i < 8 && p != nullptr; ++i) {
        const char* colon = std::strchr(p, ':');
        field[i] = p;
        length[i] = colon != nullptr ? static_cast<size_t>(colon - p) : std::strlen(p);
        p = colon != nullptr ? colon + 1 : nullptr;
    }
    auto text = [&](int i) { return std::string(field[i] != nullptr ? field[i] : "", field[i] ? length[i] : 0); };
    std::string data = text(0) + ":" + text(1) + ":000000000000000d:-0x1:0:" + text(5) + ":" + text(6) + ":0";
    // At least the 64 bytes the head is known to fit in; more for long fields.
    size_t bytes = data.size() + 1 < 64 ? 64 : data.size() + 1;
    char* block = static_cast<char*>(sysRealloc(nullptr, bytes));
    if (block == nullptr) {
        std::fputs("quenby: constructExpireData: failed to allocate memory\n", stderr);
        return nullptr;
    }
    std::memcpy(block, data.c_str(), data.size() + 1);
    return block;
}

// The sort opens its output by name and would write where a link points.
bool isSymlink(const char* path)
{
    struct stat st;
    return lstat(path, &st) == 0 && S_ISLNK(st.st_mode);
}

} // namespace

int createNoFollow(const char* path, bool exclusive, FILE** streamOut)
{
    *streamOut = nullptr;
    int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (exclusive ? O_EXCL : O_TRUNC);
    int fd = sysOpen(path, flags, 0666);
    if (fd < 0)
        return portableErrnoNonZero();
    FILE* stream = fdopen(fd, "w");
    if (stream == nullptr) {
        int err = portableErrnoNonZero();
        ::close(fd);
        return err;
    }
    *streamOut = stream;
    return 0;
}

int sortFile(const char* inFile, const char* outFile, const char* tempDir, const char* sortOptions,
             const char* sortCommand)
{
    struct stat st;
    if (stat("/etc/debian_version", &st) == 0)
        predefinedSortCommand = "LC_ALL=C /usr/bin/sort";
    const char* command = predefinedSortCommand;
    if (sortCommand != nullptr && std::strlen(sortCommand) < kSortOptionsMax)
        command = sortCommand;

    std::string line = command;
    line += ' ';
    line += sortOptions != nullptr ? sortOptions : "";
    line += " -T ";
    appendShellFileName(line, tempDir != nullptr ? tempDir : "/tmp");
    line += " -o ";
    appendShellFileName(line, outFile);
    line += ' ';
    appendShellFileName(line, inFile);
    line += " > /dev/null";
    if (line.size() >= SORT_COMMAND_MAX) {
        std::fprintf(stderr, "quenby: sortFile: the sort command line for %s is longer than %d bytes\n", inFile,
                     SORT_COMMAND_MAX - 1);
        return -1;
    }

    std::fflush(stdout);
    std::fflush(stderr);
    int status = sysSystem(line.c_str());
    if (status == 0)
        return 0;
    std::fprintf(stderr, "quenby: sortFile: system(%s) returned %d\n", line.c_str(), status);
    return status;
}

namespace {

// One index line per record of `list`: its offset, 16 hexadecimal digits,
// and its path. The first record also gives the expire data.
int writePathIndex(LineSource& list, BlockWriter& index, const char* indexName, char** expireData)
{
    RecordReader reader(list, {.classify = false});
    Record rec;
    bool first = true;
    for (;;) {
        // Where the reader starts: the header lines before a record, if
        // any, are passed over again when the record is fetched.
        const int64_t offset = list.position();
        int rc = reader.next(rec);
        if (rc != 0)
            return rc;
        if (reader.atEnd())
            break;
        char head[17];
        auto value = static_cast<unsigned long long>(offset);
        for (int i = 15; i >= 0; --i, value >>= 4)
            head[i] = "0123456789abcdef"[value & 0xf];
        head[16] = ' ';
        if (!index.put({head, sizeof head}) || !index.put(rec.path) || !index.put("\n")) {
            std::fprintf(stderr, "quenby rebuildshadow: write to %s fail err=%d\n", indexName, portableErrnoNonZero());
            return -1;
        }
        if (first) {
            first = false;
            char* data = constructExpireData(rec.line);
            if (data == nullptr)
                return -6;
            *expireData = data;
        }
    }
    if (index.finish() != 0) {
        std::fprintf(stderr, "quenby rebuildshadow: write to %s fail err=%d\n", indexName, portableErrnoNonZero());
        return -1;
    }
    return 0;
}

} // namespace

int sortPDRListByPathname(const char* listFile, const char* sortedFile, char** expireData, const char* tempDir,
                          const char* sortCommand)
{
    if (listFile == nullptr || sortedFile == nullptr)
        return -1;
    char indexName[kIndexNameSize];
    if (std::snprintf(indexName, sizeof indexName, "%s.path", listFile) >= static_cast<int>(sizeof indexName)) {
        std::fprintf(stderr, "quenby: sortPDRListByPathname: list name too long: %s\n", listFile);
        return -1;
    }
    if (isSymlink(sortedFile)) {
        std::fprintf(stderr, "quenby: sortPDRListByPathname: %s is a symbolic link; not written\n", sortedFile);
        return -1;
    }
    LineSource list;
    if (list.open(listFile) != 0) {
        systemError("quenby: fopen scan result file");
        std::fprintf(stderr, "quenby: sortPDRListByPathname: could not open %s\n", listFile);
        return -1;
    }
    FILE* stream = nullptr;
    createNoFollow(indexName, false, &stream);
    if (stream == nullptr) {
        systemError("quenby: fopen tmp shadow file");
        std::fprintf(stderr, "quenby: sortPDRListByPathname: could not open %s\n", indexName);
        return -1;
    }
    StdioFile index(stream);
    // Written by a thread of its own while this one reads the list.
    BlockWriter indexBlocks;
    if (!indexBlocks.start(index.get())) {
        std::fputs("quenby: sortPDRListByPathname: failed to allocate memory\n", stderr);
        return -1;
    }
    if (int rc = writePathIndex(list, indexBlocks, indexName, expireData))
        return rc;
    if (index.close() != 0)
        systemError("quenby: fclose tmp shadow file");
    int result = sortFile(indexName, sortedFile, tempDir, "-b -k 2", sortCommand);
    sysUnlink(indexName);
    return result;
}
