#include "update/record_merge.h"

#include "records/record_edit.h"
#include "support/debug_level.h"
#include "support/file_open.h"

#include <cstdlib>
#include <cstring>

int RecordMerge::run(int maxExpirePercent)
{
    int rc = merge();
    if (rc != 0 || maxExpirePercent < 0)
        return rc;
    if (static_cast<long long>(counts_.expired) * 100 > static_cast<long long>(maxExpirePercent) * old_.records) {
        std::fprintf(stderr,
                     "quenby::%sERR::1::%d of the %d old records would be expired, more than "
                     "QUENBY_MAX_EXPIRE_PERCENT=%d%%\n",
                     word_, counts_.expired, old_.records, maxExpirePercent);
        return -1;
    }
    return 0;
}

int RecordMerge::merge()
{
    // Each list is read and parsed on a core of its own while this one
    // merges and writes; without a thread the reading stays here.
    old_.reader.readAhead();
    if (withNewList_)
        new_.reader.readAhead();
    if (int rc = readOld(true))
        return rc;
    if (withNewList_) {
        if (int rc = readNew(false))
            return rc;
    } else {
        new_.atEnd = true;
    }
    for (;;) {
        if (old_.atEnd)
            return noMoreOld();
        if (new_.atEnd)
            return noMoreNew();
        if (quenby_debug > 4)
            std::fprintf(stderr, "quenby:%s(old %x new %x) comparing \n %s %s", name_, old_.flag, new_.flag,
                         old_.rec.line, new_.rec.line);
        Keep keep = keepNeither;
        if (int rc = decide(keep))
            return rc;
        if (keep != keepOld)
            if (int rc = readOld(true))
                return rc;
        if (keep != keepNew)
            if (int rc = readNew(false))
                return rc;
    }
}

int RecordMerge::readRecord(MergeSide& side, bool readingRules, bool noMoreOldStage)
{
    Record& rec = side.rec;
    for (;;) {
        int rc = side.reader.next(rec);
        side.atEnd = side.reader.atEnd();
        if (rc < 0 || side.atEnd)
            return rc < 0 ? rc : 0;
        if (side.records++ > 0 && rec.ino < side.lastIno) {
            std::fprintf(stderr,
                         "quenby::%sERR::1::%s line %zu: inode number %llx follows %llx: the list is not sorted "
                         "by inode number\n",
                         word_, side.fileName, static_cast<size_t>(rec.lineNumber), static_cast<unsigned long long>(rec.ino),
                         static_cast<unsigned long long>(side.lastIno));
            return -1;
        }
        side.lastIno = rec.ino;
        if (progress_ != nullptr)
            progress_->tick(static_cast<uint64_t>(old_.records + new_.records),
                            old_.reader.source().bytesRead() + new_.reader.source().bytesRead());
        if (readingRules && rc == PDR_UNSUPPORTED && setAsideUnsupported(rec, noMoreOldStage))
            continue;
        if (readingRules && rc == PDR_INTERNAL) {
            if (quenby_debug > 4)
                std::fprintf(stderr, "quenby:%s skipping internal path [%.*s]\n", name_,
                             static_cast<int>(rec.path.size()), rec.path.data());
            continue;
        }
        return 0;
    }
}

int RecordMerge::setState(Record& rec, int state, int place)
{
    int rc = changePDRState(rec.line, state);
    if (rc != 0) {
        std::fprintf(stderr, "quenby::%sERR::1::Corrupt PDR detected (%d) at %d\n", word_, rc, place);
        return place;
    }
    return 0;
}

int RecordMerge::listNew(FILE* out, int state, offset_t offset, const char* label)
{
    int rc = updatePDRForBackup(new_.rec, out, state, offset);
    if (rc != 0) {
        std::fprintf(stderr, "quenby::%sERR::1::%s failed (%d)\n", word_, label, rc);
        return rc;
    }
    ++counts_.changed;
    return 0;
}

int RecordMerge::listExpired(FILE* out, offset_t offset, const char* label)
{
    int rc = updatePDRForExpire(old_.rec, out, offset);
    if (rc != 0) {
        std::fprintf(stderr, "quenby::%sERR::1::%s failed (%d)\n", word_, label, rc);
        return rc;
    }
    ++counts_.expired;
    return 0;
}

bool RecordMerge::sameRecord() const
{
    const Record& o = old_.rec;
    const Record& n = new_.rec;
    return o.length == n.length && std::memcmp(o.line, n.line, o.length) == 0 && o.fileset == n.fileset
           && o.hsmState.data() != nullptr && n.hsmState.data() != nullptr && o.hsmState == n.hsmState;
}

int RecordMerge::showDiff() const
{
    const Record& o = old_.rec;
    const Record& n = new_.rec;
    const std::string_view oldHsm = o.hsmState.data() != nullptr ? o.hsmState : n.hsmState;
    return diffShowData(o.show, n.show, o.fileset, n.fileset, oldHsm, n.hsmState);
}

int closeRunFiles(int result, std::initializer_list<LineSource*> inputs, std::initializer_list<OutputFile*> outputs)
{
    for (LineSource* in : inputs)
        result -= in->close() != 0;
    for (OutputFile* out : outputs)
        result -= (result == 0 ? out->commit() : out->discard()) != 0;
    return result;
}

bool openList(LineSource& list, const char* path, const char* failFormat)
{
    if (int err = list.open(path)) {
        std::fprintf(stderr, failFormat, path != nullptr ? path : "(null)", err);
        return false;
    }
    return true;
}

int maxExpirePercentSetting(const char* word, const char* value)
{
    if (value == nullptr)
        return -1;
    char* end = nullptr;
    long percent = std::strtol(value, &end, 10);
    if (end == value || *end != '\0' || percent < 0 || percent > 100) {
        std::fprintf(stderr, "quenby::%sERR::1::QUENBY_MAX_EXPIRE_PERCENT=%s is not a number from 0 to 100\n",
                     word, value);
        return -2;
    }
    return static_cast<int>(percent);
}

int printMergeResult(const char* word, int result, const MergeCounts& counts)
{
    if (result == 0)
        std::printf("::%s::0::%d::%d::%d::\n", word, counts.changed, counts.expired, counts.unsupported);
    else
        std::printf("quenby::%sERR::%d::%d::%d::%d::\n", word, result, counts.changed, counts.expired,
                    counts.unsupported);
    std::fflush(stdout);
    return result;
}
