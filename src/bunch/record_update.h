// A reported file's record rewritten where it stands in the shadow
// database, keeping the line's length so nothing else in the file moves.
#pragma once

#include "records/policy_record.h"

#include <cstdint>
#include <cstdio>

// Process-wide record buffers of the updater, allocated by the bunch
// driver before the first client run and freed at its end.
extern char* ulineP;
extern char* upathP;
extern char* uattrP;
extern int ulineSize;
extern int upathSize;
extern int uattrSize;

// Allocates the three buffers (8192, 4096, 255 bytes); false on failure.
bool allocUpdateBuffers();
void freeUpdateBuffers();

// While one lives, the records of `shadow` are read through a window of
// the file that one positioned read fills: a client reports its files in
// the order of the database, so the next record is mostly in the window
// already. Writes still go to the file at once, and into the window. Only
// this process may change the records it reads meanwhile, as the bunch's
// byte-range lock ensures.
class RecordReadWindow {
public:
    explicit RecordReadWindow(FILE* shadow);
    ~RecordReadWindow();
    RecordReadWindow(const RecordReadWindow&) = delete;
    RecordReadWindow& operator=(const RecordReadWindow&) = delete;
};

// Record lines written over themselves by this process so far: a client
// run that wrote any makes them durable before it reports.
long long shadowLinesWritten();

// Records what the client reported for the file whose record starts at
// `offset`: 0x0 done, 0xd expired, 0xb failed. `slot` is its path index
// slot. 0 when updated or nothing was needed, else the failing step's code.
int updateShadowPDR(FILE* shadow, offset_t offset, int newState, uint32_t slot);
