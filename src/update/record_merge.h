// The merge of two record lists sorted by inode number, shared by the
// shadow update and the cluster migration diff: the loop, the reading of
// each side, and the actions its decisions are made of (state edits and
// work-list lines, each failure with its message and the code of its place).
#pragma once

#include "records/policy_record.h"
#include "records/record_reader.h"
#include "support/line_source.h"
#include "support/file_stream.h"
#include "support/output_file.h"
#include "support/progress.h"

#include <initializer_list>
#include <utility>

#include <cstdint>
#include <cstdio>

// One side of the merge: its reader over a list the run owns, the current
// record, and what the merge adds to it.
struct MergeSide {
    MergeSide(LineSource& source, ReaderOptions options = {}) : reader(source, options) {}

    RecordReader reader;
    Record rec;
    bool atEnd = false;     // the list is exhausted
    int flag = 0;           // the flag the decisions see
    int rememberedFlag = 0; // the flag as read
    const char* fileName = "";
    uint64_t lastIno = 0;   // of the record before, for the order check
    int records = 0;        // records read, every kind
};

struct MergeCounts {
    int changed = 0;
    int expired = 0;
    int unsupported = 0;
    int hsm = 0;
    bool unsupportedWritten = false;
};

// An old generation of all ones matches any new generation.
constexpr uint64_t MERGE_ANY_GENERATION = 0xffffffffffffffffULL;

class RecordMerge {
public:
    virtual ~RecordMerge() = default;

    // Reads the first old and the first new record, then applies one
    // decision at a time until a side runs out. 0, or the failure's result.
    // With `maxExpirePercent` 0 to 100, a run that would expire more than
    // that share of the old records fails at the end.
    int run(int maxExpirePercent = -1);

    // Ticks `progress` with the records and bytes read as the merge goes.
    void showProgress(ProgressLine* progress) { progress_ = progress; }

protected:
    int merge();

    enum Keep { keepNeither, keepOld, keepNew };

    // `name` prefixes the debug messages ("updateShadow", "clusterMigDiff"),
    // `word` the error messages ("UPDATESHADOW", "CLUSTERMIGDIFF").
    // Without `withNewList` the new side counts as exhausted from the start.
    RecordMerge(const char* name, const char* word, bool withNewList, MergeSide& oldSide, MergeSide& newSide,
                MergeCounts& counts)
        : name_(name), word_(word), withNewList_(withNewList), old_(oldSide), new_(newSide), counts_(counts)
    {
    }

    virtual int readOld(bool readingRules) = 0;
    virtual int readNew(bool noMoreOldStage) = 0;
    virtual int decide(Keep& keep) = 0;
    virtual int noMoreOld() = 0;
    virtual int noMoreNew() = 0;
    // Takes an unsupported record out of the merge; false leaves it in.
    virtual bool setAsideUnsupported(const Record&, bool /*noMoreOldStage*/) { return false; }

    // The next record of `side`'s list. With the reading rules,
    // internal records are skipped and unsupported ones set aside. A record
    // below the one before it ends the run: merging out of order would
    // expire files that exist.
    int readRecord(MergeSide& side, bool readingRules, bool noMoreOldStage);

    // Rewrites a record's flag; a refused edit is a corrupt record.
    int setState(Record& rec, int state, int place);
    // The new record's "updated "/"ctimech " line and the old record's
    // "expired " line; each counts what it wrote.
    int listNew(FILE* out, int state, offset_t offset, const char* label);
    int listExpired(FILE* out, offset_t offset, const char* label);

    // The same text, fileset and HSM state: nothing about the file changed.
    bool sameRecord() const;
    // diffShowData of the two records; an old record without an HSM state
    // takes the new one's.
    int showDiff() const;

    const char* name_;
    const char* word_;
    bool withNewList_;
    MergeSide& old_;
    MergeSide& new_;
    MergeCounts& counts_;
    ProgressLine* progress_ = nullptr;
};

// Closes the run's inputs, then puts each output in place when the run has
// succeeded so far, or drops it; each failing close lowers the result by
// one. The run's result.
int closeRunFiles(int result, std::initializer_list<LineSource*> inputs, std::initializer_list<OutputFile*> outputs);

// The run's progress line over the bytes of both lists; shown only when
// `wanted` (standard error a terminal, QUENBY_PROGRESS not 0).
inline ProgressLine mergeProgress(const char* label, const LineSource& oldList, const LineSource& newList, bool wanted)
{
    return ProgressLine(label, oldList.size() + newList.size(), wanted);
}

// Opens a list to read; false after `failFormat`'s message (the path and
// the error code).
bool openList(LineSource& list, const char* path, const char* failFormat);


// Judges QUENBY_MAX_EXPIRE_PERCENT's `value`: -1 when unset (null), 0 to
// 100 when set so; -2 after a message when it holds anything else.
int maxExpirePercentSetting(const char* word, const char* value);

// The run's one result line: "::<word>::0::c::e::u::" or
// "quenby::<word>ERR::<result>::c::e::u::". Returns the result.
int printMergeResult(const char* word, int result, const MergeCounts& counts);
