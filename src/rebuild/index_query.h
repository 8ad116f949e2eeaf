// The two path-ordered line formats walked by the rebuild and the query
// verification: the sorted index of a PDR list and the server query file.
#pragma once

#include "support/file_stream.h"
#include "support/line_source.h"

#include <cstdint>
#include <cstdio>
#include <string_view>

// One file object the backup server holds.
struct queryRecord {
    int attrFlag;       // 0: the server's change time does not count
    char mtimeDate[12];
    char mtimeTime[12];
    char ctimeDate[12];
    char ctimeTime[12];
    int64_t fileSize;   // negative: unknown
    int pathLen;
    // In the source's buffer until its next read; the rest of the line
    // follows it, no NUL.
    std::string_view path;
};

// One line of a sorted index.
struct IndexLine {
    long long offset = 0;
    // In the source's buffer, NUL after it, until the source's next read.
    std::string_view path;
};

// The next index line that is not "." or ".kestrel...".
// 0 (with *eof 1 at the end), -1 a bad line or a read error.
int readIndexFile(LineSource& source, IndexLine* line, unsigned int* eof);

// The room a query path buffer of old had: it started at 4096 bytes and
// grew for a longer path, and a path longer than 4096 bytes was refused
// only when the buffer had to grow for it.
struct QueryPathRoom {
    int size = 4096;
};

// The next query line: its fields and path into *rec, the line itself
// (valid until the next read) into *lineOut when given. 0 (with *eof 1 at
// the end), -1 a bad line or a read error, 12 no memory, 22 a path longer
// than 4096 bytes.
int readQueryRecord(LineSource& source, QueryPathRoom& room, queryRecord* rec, unsigned int* eof,
                    const char** lineOut = nullptr);

// The query file's order, checked as it is read: a walk that merges it by
// path would otherwise go wrong without a word on a line out of order.
class QueryOrder {
public:
    // Counts the next line. 0 when its path does not sort below the one
    // before; otherwise prints `prefix` + "<file> line <n>: the query file
    // is not sorted by path" (or that memory ran out) and returns -1.
    int next(std::string_view path, const char* prefix, const char* file);

private:
    HeapBuf last_;
    size_t lastLength_ = 0;
    long line_ = 0;
};
