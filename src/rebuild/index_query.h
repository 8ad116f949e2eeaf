// The two path-ordered line formats walked by the rebuild and the query
// verification: the sorted index of a PDR list and the server query file.
#pragma once

#include "support/file_stream.h"
#include "support/line_source.h"

#include <cstdint>
#include <cstdio>

// One file object the backup server holds.
struct queryRecord {
    int attrFlag;       // 0: the server's change time does not count
    char mtimeDate[12];
    char mtimeTime[12];
    char ctimeDate[12];
    char ctimeTime[12];
    int64_t fileSize;   // negative: unknown
    int pathLen;
};

// The next index line that is not "." or ".kestrel...": its offset and path.
// 0 (with *eof 1 at the end), -1 a bad line or a read error, 12 no memory.
int readIndexFile(LineSource& source, char** pathBuf, int* pathBufSize, long long* offset, unsigned int* eof);

// The next query line: its fields into *rec, its path into *pathBuf, the
// line itself (valid until the next read) into *lineOut when given.
// 0 (with *eof 1 at the end), -1 a bad line or a read error, 12 no
// memory, 22 a path longer than 4096 bytes.
int readQueryRecord(LineSource& source, char** pathBuf, int* pathBufSize, queryRecord* rec, unsigned int* eof,
                    const char** lineOut = nullptr);

// The query file's order, checked as it is read: a walk that merges it by
// path would otherwise go wrong without a word on a line out of order.
class QueryOrder {
public:
    // Counts the next line. 0 when its path does not sort below the one
    // before; otherwise prints `prefix` + "<file> line <n>: the query file
    // is not sorted by path" (or that memory ran out) and returns -1.
    int next(const char* path, const char* prefix, const char* file);

private:
    HeapBuf last_;
    long line_ = 0;
};
