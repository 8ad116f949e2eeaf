#include "update/cluster_mig_diff.h"

#include "records/record_edit.h"
#include "support/debug_level.h"
#include "support/file_open.h"
#include "update/record_merge.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

inline constexpr char kCannotRead[] = "quenby::CLUSTERMIGDIFFERR::1::could not open %s for read (error=%d)\n";
inline constexpr char kCannotWrite[] = "quenby::CLUSTERMIGDIFFERR::1::could not open %s for writing (error=%d)\n";
// Every work-list line of this comparison carries offset 0: there is no
// shadow database to point into.
constexpr offset_t kNoOffset = 0;

// The result of each failing state edit, by the case that made it: the
// same numbers as the matching places of the shadow update.
enum FailPlace : int {
    kNewFileEdit = -11,
    kGoneEdit = -37,
    kMovedOldEdit = -41,
    kMovedNewEdit = -45,
    kReusedEdit = -49,
    kNoMoreOldEdit = -63,
    kNoMoreNewEdit = -67,
};

class MigrationDiff : public RecordMerge {
public:
    MigrationDiff(FILE* changed, FILE* expired, MergeSide& oldSide, MergeSide& newSide, MergeCounts& counts)
        : RecordMerge("clusterMigDiff", "CLUSTERMIGDIFF", true, oldSide, newSide, counts), changed_(changed),
          expired_(expired)
    {
    }

private:
    int readOld(bool readingRules) override { return readSide(old_, readingRules); }
    int readNew(bool) override { return readSide(new_, true); }
    int decide(Keep& keep) override;
    int noMoreOld() override;
    int noMoreNew() override;

    // The decisions, named like the shadow update's rows for the same case.
    int newFile(Keep& keep);
    int gone(Keep& keep);
    int moved();
    int reused();
    int showChanged(int diff);

    int readSide(MergeSide& side, bool readingRules)
    {
        int rc = readRecord(side, readingRules, false);
        side.flag = side.rec.state;
        return rc;
    }
    int backupNew(int editPlace, const char* label)
    {
        if (int rc = setState(new_.rec, PDR_BACKUP, editPlace))
            return rc;
        return listNew(changed_, PDR_BACKUP, kNoOffset, label);
    }
    int expireOld(int editPlace, const char* label)
    {
        if (int rc = setState(old_.rec, PDR_EXPIRE, editPlace))
            return rc;
        return listExpired(expired_, kNoOffset, label);
    }

    FILE* changed_;
    FILE* expired_;
};

// One decision: the first whose condition holds. The old records' flags
// play no part.
int MigrationDiff::decide(Keep& keep)
{
    const Record& o = old_.rec;
    const Record& n = new_.rec;
    if (o.ino > n.ino)
        return newFile(keep);
    if (sameRecord())
        return 0; // nothing changed at all
    if (o.ino < n.ino)
        return gone(keep);
    if (o.path != n.path)
        return moved();
    if (o.gen != n.gen && o.gen != MERGE_ANY_GENERATION)
        return reused();
    int diff = showDiff();
    // A state on one side only differs from the other.
    bool hsmAgrees = o.hsmState.data() == nullptr || (n.hsmState.data() != nullptr && o.hsmState == n.hsmState);
    if (diff == 0 && hsmAgrees)
        return 0; // the same file, nothing that matters changed
    return showChanged(diff);
}

// A file the old list does not have.
int MigrationDiff::newFile(Keep& keep)
{
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:clusterMigDiff:BACKUP old/new ino [%llx/%llx]\n%s",
                     (unsigned long long)old_.rec.ino, (unsigned long long)new_.rec.ino, new_.rec.line);
    keep = keepOld;
    return backupNew(kNewFileEdit, "updatePDRForBackup 2");
}

// A file that is gone.
int MigrationDiff::gone(Keep& keep)
{
    keep = keepNew;
    return expireOld(kGoneEdit, "updatePDRForExpire 8");
}

// Moved: the old path expired, the new one backed up.
int MigrationDiff::moved()
{
    if (int rc = expireOld(kMovedOldEdit, "updatePDRForExpire 10"))
        return rc;
    return backupNew(kMovedNewEdit, "updatePDRForBackup 8");
}

// The same path, another file: backed up, the old one not expired.
int MigrationDiff::reused()
{
    const Record& o = old_.rec;
    const Record& n = new_.rec;
    if (quenby_debug > 4)
        std::fprintf(stderr, "quenby:clusterMigDiff:NORMAL same ino:o/ngen [%llx:%llx/%llx]\n%s",
                     (unsigned long long)o.ino, (unsigned long long)o.gen, (unsigned long long)n.gen, n.line);
    return backupNew(kReusedEdit, "updatePDRForBackup 10");
}

// The same file changed: listed with the scan list's own flag.
int MigrationDiff::showChanged(int diff)
{
    int state = (diff & (SHOW_CTIME_CHANGED | SHOW_HSM_CHANGED)) ? PDR_METACH : PDR_BACKUP;
    return listNew(changed_, state, kNoOffset, "updatePDRForBackup 12");
}

int MigrationDiff::noMoreOld()
{
    while (!new_.atEnd) {
        int rc = 0;
        (rc = backupNew(kNoMoreOldEdit, "updatePDRForBackup 14")) || (rc = readNew(true));
        if (rc)
            return rc;
    }
    return 0;
}

int MigrationDiff::noMoreNew()
{
    while (!old_.atEnd) {
        int rc = 0;
        (rc = expireOld(kNoMoreNewEdit, "updatePDRForExpire 12")) || (rc = readOld(true));
        if (rc)
            return rc;
    }
    return 0;
}


} // namespace

namespace {

struct Run {
    const char* oldListFile;
    const char* newListFile;
    const char* changedFile;
    const char* expiredFile;
    LineSource oldList, newList;
    OutputFile changed, expired;
    MergeCounts counts;

    int execute(int maxExpirePercent, bool progressWanted);
    int openOutput(OutputFile& file, const char* path)
    {
        if (int err = file.open(path, OutputFile::Mode::replace)) {
            std::fprintf(stderr, kCannotWrite, path != nullptr ? path : "(null)", err);
            return -1;
        }
        return 0;
    }
    // Each failing close lowers the result by one; the lists are put in
    // place only when the run succeeded.
    int close(int result) { return closeRunFiles(result, {&oldList, &newList}, {&changed, &expired}); }
};

int Run::execute(int maxExpirePercent, bool progressWanted)
{
    if (maxExpirePercent < -1)
        return -1;
    // Both lists are only compared: no path is refused as unsupported.
    const ReaderOptions compareOnly{.classify = true, .clusterMigration = true};
    MergeSide oldSide(oldList, compareOnly);
    MergeSide newSide(newList, compareOnly);
    oldSide.fileName = oldListFile;
    newSide.fileName = newListFile;
    if (!openList(oldList, oldListFile, kCannotRead) || !openList(newList, newListFile, kCannotRead)
        || refuseSharedOutputs(stderr, "quenby::CLUSTERMIGDIFFERR::1::", {oldListFile, newListFile},
                               {changedFile, expiredFile}) != 0
        || openOutput(changed, changedFile) != 0 || openOutput(expired, expiredFile) != 0)
        return -1;
    MigrationDiff diff(changed.get(), expired.get(), oldSide, newSide, counts);
    ProgressLine progress = mergeProgress("clustermigdiff", oldList, newList, progressWanted);
    diff.showProgress(&progress);
    return diff.run(maxExpirePercent);
}

} // namespace

int clusterMigDiff(const char* oldListFile, const char* newListFile, const char* changedFile,
                   const char* expiredFile)
{
    // The run's whole environment, read once at its start.
    const char* maxExpirePercentText = std::getenv("QUENBY_MAX_EXPIRE_PERCENT");
    const bool progress = ProgressLine::wanted(std::getenv("QUENBY_PROGRESS"));
    Run run{oldListFile, newListFile, changedFile, expiredFile, {}, {}, {}, {}, {}};
    int result = run.execute(maxExpirePercentSetting("CLUSTERMIGDIFF", maxExpirePercentText), progress);
    result = run.close(result);
    return printMergeResult("CLUSTERMIGDIFF", result, run.counts);
}
