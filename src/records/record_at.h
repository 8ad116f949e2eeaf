// A record line fetched from a known byte offset with positioned reads:
// random access into a large list without a stdio buffer that every seek
// would throw away.
#pragma once

#include "records/policy_record.h"

#include <cstddef>

// Reads the line at `offset` of descriptor `fd` into the growable buffer
// (*buf, *size), passing over header lines as the record reader does.
// 1 read (*len its length, *lineStart where it begins); 0 no whole line
// before the end of the file; -1 a read or memory failure (errno tells).
int readRecordLineAt(int fd, offset_t offset, char** buf, int* size, size_t* len, offset_t* lineStart);
