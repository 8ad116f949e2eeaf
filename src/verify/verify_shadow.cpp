#include "verify/verify_shadow.h"

#include "rebuild/external_sort.h"
#include "records/record_edit.h"
#include "support/debug_level.h"
#include "records/shadow_header.h"
#include "support/file_open.h"
#include "support/output_file.h"
#include "support/progress.h"
#include "support/sys_call.h"
#include "verify/verify_query.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace {

constexpr int kNameSize = 4096;
inline constexpr char kCannotRead[] = "quenby::VERIFYSHADOW::1::could not open %s for read (error=%d)\n";
inline constexpr char kCannotWrite[] = "quenby::VERIFYSHADOW::1::could not open %s for write (error=%d)\n";

bool openInput(LineSource& input, const char* path)
{
    if (int err = input.open(path)) {
        std::fprintf(stderr, kCannotRead, path != nullptr ? path : "(null)", err);
        return false;
    }
    return true;
}

bool isNone(const char* name)
{
    return name == nullptr || std::strcmp(name, "NONE") == 0;
}

// The list walk: the shadow database and a prep list, both by inode.
class ListWalk {
public:
    explicit ListWalk(VerifyContext& v) : v_(v) {}
    bool allocate() { return lastPath_.allocate(4096); }
    int run();

private:
    int walk();
    int readList();
    int readShadow() { return v_.readShadow(); }
    void pendingCheck();
    void setPending();
    void countFlag(int flag);
    void onlyInShadow();
    bool examine();
    int shadowDrain();
    int listDrain();

    VerifyContext& v_;
    ProgressLine* progress_ = nullptr;
    uint64_t listRecords_ = 0;
    RecordReader list_{v_.list};
    Record listRec_;
    bool listAtEnd_ = false;
    uint64_t lastIno_ = 0;
    HeapBuf lastPath_;
};

int ListWalk::readList()
{
    for (;;) {
        int rc = list_.next(listRec_);
        listAtEnd_ = list_.atEnd();
        if (rc < 0 || listAtEnd_)
            return rc < 0 ? rc : 0;
        if (progress_ != nullptr)
            progress_->tick(++listRecords_, v_.shadow.bytesRead() + v_.list.bytesRead());
        if (rc == PDR_UNSUPPORTED) {
            ++v_.counts.unsupported;
            continue;
        }
        if (rc == PDR_INTERNAL)
            continue;
        ++v_.counts.validList;
        return 0;
    }
}

void ListWalk::pendingCheck()
{
    if (lastIno_ != 0) {
        v_.reportLine("Check lastIno failed: lastIno %016llx lastPath %s currIno %016llx\n", (unsigned long long)lastIno_, lastPath_.ptr, (unsigned long long)v_.shadowRec.ino);
        ++v_.counts.invalid;
    }
}

// A live record of this inode must follow the current shadow record.
void ListWalk::setPending()
{
    const std::string_view path = v_.shadowRec.path;
    size_t len = path.size();
    if (static_cast<size_t>(lastPath_.size) <= len && !lastPath_.grow(static_cast<int>(len) + 1))
        return;
    std::memcpy(lastPath_.ptr, path.data(), len);
    lastPath_.ptr[len] = '\0';
    lastIno_ = v_.shadowRec.ino;
}

void ListWalk::countFlag(int flag)
{
    if (flag == PDR_NORMAL)
        ++v_.counts.normal;
    else if (flag == PDR_BACKUP)
        ++v_.counts.backup;
    else if (flag == PDR_METACH)
        ++v_.counts.metach;
}

// The current shadow record has no list record.
void ListWalk::onlyInShadow()
{
    const Record& s = v_.shadowRec;
    if (!s.fileset.empty()) {
        v_.reportLine("Files only in shadow(could be unlinked fset): %016llx %.*s %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path), VIEW_ARGS(s.fileset));
        ++v_.counts.unlinked;
    } else {
        v_.reportLine("Unvalid file in shadow: %016llx %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path));
        ++v_.counts.invalid;
    }
}

// Examines a new shadow record: its HSM state and record flag. False when
// it is not to be compared with the list record (CHANGE, DELETE, EXPIRE,
// an unknown flag).
bool ListWalk::examine()
{
    const Record& s = v_.shadowRec;
    const Record& l = listRec_;
    v_.checkHsmState();
    const int flag = s.state;
    if (flag == PDR_CHANGE) {
        pendingCheck();
        setPending();
        v_.reportLine("File with CHANGE flag: %016llx %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path));
        ++v_.counts.change;
        return false;
    }
    if (flag == PDR_DELETE || flag == PDR_EXPIRE) {
        if (s.ino == l.ino && s.path == l.path) {
            pendingCheck();
            setPending();
        }
        if (flag == PDR_DELETE) {
            ++v_.counts.deleted;
        } else {
            ++v_.counts.expire;
            v_.reportLine("File with EXPIRE flag: %016llx %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path));
        }
        return false;
    }
    if (flag != PDR_NORMAL && flag != PDR_BACKUP && flag != PDR_METACH) {
        v_.reportLine("Record flag is UNKNOWN: %016llx %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path));
        ++v_.counts.wrongFlag;
        return false;
    }
    countFlag(flag);
    if (lastIno_ != 0 && lastIno_ != s.ino) {
        v_.reportLine("Check lastIno failed: lastIno %016llx lastPath %s currIno %016llx\n", (unsigned long long)lastIno_, lastPath_.ptr, (unsigned long long)s.ino);
        ++v_.counts.invalid;
    }
    v_.shadowExamined = true;
    return true;
}

// Both files are read and parsed ahead, each on a thread of its own, for
// the walk only: the files are closed after it.
int ListWalk::run()
{
    v_.shadowReader.readAhead();
    list_.readAhead();
    ProgressLine progress("verifyshadow", v_.shadow.size() + v_.list.size(), v_.progressWanted);
    progress_ = &progress;
    int rc = walk();
    progress_ = nullptr;
    v_.shadowReader.stopReadAhead();
    list_.stopReadAhead();
    return rc;
}

int ListWalk::walk()
{
    Record& s = v_.shadowRec;
    Record& l = listRec_;
    int rc = 0;
    if ((rc = readList()) || (rc = readShadow()))
        return rc;
    for (;;) {
        if (listAtEnd_)
            return shadowDrain();
        if (v_.shadowAtEnd)
            return listDrain();
        if (quenby_debug > 4)
            std::fprintf(stderr, "quenby::verifyShadow(list %x shadow %x) comparing \n %s %s\n", l.state, s.state,
                         l.line, s.line);

        if (!v_.shadowExamined && !examine()) {
            if ((rc = readShadow()))
                return rc;
            continue;
        }

        if (s.ino < l.ino) {
            onlyInShadow();
            lastIno_ = 0;
            if ((rc = readShadow()))
                return rc;
            continue;
        }
        if (s.ino > l.ino) {
            v_.reportLine("Unhandled file in prep list: %016llx %.*s\n", (unsigned long long)l.ino, VIEW_ARGS(l.path));
            ++v_.counts.unhandled;
            lastIno_ = 0;
            if ((rc = readList()))
                return rc;
            continue;
        }
        bool samePath = s.path == l.path;
        if (!samePath) {
            v_.reportLine("Inode/Path not matched: shadow %016llx %.*s list %016llx %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path), (unsigned long long)l.ino, VIEW_ARGS(l.path));
            ++v_.counts.invalid;
        }
        if (diffShowData(s.show, l.show, s.fileset, l.fileset, s.hsmState, l.hsmState) != 0) {
            v_.reportLine("Attr not matched: shadow %016llx %.*s %.*s list %016llx %.*s %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path), VIEW_ARGS(s.show), (unsigned long long)l.ino, VIEW_ARGS(l.path), VIEW_ARGS(l.show));
            ++v_.counts.invalid;
        }
        lastIno_ = 0;
        if (samePath && (rc = readList()))
            return rc;
        if ((rc = readShadow()))
            return rc;
    }
}

// The prep list has run out: every shadow record left is in the shadow
// database only.
int ListWalk::shadowDrain()
{
    Record& s = v_.shadowRec;
    while (!v_.shadowAtEnd) {
        const int flag = s.state;
        if (flag == PDR_DELETE) {
            ++v_.counts.deleted;
        } else if (flag == PDR_EXPIRE) {
            ++v_.counts.expire;
            v_.reportLine("File with EXPIRE flag: %016llx %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path));
        } else {
            if (!v_.shadowExamined) {
                if (flag == PDR_CHANGE) {
                    ++v_.counts.change;
                    v_.reportLine("File with CHANGE flag: %016llx %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path));
                } else if (flag == PDR_NORMAL || flag == PDR_BACKUP || flag == PDR_METACH) {
                    countFlag(flag);
                } else {
                    v_.reportLine("Record flag is UNKNOWN: %016llx %.*s\n", (unsigned long long)s.ino, VIEW_ARGS(s.path));
                    ++v_.counts.wrongFlag;
                }
            }
            onlyInShadow();
        }
        if (int rc = readShadow())
            return rc;
    }
    return 0;
}

// The shadow database has run out: every list record left is unhandled.
int ListWalk::listDrain()
{
    Record& l = listRec_;
    while (!listAtEnd_) {
        v_.reportLine("Unhandled file in prep list: %016llx %.*s\n", (unsigned long long)l.ino, VIEW_ARGS(l.path));
        ++v_.counts.unhandled;
        for (;;) {
            int rc = list_.next(l);
            listAtEnd_ = list_.atEnd();
            if (rc < 0)
                return rc;
            if (listAtEnd_)
                break;
            if (rc == PDR_UNSUPPORTED) {
                ++v_.counts.unsupported;
                continue;
            }
            if (rc == PDR_INTERNAL) {
                if (quenby_debug > 4)
                    std::fprintf(stderr, "quenby: verifyShadow skipping internal path [%.*s]\n", VIEW_ARGS(l.path));
                continue;
            }
            ++v_.counts.validList;
            break;
        }
    }
    return shadowDrain();
}

void printSummary(const VerifyCounts& c, bool queryMode, const char* reportName)
{
    std::fputs("quenby verifyshadow summary infomation:\n", stdout);
    std::printf("total number of entries with record flag NORMAL(0x0)         :%d\n", c.normal);
    if (!queryMode) {
        std::printf("total number of entries with record flag METACH(0xa)         :%d\n", c.metach);
        std::printf("total number of entries with record flag BACKUP(0xb)         :%d\n", c.backup);
        std::printf("total number of entries with record flag CHANGE(0xc)         :%d\n", c.change);
        std::printf("total number of entries with record flag DELETE(0xd)         :%d\n", c.deleted);
        std::printf("total number of entries with record flag EXPIRE(0xe)         :%d\n", c.expire);
    }
    const struct {
        const char* label;
        int count;
    } optional[] = {
        {"total number of invalid entries in shadow                    :%d\n", c.invalid},
        {"total number of files (unlinked fileset) in shadow           :%d\n", c.unlinked},
        {"total number of entries with wrong record flag in shadow     :%d\n", c.wrongFlag},
        {"total number of valid entries in list                        :%d\n", c.validList},
        {"total number of unhandled files in list                      :%d\n", c.unhandled},
        {"total number of entries with unsupported characters in list  :%d\n", c.unsupported},
    };
    for (const auto& line : optional)
        if (line.count > 0)
            std::printf(line.label, line.count);
    std::printf("verifyShadow done, see %s to track files that cannot pass verification\n", reportName);
}


// Header line 1 must carry the current format version.
int checkHeader(VerifyContext& v)
{
    LineView first;
    if (v.shadow.next(first) <= 0) {
        std::fprintf(stderr, "quenby::VERIFYSHADOW::1::could not get shadow header in %s\n", v.shadowFile);
        return -1;
    }
    const ShadowHeaderVersion header = peekShadowHeaderVersion(first.text);
    if (header.version != SHADOW_FORMAT_VERSION) {
        std::fprintf(stderr, "quenby::VERIFYSHADOW::1::shadow file version %d shadow hdr version %d\n", header.version,
                     SHADOW_FORMAT_VERSION);
        return -1;
    }
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:VERIFYSHADOW::1::shadow header(version %d backupdir %.*s)\n", header.version,
                     static_cast<int>(header.backupDirLength), header.backupDir);
    return 0;
}

// The report's name: the one given, or the default one stamped with `start`.
bool nameReport(char (&name)[kNameSize], const char* outputFile, time_t start)
{
    if (!isNone(outputFile))
        return std::snprintf(name, sizeof name, "%s", outputFile) < kNameSize;
    struct tm local;
    localtime_r(&start, &local);
    std::snprintf(name, sizeof name, "/tmp/quenby.verifyShadow.%4d%02d%02d.%02d%02d%02d", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return true;
}

// A report named by the caller is created or emptied; the default one, in a
// directory everyone may write to, only as a new file, never through a link.
int openReport(StdioFile& report, const char* name, bool byDefault)
{
    if (!byDefault)
        return openSequential(report, name, "w", kCannotWrite);
    FILE* stream = nullptr;
    int err = createNoFollow(name, true, &stream);
    if (stream == nullptr) {
        std::fprintf(stderr, kCannotWrite, name, err);
        return -1;
    }
    report = StdioFile(stream);
    report.setBuffer(SEQUENTIAL_BUFFER_SIZE);
    return 0;
}

// Closes the report; -1 when a finding did not reach it.
int closeReport(VerifyContext& v, const char* name)
{
    if (!v.report)
        return 0;
    int err = v.reportError;
    if (err == 0 && std::ferror(v.report.get()))
        err = -1;
    if (v.report.close() != 0 && err == 0)
        err = portableErrnoNonZero();
    if (err == 0)
        return 0;
    std::fprintf(stderr, "quenby::VERIFYSHADOW::1::write to %s failed (error=%d)\n", name, err);
    return -1;
}

} // namespace

int verifyShadow(const char* shadowFile, const char* prepListFile, const char* outputFile, const char* qbsQueryFile,
                 const char* sortDirectory)
{
    // The run's whole environment, read once at its start.
    const char* sortCommand = std::getenv("KESTREL_SORT_OPTIONS");
    const bool queryMode = qbsQueryFile != nullptr;
    VerifyContext v;
    v.shadowFile = shadowFile;
    v.sortDirectory = sortDirectory;
    v.sortCommand = sortCommand;
    v.progressWanted = ProgressLine::wanted(std::getenv("QUENBY_PROGRESS"));
    ListWalk walk(v);
    char sortedName[kNameSize];
    char pathName[kNameSize]; // the unsorted index the sort step writes first
    char reportName[kNameSize];
    int result = 0;
    bool walked = false;

    if (queryMode && (std::snprintf(sortedName, sizeof sortedName, "%s.Sorted", shadowFile) >= kNameSize
                      || std::snprintf(pathName, sizeof pathName, "%s.path", shadowFile) >= kNameSize)) {
        std::fprintf(stderr, "quenby::VERIFYSHADOW::1::shadow file name too long: %s\n", shadowFile);
        result = -1;
    } else if (!walk.allocate()) {
        std::fputs("quenby::VERIFYSHADOW::1::failed to allocate memory\n", stderr);
        result = -1;
    } else if (!nameReport(reportName, outputFile, std::time(nullptr))) {
        std::fprintf(stderr, "quenby::VERIFYSHADOW::1::report file name too long: %s\n", outputFile);
        result = -1;
    } else if (refuseSharedOutputs(stderr, "quenby::VERIFYSHADOW::1::", {shadowFile, prepListFile, qbsQueryFile},
                                   {queryMode ? pathName : nullptr, queryMode ? sortedName : nullptr, reportName})
                   != 0
               || !openInput(v.shadow, shadowFile) || (!queryMode && !openInput(v.list, prepListFile))
               || openReport(v.report, reportName, isNone(outputFile)) != 0 || checkHeader(v) != 0) {
        result = -1;
    } else if (queryMode) {
        result = verifyQueryWalk(v, qbsQueryFile, sortedName, &walked);
    } else {
        result = walk.run();
        walked = result == 0;
        if (walked)
            result = v.counts.invalid > 0 || v.counts.unhandled > 0 ? 1 : 0;
    }
    // Findings that did not reach the report make the run a failure, told
    // before a summary could point at the report.
    if (closeReport(v, reportName) != 0 && walked) {
        result = -1;
        walked = false;
    }
    if (walked)
        printSummary(v.counts, queryMode, reportName);
    v.shadow.close();
    v.list.close();
    if (result == 0)
        std::fputs("::VERIFYSHADOW::0::\n", stdout);
    else
        std::printf("::VERIFYSHADOW::%d::%d::%d::\n", result, v.counts.invalid, v.counts.unhandled);
    std::fflush(stdout);
    return result;
}
