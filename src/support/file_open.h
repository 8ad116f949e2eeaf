// Opening files so that child processes inherit none of them, and the
// portable error numbering that messages print after "error=" or "err=".
#pragma once

#include <cstdio>

// Maps a Linux errno value to the portable error code.
int errnoToPortable(int e);
// The current errno in the portable numbering; 0 when errno is 0.
int portableErrno();
// As portableErrno, but never 0: -1 when errno is 0 or maps to 0.
int portableErrnoNonZero();

// Prints "<prefix>: <system error text>" for errno to standard error.
void systemError(const char* prefix);

// Opens `path` with stdio `mode`, closed on exec so that no child inherits
// it. Returns 0 and the stream in *streamOut, or
// a portable error code with *streamOut null.
int openFile(const char* path, const char* mode, FILE** streamOut);
