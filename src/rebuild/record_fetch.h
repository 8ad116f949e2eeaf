// The records of a list fetched by the offsets of its index. The index is
// sorted by path, so the offsets come in random order: out of a read-only
// mapping of the list a fetch costs no system call, where a read per record
// cost more than the rest of the walk, and copied ahead by a second thread
// it costs the walk no miss in memory either.
#pragma once

#include "rebuild/record_copier.h"
#include "records/record_reader.h"
#include "support/line_source.h"

#include <cstddef>
#include <cstdint>

class RecordFetch {
public:
    // `source` is the list, opened for positioned access; it stays the
    // caller's, and is read directly when the list cannot be mapped.
    RecordFetch(LineSource& source, ReaderOptions options) : fallback_(source, options), options_(options) {}
    ~RecordFetch();
    RecordFetch(const RecordFetch&) = delete;
    RecordFetch& operator=(const RecordFetch&) = delete;

    // Maps the source's file when it is a regular file; otherwise, or when
    // the mapping fails, every fetch reads the source.
    void map();
    // Copies, on a thread of its own, the record of every line of the
    // index at `indexPath`, in its order (a mapped list only).
    void follow(const char* indexPath);
    // As RecordReader::recordAt.
    int recordAt(offset_t offset, Record& rec, bool& eof);
    // The same for the record that line `lineNumber` of the followed index
    // points at, at `offset`.
    int recordOf(uint64_t lineNumber, offset_t offset, Record& rec, bool& eof);
    // Ends the copying and unmaps the list; munmap's result.
    int close();

private:
    int take(char* line, offset_t offset, size_t span, Record& rec);

    RecordReader fallback_;
    ReaderOptions options_;
    const char* map_ = nullptr;
    size_t size_ = 0;
    // The fetched line, NUL-terminated, for the caller to edit.
    char* line_ = nullptr;
    size_t capacity_ = 0;
    size_t lineBufferSize_ = PDR_LINE_BUF_SIZE;
    RecordCopier copier_;
};
