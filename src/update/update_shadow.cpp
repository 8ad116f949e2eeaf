#include "update/update_shadow.h"

#include "records/policy_record.h"
#include "records/record_edit.h"
#include "support/debug_level.h"
#include "records/shadow_header.h"
#include "support/file_open.h"
#include "support/file_stream.h"
#include "support/sys_call.h"
#include "update/record_merge.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <sys/stat.h>

namespace {

inline constexpr char kCannotRead[] = "quenby::UPDATESHADOWERR::1::could not open %s for read (error=%d)\n";
inline constexpr char kCannotWrite[] = "quenby::UPDATESHADOWERR::1::could not open %s for writing (error=%d)\n";

inline constexpr char kSnapshotPrefix[] = ".snapshots/.kestrelSnapshot";
inline constexpr char kResident[] = "resdnt";
inline constexpr char kMigrated[] = "migrat";

// The result of each failure place, so that a result names where the run
// stopped: Edit is a record's flag edit, Write its write to the new shadow
// database; Old and New name the record where a decision has both. In the
// order of the merge rows; the numbers are fixed.
enum FailPlace : int {
    kNewFileEdit = -11, kNewFileWrite = -13,                          // row 3
    kPendingGoneEdit = -15, kPendingGoneWrite = -17,                  // row 4
    kPendingAgainEdit = -19, kPendingAgainWrite = -21,                // row 5
    kPendingReusedOldEdit = -23, kPendingReusedOldWrite = -25,        // row 6
    kPendingReusedNewEdit = -27, kPendingReusedNewWrite = -29,
    kPairGoneEdit = -31, kPairGoneWrite = -33,                        // row 7
    kPairAgainOldWrite = -34, kPairAgainNewEdit = -35, kPairAgainNewWrite = -36, // row 8
    kPairReusedOldEdit = -71, kPairReusedOldWrite = -73,              // row 9
    kPairReusedNewEdit = -75, kPairReusedNewWrite = -77,
    kExpiryAgainWrite = -79,                                          // row 10
    kUnchangedEdit = -81, kUnchangedWrite = -83,                      // row 11
    kGoneEdit = -37, kGoneWrite = -39,                                // row 12
    kMovedOldEdit = -41, kMovedOldWrite = -43, kMovedNewEdit = -45, kMovedNewWrite = -47, // row 13
    kReusedEdit = -49, kReusedWrite = -51,                            // row 14
    kSameShowEdit = -85, kSameShowWrite = -87,                        // row 15
    kShowChangedOldEdit = -53, kShowChangedOldWrite = -55,            // row 16
    kShowChangedNewEdit = -57, kShowChangedNewWrite = -59,
    kNoMoreOldEdit = -63, kNoMoreOldWrite = -65,
    kNoMoreNewEdit = -67, kNoMoreNewWrite = -69,
    kConvertEdit = -89, kConvertWrite = -91, kConvertStateWordWrite = -93,
    kSnapshotExpiryEdit = -95,
};

long envNumber(const char* name, bool* set = nullptr)
{
    const char* value = std::getenv(name);
    if (set != nullptr)
        *set = value != nullptr;
    return value != nullptr ? std::strtol(value, nullptr, 10) : 0;
}

struct Settings {
    bool incrSupported = false;
    bool oldFormat = false;
    bool backupOnly = false;
    bool conversion = false;
    bool migrationExpiry = false;
    const char* backupDirEnv = nullptr;
    // Judged after the argument and mode checks, where its message belongs.
    const char* maxExpirePercentText = nullptr;
    bool progress = false; // the progress line on a terminal
};

// The run's whole environment, read once at its start.
Settings readSettings()
{
    Settings s;
    s.incrSupported = envNumber("KESTREL_QBSC_INCR_SUPPORTED") == 1;
    long format = envNumber("KESTREL_SHADOW_FORMAT");
    s.oldFormat = format >= 1002 && format <= 1399;
    s.backupDirEnv = std::getenv("KESTREL_BACKUPDIR");
    s.backupOnly = envNumber("KESTREL_DO_BACKUP_ONLY") == 1;
    s.maxExpirePercentText = std::getenv("QUENBY_MAX_EXPIRE_PERCENT");
    s.progress = ProgressLine::wanted(std::getenv("QUENBY_PROGRESS"));
    return s;
}

struct Files {
    LineSource oldShadow;
    OutputFile newShadow;
    LineSource list;
    OutputFile changed;
    OutputFile expired;
    OutputFile unsupported;
    OutputFile hsmMig;

    // Closes every open file; each failing close lowers the result by one.
    // The outputs are put in place only when the run succeeded: the new
    // database and the changed list first, then the appended lists.
    int closeAll(int result)
    {
        return closeRunFiles(result, {&oldShadow, &list}, {&newShadow, &changed, &expired, &unsupported, &hsmMig});
    }
};

class ShadowMerge : public RecordMerge {
public:
    ShadowMerge(const Settings& settings, Files& files, const char* newShadowName, MergeSide& oldSide,
                MergeSide& newSide, offset_t writePos, MergeCounts& counts)
        : RecordMerge("updateShadow", "UPDATESHADOW", !settings.conversion && !settings.migrationExpiry, oldSide,
                      newSide, counts),
          s_(settings), f_(files), newShadowName_(newShadowName), writePos_(writePos)
    {
    }

private:
    int readOld(bool readingRules) override;
    int readNew(bool noMoreOldStage) override;
    bool setAsideUnsupported(const Record& rec, bool noMoreOldStage) override;
    int decide(Keep& keep) override;
    int noMoreOld() override;
    int noMoreNew() override;
    int convertRemainingOld();
    int expireRemainingSnapshots();

    // The rows of the merge table, each named after the case it handles.
    int row1ExpiryDone(Keep& keep);
    int row2PartnerDone(Keep& keep);
    int row3NewFile(Keep& keep);
    int row4PendingGone(Keep& keep);
    int row5PendingAgain();
    int row6PendingReused();
    int row7PairGone(Keep& keep);
    int row8PairAgain();
    int row9PairReused();
    int row10ExpiryAgain(Keep& keep);
    int row11Unchanged();
    int row12Gone(Keep& keep);
    int row13Moved();
    int row14Reused();
    int row15SameShow();
    int row16ShowChanged(int diff);
    void rememberPair();

    int write(const Record& rec, int place);
    int expireOld(int editPlace, const char* label);
    int expireWriteOld(int editPlace, const char* label, int writePlace);
    int setListWriteNew(int state, int editPlace, const char* label, int writePlace);
    int listNewHere(int state, const char* label, bool toChangedList = false);
    int listExpiredHere(const char* label);

    const Settings& s_;
    Files& f_;
    const char* newShadowName_;
    offset_t writePos_;

    uint64_t lastOldIno_ = 0;
    bool afterChange_ = false;
    bool migrated_ = false;
    bool toHsmList_ = false;
};

// An unsupported record goes to the unsupported list and not into the new
// shadow database; it is counted even when it could not be listed.
bool ShadowMerge::setAsideUnsupported(const Record& rec, bool noMoreOldStage)
{
    FILE* list = f_.unsupported.get();
    const int pathLength = static_cast<int>(rec.path.size());
    if (list != nullptr && sysFwrite(rec.line, rec.length, list) == rec.length) {
        counts_.unsupportedWritten = true;
    } else if (noMoreOldStage) {
        std::fprintf(stderr, "quenby:updateShadow failed on unsupported path [%.*s]\n", pathLength, rec.path.data());
    } else {
        std::fprintf(stderr, "quenby:updateShadow skipping unsupported char [%.*s]\n", pathLength, rec.path.data());
    }
    ++counts_.unsupported;
    return true;
}

int ShadowMerge::readOld(bool readingRules)
{
    Record& rec = old_.rec;
    if (int rc = readRecord(old_, readingRules, false); rc != 0 || old_.atEnd)
        return rc;
    if (s_.oldFormat) {
        old_.rememberedFlag = rec.state;
        old_.flag = PDR_NORMAL;
    } else {
        if (rec.hsmState.data() == nullptr)
            rec.hsmState = kResident;
        old_.flag = rec.state;
    }
    return 0;
}

int ShadowMerge::readNew(bool noMoreOldStage)
{
    Record& rec = new_.rec;
    if (int rc = readRecord(new_, true, noMoreOldStage); rc != 0 || new_.atEnd)
        return rc;
    if (rec.hsmState.data() == nullptr)
        rec.hsmState = kResident;
    new_.flag = rec.state;
    migrated_ = rec.hsmState == kMigrated;
    toHsmList_ = migrated_ && f_.hsmMig;
    return 0;
}

int ShadowMerge::write(const Record& rec, int place)
{
    if (sysFwrite(rec.line, rec.length, f_.newShadow.get()) != rec.length) {
        std::fprintf(stderr, "quenby::UPDATESHADOWERR::1::output to %s failed\n", newShadowName_);
        return place;
    }
    writePos_ += static_cast<offset_t>(rec.length);
    return 0;
}

// The old record's expired line at the write position, where the old
// record is about to be written.
int ShadowMerge::listExpiredHere(const char* label)
{
    return listExpired(f_.expired.get(), writePos_, label);
}

int ShadowMerge::expireOld(int editPlace, const char* label)
{
    if (s_.backupOnly)
        return 0;
    if (int rc = setState(old_.rec, PDR_EXPIRE, editPlace))
        return rc;
    return listExpiredHere(label);
}

// The new record's line, at the write position, goes to the HSM-migrated
// list for a migrated file unless `toChangedList` says otherwise.
int ShadowMerge::listNewHere(int state, const char* label, bool toChangedList)
{
    bool toHsm = toHsmList_ && !toChangedList;
    if (int rc = listNew(toHsm ? f_.hsmMig.get() : f_.changed.get(), state, writePos_, label))
        return rc;
    if (toHsm)
        ++counts_.hsm;
    return 0;
}

// Expire old; write old.
int ShadowMerge::expireWriteOld(int editPlace, const char* label, int writePlace)
{
    if (int rc = expireOld(editPlace, label))
        return rc;
    return write(old_.rec, writePlace);
}

// Set the new record's flag to `state`; list new as `state`; write new.
int ShadowMerge::setListWriteNew(int state, int editPlace, const char* label, int writePlace)
{
    int rc = 0;
    (rc = setState(new_.rec, state, editPlace)) || (rc = listNewHere(state, label))
        || (rc = write(new_.rec, writePlace));
    return rc;
}

// One merge decision: the first row whose condition holds, tested in the
// order of the merge table.
int ShadowMerge::decide(Keep& keep)
{
    const Record& o = old_.rec;
    const Record& n = new_.rec;
    const int oldFlag = old_.flag;
    const bool pending = oldFlag == PDR_METACH || oldFlag == PDR_BACKUP;

    if (oldFlag == PDR_DELETE)
        return row1ExpiryDone(keep);
    if (pending && afterChange_ && o.ino == lastOldIno_)
        return row2PartnerDone(keep);
    // Only rows 7 to 9 leave a CHANGE pair behind for row 2 to recognise.
    afterChange_ = false;
    lastOldIno_ = 0;
    if (o.ino > n.ino)
        return row3NewFile(keep);
    if (pending && o.ino < n.ino)
        return row4PendingGone(keep);
    if (pending && o.gen == n.gen)
        return row5PendingAgain();
    if (pending)
        return row6PendingReused();
    if (oldFlag == PDR_CHANGE && o.ino < n.ino)
        return row7PairGone(keep);
    if (oldFlag == PDR_CHANGE && o.gen == n.gen)
        return row8PairAgain();
    if (oldFlag == PDR_CHANGE)
        return row9PairReused();
    if (oldFlag == PDR_EXPIRE)
        return row10ExpiryAgain(keep);
    if (sameRecord())
        return row11Unchanged();
    if (o.ino < n.ino)
        return row12Gone(keep);
    if (o.path != n.path)
        return row13Moved();
    if (o.gen != n.gen && o.gen != MERGE_ANY_GENERATION)
        return row14Reused();
    int diff = showDiff();
    if (diff == 0)
        return row15SameShow();
    return row16ShowChanged(diff);
}

// Rows 7 to 9: the old record's inode, for row 2 to drop its partner by.
void ShadowMerge::rememberPair()
{
    afterChange_ = true;
    lastOldIno_ = old_.rec.ino;
}

// Row 1: an expiry that is done leaves the database.
int ShadowMerge::row1ExpiryDone(Keep& keep)
{
    keep = keepNew;
    return 0;
}

// Row 2: the second half of a CHANGE pair already handled.
int ShadowMerge::row2PartnerDone(Keep& keep)
{
    keep = keepNew;
    return 0;
}

// Row 3: a file the old database does not have.
int ShadowMerge::row3NewFile(Keep& keep)
{
    const Record& o = old_.rec;
    const Record& n = new_.rec;
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:updateShadow:BACKUP old/new ino [%llx/%llx]\n%s", (unsigned long long)o.ino,
                     (unsigned long long)n.ino, n.line);
    keep = keepOld;
    return setListWriteNew(PDR_BACKUP, kNewFileEdit, "updatePDRForBackup 2", kNewFileWrite);
}

// Row 4: a pending backup of a file that is gone.
int ShadowMerge::row4PendingGone(Keep& keep)
{
    const Record& o = old_.rec;
    const Record& n = new_.rec;
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:updateShadow:EXPIRE change o:n [%llx:%llx]\n%s", (unsigned long long)o.ino,
                     (unsigned long long)n.ino, n.line);
    keep = keepNew;
    return expireWriteOld(kPendingGoneEdit, "updatePDRForExpire 2", kPendingGoneWrite);
}

// Row 5: a pending backup of the same file is listed again.
int ShadowMerge::row5PendingAgain()
{
    const Record& o = old_.rec;
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:updateShadow:BACKUP same ino/gen [%llx/%llx] mig [%x]\n%s",
                     (unsigned long long)o.ino, (unsigned long long)o.gen, migrated_, new_.rec.line);
    return setListWriteNew(old_.flag, kPendingAgainEdit, "updatePDRForBackup 4", kPendingAgainWrite);
}

// Row 6: a pending backup whose inode number was reused.
int ShadowMerge::row6PendingReused()
{
    const Record& o = old_.rec;
    const Record& n = new_.rec;
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:updateShadow:EXPIRE/BACKUP reused ino/gen [%llx:%llx/%llx] mig [%x]\n%s",
                     (unsigned long long)o.ino, (unsigned long long)o.gen, (unsigned long long)n.gen, migrated_,
                     n.line);
    int rc = 0;
    (rc = expireWriteOld(kPendingReusedOldEdit, "updatePDRForExpire 4", kPendingReusedOldWrite))
        || (rc = setListWriteNew(old_.flag, kPendingReusedNewEdit, "updatePDRForBackup 6", kPendingReusedNewWrite));
    return rc;
}

// Row 7: the old half of a pair whose file is gone.
int ShadowMerge::row7PairGone(Keep& keep)
{
    rememberPair();
    keep = keepNew;
    return expireWriteOld(kPairGoneEdit, "updatePDRForExpire 6", kPairGoneWrite);
}

// Row 8: the pair is written again and listed again; the line keeps the
// scan list's flag.
int ShadowMerge::row8PairAgain()
{
    Record& o = old_.rec;
    Record& n = new_.rec;
    rememberPair();
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:updateShadow:CHANGE/BACKUP same ino/gen [%llx:%llx] mig [%x]\n%s",
                     (unsigned long long)o.ino, (unsigned long long)o.gen, migrated_, n.line);
    int rc = 0;
    (rc = listNewHere(PDR_BACKUP, "updatePDRForBackup 16")) || (rc = write(o, kPairAgainOldWrite))
        || (rc = setState(n, PDR_BACKUP, kPairAgainNewEdit)) || (rc = write(n, kPairAgainNewWrite));
    return rc;
}

// Row 9: the pair's inode number was reused; the new file is not listed.
int ShadowMerge::row9PairReused()
{
    const Record& o = old_.rec;
    Record& n = new_.rec;
    rememberPair();
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:updateShadow:CHANGE/EXPIRE same ino:o/ngen [%llx:%llx/%llx]\n%s",
                     (unsigned long long)o.ino, (unsigned long long)o.gen, (unsigned long long)n.gen, n.line);
    int rc = 0;
    (rc = expireWriteOld(kPairReusedOldEdit, "updatePDRForExpire 16", kPairReusedOldWrite))
        || (rc = setState(n, PDR_BACKUP, kPairReusedNewEdit)) || (rc = write(n, kPairReusedNewWrite));
    return rc;
}

// Row 10: an expiry still pending is listed again.
int ShadowMerge::row10ExpiryAgain(Keep& keep)
{
    keep = keepNew;
    if (!s_.backupOnly)
        if (int rc = listExpiredHere("updatePDRForExpire 18"))
            return rc;
    return write(old_.rec, kExpiryAgainWrite);
}

// Row 11: nothing changed at all.
int ShadowMerge::row11Unchanged()
{
    Record& o = old_.rec;
    int rc = 0;
    (rc = setState(o, PDR_NORMAL, kUnchangedEdit)) || (rc = write(o, kUnchangedWrite));
    return rc;
}

// Row 12: the file is gone.
int ShadowMerge::row12Gone(Keep& keep)
{
    keep = keepNew;
    return expireWriteOld(kGoneEdit, "updatePDRForExpire 8", kGoneWrite);
}

// Row 13: moved: the old path is expired, the new one backed up.
int ShadowMerge::row13Moved()
{
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:updateShadow:BACKUP path change [%.*s]\n[%.*s] mig [%x]\n%s",
                     static_cast<int>(old_.rec.path.size()), old_.rec.path.data(),
                     static_cast<int>(new_.rec.path.size()), new_.rec.path.data(), migrated_, new_.rec.line);
    int rc = 0;
    (rc = expireWriteOld(kMovedOldEdit, "updatePDRForExpire 10", kMovedOldWrite))
        || (rc = setListWriteNew(PDR_BACKUP, kMovedNewEdit, "updatePDRForBackup 8", kMovedNewWrite));
    return rc;
}

// Row 14: same path, another file; the old record is dropped.
int ShadowMerge::row14Reused()
{
    const Record& o = old_.rec;
    const Record& n = new_.rec;
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:updateShadow:NORMAL same ino:o/ngen [%llx:%llx/%llx] mig [%x]\n%s",
                     (unsigned long long)o.ino, (unsigned long long)o.gen, (unsigned long long)n.gen, migrated_,
                     n.line);
    return setListWriteNew(PDR_BACKUP, kReusedEdit, "updatePDRForBackup 10", kReusedWrite);
}

// Row 15: unchanged.
int ShadowMerge::row15SameShow()
{
    Record& n = new_.rec;
    int rc = 0;
    (rc = setState(n, PDR_NORMAL, kSameShowEdit)) || (rc = write(n, kSameShowWrite));
    return rc;
}

// Row 16: changed: the old record stays as CHANGE, the new one follows it.
// A change of the HSM state alone is listed in the changed list.
int ShadowMerge::row16ShowChanged(int diff)
{
    Record& o = old_.rec;
    Record& n = new_.rec;
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:updateShadow:BACKUP SHOW data changed [%x] mig [%x]\n%s", diff, migrated_,
                     n.line);
    int state = s_.incrSupported && (diff & (SHOW_CTIME_CHANGED | SHOW_HSM_CHANGED)) ? PDR_METACH : PDR_BACKUP;
    int rc = 0;
    (rc = setState(o, PDR_CHANGE, kShowChangedOldEdit))
        || (rc = listNewHere(state, "updatePDRForBackup 12", diff == SHOW_HSM_CHANGED))
        || (rc = write(o, kShowChangedOldWrite)) || (rc = setState(n, state, kShowChangedNewEdit))
        || (rc = write(n, kShowChangedNewWrite));
    return rc;
}

int ShadowMerge::noMoreOld()
{
    while (!new_.atEnd) {
        Record& n = new_.rec;
        if (quenby_debug > 4)
            std::fprintf(stderr, "quenby:updateShadow:BACKUP no more old mig [%x]\n%s", migrated_, n.line);
        int rc = 0;
        (rc = setListWriteNew(PDR_BACKUP, kNoMoreOldEdit, "updatePDRForBackup 14", kNoMoreOldWrite))
            || (rc = readNew(true));
        if (rc)
            return rc;
    }
    return 0;
}

int ShadowMerge::noMoreNew()
{
    if (s_.migrationExpiry)
        return expireRemainingSnapshots();
    if (s_.oldFormat)
        return convertRemainingOld();
    while (!old_.atEnd) {
        Record& o = old_.rec;
        int rc = 0;
        // The new half of a CHANGE pair that the merge has just written again
        // is dropped here too: expiring it would expire a file that exists.
        bool partner = (old_.flag == PDR_METACH || old_.flag == PDR_BACKUP) && afterChange_ && o.ino == lastOldIno_;
        afterChange_ = afterChange_ && partner;
        switch (partner ? PDR_DELETE : old_.flag) {
        case PDR_DELETE:
            break;
        case PDR_NORMAL:
        case PDR_METACH:
        case PDR_BACKUP:
        case PDR_CHANGE:
            rc = expireWriteOld(kNoMoreNewEdit, "updatePDRForExpire 12", kNoMoreNewWrite);
            break;
        case PDR_EXPIRE:
            if (!s_.backupOnly)
                rc = listExpiredHere("updatePDRForExpire 14");
            rc = rc ? rc : write(o, kNoMoreNewWrite);
            break;
        default:
            std::fprintf(stderr, "quenby::UPDATESHADOWERR::1::unexpected state %x in PDR1\n%s", old_.flag, o.line);
            break;
        }
        if (rc || (rc = readOld(false)))
            return rc;
    }
    return 0;
}

// Old format: every remaining record becomes NORMAL and gains the HSM
// state word after its SHOW text.
int ShadowMerge::convertRemainingOld()
{
    static constexpr char kStateWord[] = " resdnt\n";
    while (!old_.atEnd) {
        Record& o = old_.rec;
        int rc = 0;
        if (old_.rememberedFlag != PDR_NORMAL)
            rc = setState(o, PDR_NORMAL, kConvertEdit);
        if (rc)
            return rc;
        size_t len = o.length;
        if (len > 0 && o.line[len - 1] == '\n')
            --len;
        if (sysFwrite(o.line, len, f_.newShadow.get()) != len) {
            std::fprintf(stderr, "quenby::UPDATESHADOWERR::1::output to %s failed\n", newShadowName_);
            return kConvertWrite;
        }
        if (sysFwrite(kStateWord, sizeof kStateWord - 1, f_.newShadow.get()) != sizeof kStateWord - 1) {
            std::fprintf(stderr, "quenby::UPDATESHADOWERR::1::output to %s failed\n", newShadowName_);
            return kConvertStateWordWrite;
        }
        writePos_ += static_cast<offset_t>(len + sizeof kStateWord - 1);
        if ((rc = readOld(false)))
            return rc;
    }
    return 0;
}

// Migration expiry: records under the snapshot directory are expired, and
// no record is carried over.
int ShadowMerge::expireRemainingSnapshots()
{
    while (!old_.atEnd) {
        Record& o = old_.rec;
        int rc = 0;
        if (old_.flag != PDR_DELETE
            && o.path.starts_with(kSnapshotPrefix))
            (rc = setState(o, PDR_EXPIRE, kSnapshotExpiryEdit)) || (rc = listExpiredHere("updatePDRForExpire 20"));
        if (rc || (rc = readOld(false)))
            return rc;
    }
    return 0;
}


// An unused list is removed only when it is a regular file of its own: a
// device such as /dev/null, or a name shared with another file of the run,
// is left alone.
bool removableList(const char* list, std::initializer_list<const char*> others)
{
    struct stat st;
    if (lstat(list, &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    for (const char* other : others)
        if (other != nullptr && (std::strcmp(other, list) == 0 || sameFile(list, other)))
            return false;
    return true;
}

int openOutput(OutputFile& file, const char* path, OutputFile::Mode mode, int newMode = -1)
{
    if (int err = file.open(path, mode, newMode)) {
        std::fprintf(stderr, kCannotWrite, path, err);
        return -1;
    }
    return 0;
}

struct Run {
    const char* oldShadowFile;
    const char* newShadowFile;
    const char* listFile;
    const char* changedFile;
    const char* expiredFile;
    const char* unsuppFile;
    const char* hsmMigFile;
    Settings settings;
    Files files;
    MergeCounts counts;

    int openFiles();
    int writeHeader(time_t startTime, offset_t& writePos);
    int execute();
};

int Run::openFiles()
{
    bool scanFiles = listFile != nullptr && !settings.migrationExpiry;
    auto ifScan = [scanFiles](const char* name) { return scanFiles ? name : nullptr; };
    if (!openList(files.oldShadow, oldShadowFile, kCannotRead))
        return -1;
    if (refuseSharedOutputs(stderr, "quenby::UPDATESHADOWERR::1::", {oldShadowFile, ifScan(listFile)},
                            {newShadowFile, ifScan(changedFile), expiredFile, ifScan(unsuppFile), ifScan(hsmMigFile)})
        != 0)
        return -1;
    // A new database keeps the access of the old one.
    if (openOutput(files.newShadow, newShadowFile, OutputFile::Mode::replace, fileMode(oldShadowFile)) != 0)
        return -1;
    if (scanFiles && !openList(files.list, listFile, kCannotRead))
        return -1;
    struct Output {
        OutputFile& file;
        const char* path;
        OutputFile::Mode mode;
        bool open;
    } outputs[] = {
        {files.changed, changedFile, OutputFile::Mode::replace, scanFiles},
        {files.expired, expiredFile, OutputFile::Mode::append, true},
        {files.unsupported, unsuppFile, OutputFile::Mode::append, scanFiles},
        {files.hsmMig, hsmMigFile, OutputFile::Mode::append, scanFiles},
    };
    for (Output& out : outputs) {
        if (out.open && out.path != nullptr && openOutput(out.file, out.path, out.mode) != 0)
            return -1;
    }
    return 0;
}

int Run::writeHeader(time_t startTime, offset_t& writePos)
{
    ShadowHeader header;
    int code = readShadowHeader(files.oldShadow, &header);
    if (code != 0) {
        if (settings.conversion) {
            std::fprintf(stderr,
                         "quenby::UPDATESHADOWERR::1::could not interpret header to migrate shadow DB %s err %d\n",
                         oldShadowFile, code);
            return -1;
        }
        setDefaultShadowHeader(&header, oldShadowFile);
        std::fprintf(stderr,
                     "quenby::UPDATESHADOWERR::0::proceeding with default header info after bad header found in "
                     "previous shadow %s\n",
                     oldShadowFile);
    }

    char now[64];
    struct tm local;
    const char* creationDate = header.creationDate;
    if (!settings.conversion) {
        localtime_r(&startTime, &local);
        asctime_r(&local, now);
        creationDate = now;
    }
    const char* backupDir = settings.backupDirEnv != nullptr ? settings.backupDirEnv : header.backupDir;
    if (int rc = writeShadowHeader(files.newShadow.get(), header, backupDir, creationDate))
        return rc;

    off_t pos = sysFtello(files.newShadow.get());
    if (pos < 0) {
        std::fprintf(stderr, "quenby::UPDATESHADOWERR::1::%s failed (%d)\n", "ftell 1", static_cast<int>(pos));
        return static_cast<int>(pos);
    }
    writePos = pos;
    return 0;
}

int Run::execute()
{
    if (settings.migrationExpiry && settings.backupOnly) {
        std::fputs("quenby::UPDATESHADOWERR::1::Cannot do 3.2 migration expiry in BACKUP_ONLY mode\n", stderr);
        return -1;
    }
    int maxExpirePercent = maxExpirePercentSetting("UPDATESHADOW", settings.maxExpirePercentText);
    if (maxExpirePercent < -1)
        return -1;
    MergeSide oldSide(files.oldShadow);
    MergeSide newSide(files.list);
    oldSide.fileName = oldShadowFile;
    newSide.fileName = listFile;
    time_t startTime = std::time(nullptr);
    if (int rc = openFiles())
        return rc;
    offset_t writePos = 0;
    if (int rc = writeHeader(startTime, writePos))
        return rc;
    ShadowMerge merge(settings, files, newShadowFile, oldSide, newSide, writePos, counts);
    ProgressLine progress = mergeProgress("updateshadow", files.oldShadow, files.list, settings.progress);
    merge.showProgress(&progress);
    return merge.run(maxExpirePercent);
}

} // namespace

int updateShadow(const char* oldShadowFile, const char* newShadowFile, const char* listFile,
                 const char* changedFile, const char* expiredFile, const char* unsuppFile,
                 const char* hsmMigFile, const char* /*subDir*/, const char* /*filesets*/)
{
    Run run{oldShadowFile, newShadowFile, listFile, changedFile, expiredFile, unsuppFile, hsmMigFile,
            readSettings(), {}, {}};
    Settings& s = run.settings;
    if (s.backupOnly && quenby_debug > 1)
        std::fputs("quenby: BACKUP_ONLY mode on.\n", stderr);

    if (oldShadowFile == nullptr || newShadowFile == nullptr) {
        std::fputs("Usage: quenby updateShadow <old shadow file> <new shadow file> [<list file> <changed> "
                   "<expired> <unsupported> <HSMMigrated> [<subdir>] [<filesetList>]]\n",
                   stderr);
        return -1;
    }

    s.conversion = listFile == nullptr && changedFile == nullptr && expiredFile == nullptr && hsmMigFile == nullptr;
    s.migrationExpiry = listFile != nullptr && changedFile != nullptr && std::strcmp(listFile, "/dev/null") == 0
                        && std::strcmp(changedFile, "/dev/null") == 0;
    if (s.conversion)
        s.oldFormat = true;

    int result = run.execute();
    result = run.files.closeAll(result);
    // A failed run removes nothing: an unused list may still hold an
    // earlier run's lines.
    if (result == 0 && unsuppFile != nullptr && !run.counts.unsupportedWritten
        && removableList(unsuppFile, {oldShadowFile, newShadowFile, listFile, changedFile, expiredFile, hsmMigFile}))
        sysUnlink(unsuppFile);
    if (result == 0 && hsmMigFile != nullptr && run.counts.hsm == 0
        && removableList(hsmMigFile, {oldShadowFile, newShadowFile, listFile, changedFile, expiredFile, unsuppFile}))
        sysUnlink(hsmMigFile);
    return printMergeResult("UPDATESHADOW", result, run.counts);
}
