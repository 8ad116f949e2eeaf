// A reported file's record rewritten where it stands in the shadow
// database, keeping the line's length so nothing else in the file moves.
#pragma once

#include "bunch/path_index.h"
#include "records/policy_record.h"
#include "records/record_reader.h"
#include "support/line_source.h"

#include <cstdint>
#include <cstdio>

// One execbunch run's rewriting of records: the buffers a record is read
// into, the read window and the count of lines written.
class RecordUpdater {
public:
    // `oldFormatExpiry`: the bunch expires old-format lines and no record
    // of the shadow database is touched.
    explicit RecordUpdater(bool oldFormatExpiry = false) : oldFormatExpiry_(oldFormatExpiry) {}
    RecordUpdater(const RecordUpdater&) = delete;
    RecordUpdater& operator=(const RecordUpdater&) = delete;

    bool oldFormatExpiry() const { return oldFormatExpiry_; }

    // Records what the client reported for the file whose record starts at
    // `offset`: 0x0 done, 0xd expired, 0xb failed. `mark` is its path's
    // update mark, null when it has none. 0 when updated or nothing was
    // needed, else the failing step's code.
    int update(FILE* shadow, offset_t offset, int newState, UpdateMark* mark);

    // Record lines written over themselves so far: a client run that wrote
    // any makes them durable before it reports.
    long long linesWritten() const { return linesWritten_; }

private:
    friend class RecordReadWindow;

    int readRecordAt(int fd, offset_t offset, Record& rec, bool& eof);
    bool writeLineAt(int fd, const Record& rec);
    int readSecondOfPair(int fd, int newState, Record& rec);
    int rewrite(int fd, int newState, Record& rec);

    bool oldFormatExpiry_;
    // A few pages read at a time: a dense bunch finds dozens of records in
    // one read, and a sparse one pays little more than for its own lines.
    // A record is edited in this window and written from it.
    LineSource shadowAt_{{.access = LineSource::Access::positioned, .blockSize = 8 * 1024}};
    RecordReader reader_{shadowAt_, {.classify = false}};
    bool windowed_ = false;
    long long linesWritten_ = 0;
};

// While one lives, the updater may keep the records it read in its window:
// a client reports its files in the order of the database, so the next
// record is mostly there already. Writes still go to the file at once.
// Only this process may change the records it reads meanwhile, as the
// bunch's byte-range lock ensures; outside, nothing read before is trusted.
class RecordReadWindow {
public:
    explicit RecordReadWindow(RecordUpdater& updater);
    ~RecordReadWindow();
    RecordReadWindow(const RecordReadWindow&) = delete;
    RecordReadWindow& operator=(const RecordReadWindow&) = delete;

private:
    RecordUpdater& updater_;
};
