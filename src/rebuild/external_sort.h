// A PDR list indexed by path name and sorted with the system sort command,
// and the record head the rebuild uses for records only the server knows.
#pragma once

#include <cstdio>

// The command part of every sort command line; switched once, for good, to
// /usr/bin/sort on a system that has /etc/debian_version.
extern const char* predefinedSortCommand;

// The longest sort command line.
constexpr int SORT_COMMAND_MAX = 8192;

// Sorts `inFile` into `outFile` with `sortOptions`, temporary files in
// `tempDir` ("/tmp" when null). `sortCommand` (KESTREL_SORT_OPTIONS), when
// set and shorter than 4096 bytes, replaces the command part. 0, the
// shell's raw status, or -1 for a command line that does not fit.
int sortFile(const char* inFile, const char* outFile, const char* tempDir, const char* sortOptions,
             const char* sortCommand);

// Creates `path` for writing without following a symbolic link there (not
// inherited by children; the caller's umask applies). `exclusive` refuses
// any file already there. 0 with the stream in *streamOut, or the portable
// error code of the open.
int createNoFollow(const char* path, bool exclusive, FILE** streamOut);

// Writes the index of `listFile` ("%016llx %s\n": offset and path of every
// record) sorted by path into `sortedFile`; stores the expire data made from
// the first record into *expireData (the caller frees it). 0, the sort's
// status, the reader's result, or a negative code. A `sortedFile` that is a
// symbolic link is refused (-1): the sort would write where it points.
// `sortCommand` as for sortFile.
int sortPDRListByPathname(const char* listFile, const char* sortedFile, char** expireData, const char* tempDir,
                          const char* sortCommand);
