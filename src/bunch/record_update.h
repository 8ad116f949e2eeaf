// A reported file's record rewritten where it stands in the shadow
// database, keeping the line's length so nothing else in the file moves.
#pragma once

#include "records/policy_record.h"

#include <cstdint>
#include <cstdio>

// One execbunch run's rewriting of records: the buffers a record is read
// into, the read window and the count of lines written.
class RecordUpdater {
public:
    // `oldFormatExpiry`: the bunch expires old-format lines and no record
    // of the shadow database is touched.
    explicit RecordUpdater(bool oldFormatExpiry = false) : oldFormatExpiry_(oldFormatExpiry) {}
    ~RecordUpdater();
    RecordUpdater(const RecordUpdater&) = delete;
    RecordUpdater& operator=(const RecordUpdater&) = delete;

    // Allocates the record buffers (8192, 4096, 255 bytes); false on failure.
    bool allocate();
    bool oldFormatExpiry() const { return oldFormatExpiry_; }

    // Records what the client reported for the file whose record starts at
    // `offset`: 0x0 done, 0xd expired, 0xb failed. `mark` is its path's
    // update mark, null when it has none. 0 when updated or nothing was
    // needed, else the failing step's code.
    int update(FILE* shadow, offset_t offset, int newState, uint32_t* mark);

    // Record lines written over themselves so far: a client run that wrote
    // any makes them durable before it reports.
    long long linesWritten() const { return linesWritten_; }

private:
    friend class RecordReadWindow;
    struct Record;
    struct Window {
        int fd = -1;
        char* bytes = nullptr;
        offset_t start = 0;
        size_t len = 0;
    };

    int lineFromWindow(int fd, offset_t offset, Record& rec);
    void writeIntoWindow(int fd, const Record& rec);
    int readRecordAt(int fd, offset_t offset, Record& rec, bool& eof);
    bool writeLineAt(int fd, const Record& rec);
    int readSecondOfPair(int fd, int newState, Record& rec);
    int rewrite(int fd, int newState, Record& rec);

    bool oldFormatExpiry_;
    char* line_ = nullptr;
    char* path_ = nullptr;
    char* show_ = nullptr;
    int lineSize_ = 0;
    int pathSize_ = 0;
    int showSize_ = 0;
    Window window_;
    long long linesWritten_ = 0;
};

// While one lives, the updater reads the records of `shadow` through a
// window of the file that one positioned read fills: a client reports its
// files in the order of the database, so the next record is mostly in the
// window already. Writes still go to the file at once, and into the
// window. Only this process may change the records it reads meanwhile, as
// the bunch's byte-range lock ensures.
class RecordReadWindow {
public:
    RecordReadWindow(RecordUpdater& updater, FILE* shadow);
    ~RecordReadWindow();
    RecordReadWindow(const RecordReadWindow&) = delete;
    RecordReadWindow& operator=(const RecordReadWindow&) = delete;

private:
    RecordUpdater& updater_;
};
