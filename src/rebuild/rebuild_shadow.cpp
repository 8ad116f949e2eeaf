#include "rebuild/rebuild_shadow.h"

#include "rebuild/block_writer.h"
#include "rebuild/external_sort.h"
#include "rebuild/index_query.h"
#include "rebuild/record_fetch.h"
#include "records/policy_record.h"
#include "records/record_reader.h"
#include "records/record_edit.h"
#include "support/debug_level.h"
#include "support/file_open.h"
#include "support/file_stream.h"
#include "support/output_file.h"
#include "support/progress.h"
#include "support/sys_call.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr int kNameSize = 4112;
constexpr int kShowCopyMax = 255;
constexpr int kMergedShowMax = 509;
constexpr size_t kTimeMax = 29;
constexpr size_t kFilesetMax = 255;
constexpr size_t kMigStateMax = 7;

// At most `width` bytes of `text`, right-aligned in `width` columns, as
// printf's "%<width>.<width>s" writes them.
char* rightAligned(char* out, const char* text, size_t width)
{
    size_t n = strnlen(text, width);
    std::memset(out, ' ', width - n);
    std::memcpy(out + (width - n), text, n);
    return out + width;
}

// A time of the server in the SHOW form: "%10.10s %8.8s.000000".
void serverTime(char (&out)[32], const char* date, const char* time)
{
    char* p = rightAligned(out, date, 10);
    *p++ = ' ';
    p = rightAligned(p, time, 8);
    std::memcpy(p, ".000000", sizeof ".000000");
}

// What strcmp returns for the two paths: the difference of the first bytes
// that differ, a NUL standing after the shorter.
int byteDifference(std::string_view a, std::string_view b)
{
    size_t i = 0;
    while (i < a.size() && i < b.size() && a[i] == b[i])
        ++i;
    auto at = [i](std::string_view v) { return i < v.size() ? static_cast<unsigned char>(v[i]) : 0; };
    return at(a) - at(b);
}

void appendNumber(std::string& out, long long value)
{
    char digits[24];
    out.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

// The first `max` bytes of the `len` at `from`.
std::string_view bounded(const char* from, size_t len, size_t max)
{
    return {from, len < max ? len : max};
}

// strtoll of the text from `from` to `to`, base 0: the plain decimals of
// a scan without the call.
long long showNumber(const char* from, const char* to)
{
    long long value = 0;
    const char* p = from;
    if (to - from <= 18 && p < to && *p >= '1' && *p <= '9') {
        for (; p < to && *p >= '0' && *p <= '9'; ++p)
            value = value * 10 + (*p - '0');
        if (p == to)
            return value;
    }
    char text[kShowCopyMax + 1];
    const size_t n = static_cast<size_t>(to - from);
    std::memcpy(text, from, n);
    text[n] = '\0';
    return std::strtoll(text, nullptr, 0);
}

// The SHOW values of a scan record, as views into its line.
struct ScanShow {
    std::string_view mtime;
    std::string_view ctime;
    long long size = 0;
    std::string_view fileset;
    std::string_view migState;
};

// Splits the SHOW attribute: at most 255 bytes of the text after the last
// "!" of the line (which holds no NUL).
int parsePolicyShow(const char* line, size_t length, ScanShow& show)
{
    const char* bang = static_cast<const char*>(memrchr(line, '!', length));
    if (bang == nullptr) {
        std::fputs("quenby: parsePolicyShow: could not find SHOW data\n", stderr);
        return -1;
    }
    const char* text = bang + 1;
    const char* end = text + std::min<size_t>(static_cast<size_t>(line + length - text), kShowCopyMax);
    auto blankAfter = [end](const char* at) {
        return static_cast<const char*>(std::memchr(at + 1, ' ', static_cast<size_t>(end - (at + 1))));
    };
    const char* b1 = static_cast<const char*>(std::memchr(text, ' ', static_cast<size_t>(end - text)));
    const char* b2 = b1 != nullptr ? blankAfter(b1) : nullptr;
    if (b2 == nullptr) {
        std::fprintf(stderr, "quenby: parsePolicyShow: could not find mtime %s\n", b1 == nullptr ? "date" : "time");
        return -1;
    }
    show.mtime = bounded(text, static_cast<size_t>(b2 - text), kTimeMax);
    const char* b3 = blankAfter(b2);
    const char* b4 = b3 != nullptr ? blankAfter(b3) : nullptr;
    if (b4 == nullptr) {
        std::fputs("quenby: parsePolicyShow: could not find ctime date\n", stderr);
        return -1;
    }
    show.ctime = bounded(b2 + 1, static_cast<size_t>(b4 - b2 - 1), kTimeMax);
    const char* b5 = blankAfter(b4);
    if (b5 == nullptr) {
        std::fputs("quenby: parsePolicyShow: could not find file size\n", stderr);
        return -1;
    }
    show.size = showNumber(b4 + 1, b5);
    const char* b6 = blankAfter(b5);
    show.fileset = bounded(b5 + 1, static_cast<size_t>((b6 != nullptr ? b6 : end) - (b5 + 1)), kFilesetMax);
    show.migState = b6 != nullptr ? bounded(b6 + 1, static_cast<size_t>(end - (b6 + 1)), kMigStateMax) : "resdnt";
    std::string_view& last = b6 != nullptr ? show.migState : show.fileset;
    last = last.substr(0, last.find('\n'));
    return 0;
}

// "%s %s %lld %s %s" of the merged SHOW into `out` (640 bytes), cut to
// 509 bytes; its length. A scan's change time of the 26-byte form loses
// its fraction.
int mergedShow(char* out, const char* mtime, std::string_view ctime, long long size, const ScanShow& scan)
{
    char* p = std::copy_n(mtime, 26, out);
    *p++ = ' ';
    char* ctimeAt = p;
    p = std::copy(ctime.begin(), ctime.end(), p);
    if (ctime.size() == 26)
        std::memcpy(ctimeAt + 20, "000000", 6);
    *p++ = ' ';
    p = std::to_chars(p, p + 24, size).ptr;
    *p++ = ' ';
    p = std::copy(scan.fileset.begin(), scan.fileset.end(), p);
    *p++ = ' ';
    p = std::copy(scan.migState.begin(), scan.migState.end(), p);
    return std::min(static_cast<int>(p - out), kMergedShowMax);
}

struct Files {
    LineSource query;
    LineSource index;
    // The scan records the index points at, read where they stand.
    LineSource scan{{.access = LineSource::Access::positioned, .blockSize = 8 * 1024}};
    RecordFetch scanRecords{scan, {.classify = false}};
    OutputFile out; // put in place only when the whole run succeeded
    BlockWriter outBlocks; // what is written to `out`
};

class Rebuild {
public:
    Rebuild(Files& files, const char* queryName, const char* expireData, ProgressLine& progress)
        : f_(files), queryName_(queryName), expireData_(expireData), progress_(progress)
    {
    }

    int walk();

private:
    int readQuery() { return readQueryRecord(f_.query, queryRoom_, &query_, &queryEof_); }
    int nextQuery(bool inTail);
    int readIndex() { return readIndexFile(f_.index, &index_, &indexEof_); }
    int writeServerOnly();
    int writeMergedRecord();
    int fetchScanRecord();
    bool put(std::string_view text) { return f_.outBlocks.put(text); }

    Files& f_;
    const char* queryName_;
    const char* expireData_;
    ProgressLine& progress_;
    uint64_t queries_ = 0;
    QueryOrder order_;
    Record scanRecord_;
    QueryPathRoom queryRoom_;
    queryRecord query_{};
    IndexLine index_;
    unsigned int queryEof_ = 0;
    unsigned int indexEof_ = 0;
    std::string line_; // the output line being built, reused
    ScanShow scanShow_; // the SHOW values of the scan record, reused
};

int Rebuild::walk()
{
    bool indexPending = false;
    for (;;) {
        if (int rc = nextQuery(false))
            return rc;
        if (!indexPending) {
            if (int rc = readIndex()) {
                std::fputs("quenby: rebuildShadow: failed reading list record\n", stderr);
                return rc;
            }
        }
        for (;;) {
            if (queryEof_)
                return 0;
            if (indexEof_) {
                // The scan has run out: the rest are known to the server only.
                do {
                    if (int rc = writeServerOnly())
                        return rc;
                    if (int rc = nextQuery(true))
                        return rc;
                } while (!queryEof_);
                return 0;
            }
            const int cmp = query_.path.compare(index_.path);
            if (quenby_debug > 3)
                std::fprintf(stderr, "rebuildcmp:%.*s\nrebuildcmp:%s\t%d\n", VIEW_ARGS(query_.path), index_.path.data(),
                             byteDifference(query_.path, index_.path));
            if (cmp == 0) {
                if (int rc = writeMergedRecord()) {
                    std::fprintf(stderr, "quenby: rebuildShadow: writing merged record fail rc = %d\n", rc);
                    return -1;
                }
                indexPending = false;
                break;
            }
            if (cmp > 0) {
                // A scanned file the server does not hold: no record.
                if (int rc = readIndex()) {
                    std::fputs("quenby: rebuildShadow: failed reading list record\n", stderr);
                    return rc;
                }
                continue;
            }
            if (int rc = writeServerOnly())
                return rc;
            indexPending = true;
            break;
        }
    }
}

// The next query record. A line whose path sorts below the one before it
// ends the run: the walk would pair the wrong records without a word.
int Rebuild::nextQuery(bool inTail)
{
    if (int rc = readQuery()) {
        if (inTail)
            std::fprintf(stderr, "quenby:rebuildShadow: readQueryRecord rc=%d\n", rc);
        else
            std::fprintf(stderr, "quenby: rebuildShadow: failed reading QBS record, rc=%d\n", rc);
        return rc;
    }
    progress_.tick(++queries_, f_.query.bytesRead() + f_.index.bytesRead());
    return queryEof_ ? 0 : order_.next(query_.path, "quenby: rebuildShadow: ", queryName_);
}

// A record for a file that only the server holds, headed by the expire
// data taken from the scan list's first record.
int Rebuild::writeServerOnly()
{
    if (expireData_ == nullptr) {
        std::fputs("quenby: rebuildShadow: the scan list holds no record to take a record head from\n", stderr);
        return -1;
    }
    // "%s %s %lld root resdnt": the server's times and size.
    char show[96];
    serverTime(*reinterpret_cast<char(*)[32]>(show), query_.mtimeDate, query_.mtimeTime);
    show[26] = ' ';
    serverTime(*reinterpret_cast<char(*)[32]>(show + 27), query_.ctimeDate, query_.ctimeTime);
    show[53] = ' ';
    char* end = std::to_chars(show + 54, show + sizeof show, static_cast<long long>(query_.fileSize)).ptr;
    end = std::copy_n(" root resdnt", 12, end);
    line_ = expireData_;
    line_ += ':';
    appendNumber(line_, query_.pathLen);
    line_ += '!';
    line_ += query_.path;
    line_ += ":6!system;";
    appendNumber(line_, end - show);
    line_ += '!';
    line_.append(show, end);
    line_ += '\n';
    return put(line_) ? 0 : -1;
}

// The scan record the index points at, read and parsed into scanRecord_
// and scanShow_; 0, or the failure's result after its message.
int Rebuild::fetchScanRecord()
{
    bool eof = false;
    int got = f_.scanRecords.recordOf(f_.index.linesRead(), index_.offset, scanRecord_, eof);
    if (got == RecordReader::kReadFailed) {
        std::fprintf(stderr, "quenby: writeMergedRecord: fseek for scan file fail at offset=%lld, err=%d\n",
                     index_.offset, portableErrnoNonZero());
        return -1;
    }
    if (eof) {
        std::fprintf(stderr, "quenby: writeMergedRecord: no record at offset=%lld of the scan list\n", index_.offset);
        return -1;
    }
    if (got != 0)
        return got;
    return parsePolicyShow(scanRecord_.line, scanRecord_.length, scanShow_) != 0 ? -1 : 0;
}

int Rebuild::writeMergedRecord()
{
    if (int rc = fetchScanRecord())
        return rc;
    // The line is the fetcher's to change: this offset is not read again.
    char* line = scanRecord_.line;
    const size_t len = scanRecord_.length;
    const int flag = scanRecord_.state;
    const ScanShow& scan = scanShow_;

    char mtime[32], ctime[32];
    serverTime(mtime, query_.mtimeDate, query_.mtimeTime);
    serverTime(ctime, query_.ctimeDate, query_.ctimeTime);
    if (scan.mtime == mtime && (query_.attrFlag == 0 || scan.ctime == ctime)) {
        if (quenby_debug > 2)
            std::fprintf(stderr, "\tsame mtimes %s\n", mtime);
        return put({line, len}) ? 0 : -1;
    }

    if (quenby_debug > 0) {
        std::fprintf(stderr, "path %.*s\n", VIEW_ARGS(query_.path));
        std::fprintf(stderr, "\tQBS SHOW %s %s %lld\n", mtime, ctime, static_cast<long long>(query_.fileSize));
        std::fprintf(stderr, "\tFSS SHOW %.*s %.*s %lld %.*s %.*s\n", VIEW_ARGS(scan.mtime), VIEW_ARGS(scan.ctime),
                     scan.size, VIEW_ARGS(scan.fileset), VIEW_ARGS(scan.migState));
    }
    char* semi = static_cast<char*>(memrchr(line, ';', len));
    if (semi == nullptr)
        return 0;
    // Made before the line is cut: its SHOW values are views into it.
    const long long size = query_.fileSize < 0 ? scan.size : static_cast<long long>(query_.fileSize);
    char merged[640];
    const int mergedLen = mergedShow(merged, mtime, query_.attrFlag == 0 ? scan.ctime : ctime, size, scan);
    *semi = '\0';
    if (flag > 15 && changePDRState(line, PDR_NORMAL) != 0)
        return -1;
    char length[24] = ";";
    char* lengthEnd = std::to_chars(length + 1, length + sizeof length - 1, mergedLen).ptr;
    *lengthEnd++ = '!';
    merged[mergedLen] = '\n';
    if (!put({line, static_cast<size_t>(semi - line)}) || !put({length, static_cast<size_t>(lengthEnd - length)})
        || !put({merged, static_cast<size_t>(mergedLen) + 1}))
        return -1;
    if (quenby_debug > 0)
        std::fprintf(stderr, "\t MERGED  %.*s\n", mergedLen, merged);
    return 0;
}

int openInput(LineSource& file, const char* path, const char* prefix)
{
    if (file.open(path) != 0) {
        systemError(prefix);
        std::fprintf(stderr, "quenby: rebuildShadow: could not open %s\n", path);
        return -1;
    }
    return 0;
}

// Opens the inputs and the output and walks them; 0, or the code of the
// step that failed.
int openAndWalk(Files& files, const char* qbsFile, const char* sortedName, const char* fsListFile,
                const char* outShadow, const char* expireData, bool progressWanted)
{
    ProgressLine progress("rebuildshadow", 0, progressWanted);
    Rebuild rebuild(files, qbsFile, expireData, progress);
    if (openInput(files.query, qbsFile, "quenby: fopen qbs query") != 0)
        return -2;
    if (openInput(files.index, sortedName, "quenby: fopen fs scan") != 0
        || openInput(files.scan, fsListFile, "quenby: fopen fs scan") != 0)
        return -3;
    files.scanRecords.map();
    files.scanRecords.follow(sortedName);
    if (files.out.open(outShadow, OutputFile::Mode::replace) != 0) {
        systemError("quenby: fopen out shadow");
        std::fprintf(stderr, "quenby: rebuildShadow: could not open %s\n", outShadow);
        return -4;
    }
    if (!files.outBlocks.start(files.out.get(), true)) {
        std::fputs("quenby: rebuildShadow: failed to allocate memory\n", stderr);
        return -1;
    }
    progress.setTotal(files.query.size() + files.index.size());
    return rebuild.walk();
}

// Closes every file and returns the run's result; the out shadow is put in
// place only after a clean run.
int closeFiles(Files& files, int result)
{
    const int unmapped = files.scanRecords.close();
    int closed[4] = {files.query.close(), files.scan.close(), files.index.close(), 0};
    if (closed[1] == 0)
        closed[1] = unmapped;
    // A failed run leaves the out shadow as it was, or absent.
    const bool written = files.outBlocks.finish() == 0;
    bool good = result == 0 && closed[0] == 0 && closed[1] == 0 && closed[2] == 0;
    closed[3] = good && written ? files.out.commit() : files.out.discard();
    if (!written && closed[3] == 0)
        closed[3] = EOF;
    if (closed[0] != 0 || closed[1] != 0 || closed[2] != 0 || closed[3] != 0) {
        std::fprintf(stderr, "quenby:rebuildShadow: db file I/O error [0%d 0%d 0%d 0%d]\n", closed[0], closed[1],
                     closed[2], closed[3]);
        if (result == 0)
            result = -1;
    }
    return result;
}

} // namespace

int rebuildShadow(const char* qbsFile, const char* fsListFile, const char* outShadow, const char* sortDir)
{
    // The run's whole environment, read once at its start.
    const char* sortCommand = std::getenv("KESTREL_SORT_OPTIONS");
    const bool progress = ProgressLine::wanted(std::getenv("QUENBY_PROGRESS"));
    if (qbsFile == nullptr || fsListFile == nullptr || outShadow == nullptr) {
        std::fputs("Usage: quenby rebuildShadow <qbs shadow file> <fs list file> <out shadow>\n", stderr);
        return -1;
    }
    char sortedName[kNameSize];
    if (std::snprintf(sortedName, sizeof sortedName, "%s.Sorted", fsListFile) >= static_cast<int>(sizeof sortedName)) {
        std::fprintf(stderr, "quenby: rebuildShadow: scan list name too long: %s\n", fsListFile);
        return -1;
    }
    // Nothing is written, not even the index beside the scan list, when an
    // output would overwrite an input or another output.
    char pathName[kNameSize];
    std::snprintf(pathName, sizeof pathName, "%s.path", fsListFile);
    if (refuseSharedOutputs(stderr, "quenby: rebuildShadow: ", {qbsFile, fsListFile}, {pathName, sortedName, outShadow}) != 0)
        return -1;
    char* expireData = nullptr;
    int sorted = sortPDRListByPathname(fsListFile, sortedName, &expireData, sortDir, sortCommand);
    if (sorted != 0) {
        std::fprintf(stderr, "quenby rebuildShadow : sort scan list file fail, rc = %d\n", sorted);
        std::free(expireData);
        return -1;
    }

    Files files;
    int result = openAndWalk(files, qbsFile, sortedName, fsListFile, outShadow, expireData, progress);
    result = closeFiles(files, result);
    std::free(expireData);
    if (result != 0)
        std::fprintf(stderr, "quenby:rebuildShadow: Failed with rc=%d\n", result);
    return result;
}
