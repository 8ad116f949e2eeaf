// The one reader of record lines (shadow databases and scan lists): each
// record handed out as views into the line it was read from.
#pragma once

#include "records/policy_record.h"
#include "support/line_source.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

class ReadAhead;

// printf's two arguments for "%.*s" and a view.
#define VIEW_ARGS(view) static_cast<int>((view).size()), (view).data()

struct ReaderOptions {
    // Tell unsupported and internal paths apart (results PDR_UNSUPPORTED and
    // PDR_INTERNAL); without, every well-formed record gives 0.
    bool classify = true;
    // For the cluster-migration comparison: both lists are only compared,
    // so the unsupported-path test is left out.
    bool clusterMigration = false;
};

// One record. Every view points into `line`, which stays valid, NUL after
// it, until the reader's next call; only the reader's owner may change it
// (a state edit keeps its length).
struct Record {
    char* line = nullptr;
    size_t length = 0;     // up to the first NUL, line feed included
    offset_t offset = 0;   // where the line starts in its file
    uint64_t lineNumber = 0; // header lines counted
    uint64_t ino = 0;
    uint64_t gen = 0;
    int state = 0;         // the record flag
    bool escapedPath = false;
    std::string_view path; // as written, escapes kept
    std::string_view show; // SHOW fields 1 to 5
    std::string_view fileset;  // field 6
    std::string_view hsmState; // field 7 on; null (data() == nullptr) when there is none
};

// Parses the record line in rec.line (rec.length bytes, NUL after them)
// into the views. `lineBufferSize` is the size of the line buffer a reader
// of old would hold after this line, which decides between two messages.
// 0, PDR_UNSUPPORTED or PDR_INTERNAL; -1 after a message to `messages`
// (none when it is null).
int parseRecord(Record& rec, size_t lineBufferSize, const ReaderOptions& options, FILE* messages);

// The line buffer of old after a line of `span` bytes: it doubled until the
// line fitted, and never shrank.
inline size_t lineBufferAfter(size_t lineBufferSize, size_t span)
{
    while (span + 1 > lineBufferSize)
        lineBufferSize *= 2;
    return lineBufferSize;
}

class RecordReader {
public:
    explicit RecordReader(LineSource& source, ReaderOptions options = {});
    ~RecordReader();
    RecordReader(const RecordReader&) = delete;
    RecordReader& operator=(const RecordReader&) = delete;

    // From here on the source is read and parsed a block ahead on a thread
    // of its own, until stopReadAhead() or the end of the reader; nothing
    // else may use the source meanwhile. False when no thread could be
    // started: the reading goes on here.
    bool readAhead();
    void stopReadAhead();

    // The next record, header lines passed over: 0, PDR_UNSUPPORTED or
    // PDR_INTERNAL with `rec` filled; 0 with atEnd() at the end of the
    // input (a last line without its line feed included); -1 after a message.
    int next(Record& rec);
    bool atEnd() const { return atEnd_; }

    // The record whose line starts at `offset`, header lines there passed
    // over (positioned sources): as next(); 0 with `eof` when no whole line
    // is left; kReadFailed, without a message, when a read failed (errno).
    static constexpr int kReadFailed = -2;
    int recordAt(offset_t offset, Record& rec, bool& eof);

    LineSource& source() { return source_; }

private:
    int take(const LineView& line, Record& rec);

    LineSource& source_;
    ReaderOptions options_;
    size_t lineBufferSize_ = PDR_LINE_BUF_SIZE;
    bool atEnd_ = false;
    std::unique_ptr<ReadAhead> ahead_;
};
