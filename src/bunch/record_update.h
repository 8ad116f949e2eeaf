// A reported file's record rewritten where it stands in the shadow
// database, keeping the line's length so nothing else in the file moves.
#pragma once

#include "bunch/path_index.h"
#include "records/policy_record.h"
#include "records/record_reader.h"
#include "support/line_source.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

// The bunch's slice of the shadow database mapped shared, read and written
// in place: a store is in the page cache at once, as a pwrite's bytes are.
// The slice runs from the page of its first record to a little past its
// last, and grows when a line reaches further (to the end of the file when
// the slice is not known). Pages far behind the records asked for are let
// go of, so that few stay resident however long the slice; what was stored
// in them stays in the page cache and goes to the file with the next flush.
class ShadowMapping {
public:
    // The slice: the offsets of its first and last record, 0 and 0 when unknown.
    ShadowMapping(size_t residentBytes, offset_t first, offset_t last);
    ~ShadowMapping() { close(); }
    ShadowMapping(const ShadowMapping&) = delete;
    ShadowMapping& operator=(const ShadowMapping&) = delete;

    // The line of `fd` at `offset`, line feed included, in the mapping:
    // 1; 0 when no whole line starts there; -1 when the file could not be
    // mapped (errno).
    int lineAt(int fd, offset_t offset, char*& line, size_t& span);
    // Stores the bytes of `text` that differ from the `n` at `offset`,
    // which lie in the line last handed out.
    void store(offset_t offset, const char* text, size_t n);
    // msync of the range stored into since the last flush: 0, or -1
    // (errno) when it, or one made when the mapping was remade or closed
    // since, failed.
    int flush();
    // Syncs what was stored and unmaps: 0, or -1 (errno) after the first failure.
    int close();

private:
    int map(int fd, offset_t offset);
    void release(size_t at);
    int syncStored();

    const size_t residentBytes_;
    const size_t pageBytes_;
    const offset_t first_;
    const offset_t last_;
    size_t tailBytes_ = 64 * 1024; // mapped past the last record
    bool toEnd_ = false; // the mapping reaches the end of the file
    int fd_ = -1;
    char* base_ = nullptr;
    size_t length_ = 0;
    offset_t start_ = 0; // the file offset of base_
    size_t releasedTo_ = 0; // the pages before it were let go of
    size_t dirtyFrom_ = SIZE_MAX; // stored bytes, relative to base_
    size_t dirtyTo_ = 0;
    int pendingFailure_ = 0; // errno of an msync made when the mapping was remade or closed
};

// How an updater reaches the file: through the shared mapping, or with
// pread and pwrite (for file systems whose mappings are not coherent
// across nodes). A mapping that cannot be made falls back to pwrite.
struct WriteOptions {
    bool positioned = false;
    size_t residentBytes = 8u << 20;
    offset_t sliceFirst = 0; // the bunch's first and last record, 0 and 0 when unknown
    offset_t sliceLast = 0;
};

// One execbunch run's rewriting of records: the buffers a record is read
// into, the read window or mapping and the count of lines written.
class RecordUpdater {
public:
    // `oldFormatExpiry`: the bunch expires old-format lines and no record
    // of the shadow database is touched.
    explicit RecordUpdater(bool oldFormatExpiry = false, WriteOptions write = {});
    ~RecordUpdater();
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
    // Makes every line written so far durable in `fd`'s file: 0, or -1 (errno).
    int makeDurable(int fd);
    // Hands what was stored in the mapping to the file system (before the
    // bunch's lock goes, so that other nodes read it): 0, or -1 (errno).
    int flushMapped() { return mapped_.flush(); }

private:
    friend class RecordReadWindow;

    static constexpr int kNoLine = -3; // no whole line in the mapping

    int readRecordAt(int fd, offset_t offset, Record& rec, bool& eof);
    int mappedRecordAt(int fd, offset_t offset, Record& rec);
    bool writeLineAt(int fd, const Record& rec);
    int readSecondOfPair(int fd, int newState, Record& rec);
    int rewrite(int fd, int newState, Record& rec);

    bool oldFormatExpiry_;
    bool positioned_;
    bool positionedWrites_ = false; // since the last makeDurable()
    // A few pages read at a time: a dense bunch finds dozens of records in
    // one read, and a sparse one pays little more than for its own lines.
    // A record is edited in this window and written from it.
    LineSource shadowAt_{{.access = LineSource::Access::positioned, .blockSize = 8 * 1024}};
    RecordReader reader_{shadowAt_, {.classify = false}};
    bool windowed_ = false;
    // A mapped record is parsed and edited in a copy of its line, and only
    // the bytes that changed are stored back.
    ShadowMapping mapped_;
    char* lineCopy_ = nullptr;
    size_t lineCopySize_ = 0;
    size_t lineBufferSize_ = PDR_LINE_BUF_SIZE; // as the reader counts it
    long long linesWritten_ = 0;
};

// While one lives, the updater may keep the records it read in its window,
// and its mapping: a client reports its files in the order of the
// database, so the next record is mostly there already. Writes still go to
// the file (or its page cache) at once. Only this process may change the
// records it reads meanwhile, as the bunch's byte-range lock ensures;
// outside, nothing read before is trusted.
class RecordReadWindow {
public:
    explicit RecordReadWindow(RecordUpdater& updater);
    ~RecordReadWindow();
    RecordReadWindow(const RecordReadWindow&) = delete;
    RecordReadWindow& operator=(const RecordReadWindow&) = delete;

private:
    RecordUpdater& updater_;
};
