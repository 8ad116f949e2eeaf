// Line input for the sequential readers: fgets, but the length of what was
// stored comes back with it, so that no reader measures every line again.
#pragma once

#include <cstddef>
#include <cstdio>

// Stores at most size - 1 bytes of the next line of `in` (up to and with its
// line feed) and a NUL, as fgets does. Returns the bytes stored, or -1 where
// fgets returns null: nothing left to read, or a read error.
long fgetsLength(char* buf, int size, FILE* in);

// The next line as the sequential readers take it: false where fgets
// returns null or the read ran into the end of the input (a last line
// without its line feed counts as the end); else *len is the length strlen
// gives.
bool readLineText(char* buf, int size, FILE* in, size_t* len);

// The length a string function sees in `n` stored bytes: up to the first NUL.
inline size_t textLength(const char* buf, size_t n)
{
    const void* nul = __builtin_memchr(buf, '\0', n);
    return nul != nullptr ? static_cast<size_t>(static_cast<const char*>(nul) - buf) : n;
}
