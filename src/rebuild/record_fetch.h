// The records of a list fetched by the offsets of its index. The index is
// sorted by path, so the offsets come in random order: out of a read-only
// mapping of the list a fetch costs no system call, where a read per record
// cost more than the rest of the walk.
#pragma once

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
    // As RecordReader::recordAt.
    int recordAt(offset_t offset, Record& rec, bool& eof);
    // Starts loading the line at `offset` into the cache.
    void prefetch(offset_t offset) const
    {
        if (map_ == nullptr || offset < 0)
            return;
        // A record line spans three or four cache lines.
        for (size_t at = static_cast<size_t>(offset), end = at + 256; at < end && at < size_; at += 64)
            __builtin_prefetch(map_ + at);
    }
    // Unmaps the list; munmap's result.
    int close();

private:
    int take(offset_t offset, size_t span, Record& rec);

    RecordReader fallback_;
    ReaderOptions options_;
    const char* map_ = nullptr;
    size_t size_ = 0;
    // The fetched line, NUL-terminated, for the caller to edit.
    char* line_ = nullptr;
    size_t capacity_ = 0;
    size_t lineBufferSize_ = PDR_LINE_BUF_SIZE;
};

// The index read a few lines ahead of the walk, so that the records its
// lines point at are on their way into the cache when the walk fetches
// them: the miss costs more than the rest of a fetch.
class FetchAhead {
public:
    static constexpr uint64_t kDistance = 16;

    explicit FetchAhead(const RecordFetch& fetch) : fetch_(fetch) {}
    // Reads the index at `path` on a descriptor of its own; when it cannot
    // be opened nothing is prefetched.
    void open(const char* path) { open_ = path != nullptr && lines_.open(path) == 0; }
    // Reads on until kDistance lines ahead of `walk`, which reads the same
    // index, prefetching the record of each line.
    void follow(const LineSource& walk);

private:
    const RecordFetch& fetch_;
    LineSource lines_{{.blockSize = 256 * 1024}};
    bool open_ = false;
};
