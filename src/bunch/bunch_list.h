// A bunch file split into the client's list files, each path registered
// with the offset of its record.
#pragma once

#include "records/policy_record.h"

class PathIndex;

// List bits of the result.
constexpr int BUNCH_LIST_EXPIRE = 1;
constexpr int BUNCH_LIST_BACKUP = 2;
constexpr int BUNCH_LIST_UPDATE = 4;

// Reads the bunch file `inList`, writes each path to the list of its
// disposition and registers it in `index`. With no change list (and no
// update list) the lines are of the old format and only expired. Returns
// the mask of the lists written (0 to 7) or a negative failure code;
// `firstOffset` and `lastOffset` receive the lowest and highest offset
// written. `quoted` puts each path in double quotes.
int parseBackupRecords(const char* inList, const char* outChange, const char* outExpire,
                       const char* outStateChange, const char* removePath, offset_t* firstOffset,
                       offset_t* lastOffset, PathIndex& index, bool quoted);

// Replaces the escapes of a bunch-line path in place: backslash-n becomes a
// line feed, two backslashes one backslash.
void unescapeBunchPath(char* path);
