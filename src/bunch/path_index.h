// The path store, the path index and its hash: every path of a bunch with
// the offset of its record in the shadow database, found again by name when
// the backup client reports the path.
#pragma once

#include "records/policy_record.h"

#include <cstdint>

// One block of the path store. Stored paths never move.
struct pathNameBuffer_t {
    char* bufP;
    uint64_t bufLen;
    char* freeP;
    uint64_t freeLen;
    pathNameBuffer_t* nextP;
};

constexpr uint64_t PNB_BLOCK_SIZE = 0x100000;

extern pathNameBuffer_t* pnbAnchorP;
extern pathNameBuffer_t* pnbLastBufP;

// A new zero-filled block linked at the end of the list; null on failure.
pathNameBuffer_t* pnb_allocBuf(uint64_t size);
// A stored copy of `path` (a trailing line feed is cut off, also in the
// caller's text); null when no block could be allocated.
char* pnb_storePath(char* path);

// Multiply-and-fold hash over 64-bit groups of the key.
class MUHash {
public:
    static constexpr int mixWords = 37;

    MUHash();
    ~MUHash();
    MUHash(const MUHash&) = delete;
    MUHash& operator=(const MUHash&) = delete;

    uint32_t universalHash(const void* key, uint32_t len);
    void set_mix(const void* seed, uint32_t len, bool raw);
    void re_mix(const void* seed, uint32_t len, bool raw);

    uint32_t bufWords = 0;
    uint32_t* scratchP = nullptr;
    uint32_t mix[mixWords];
};

extern const uint32_t c_mix[MUHash::mixWords];
extern MUHash gsimu;

// One slot of the path index; `index` 0 marks an empty slot. The path's
// full hash is kept so that a probe compares paths only when it matches.
struct gsiSlot_t {
    offset_t index;
    char* pathP;
    uint32_t updateMark;
    uint32_t hash;
};

// What this run already did to a record.
constexpr uint32_t GSI_MARK_NONE = 0;
constexpr uint32_t GSI_MARK_NORMAL = 1;
constexpr uint32_t GSI_MARK_DELETE = 2;
constexpr uint32_t GSI_MARK_BACKUP = 4;

extern gsiSlot_t* gsiHashP;
extern uint32_t gsiCount;

// The slot number that received the path, or -1 when the table cannot be
// allocated or is full.
int gsi_addIndex(char* pathP, offset_t index);
// Stores the path and indexes it: 0, or -1 with a message.
int gsi_insert(char* path, offset_t index);
// The offset registered for the path, 0 when it is not there; the slot
// number goes through `slotOut` when given.
offset_t gsi_findIndex(const char* pathP, uint32_t* slotOut);

// Frees the path store and the index and unconfigures the index. The
// program keeps both to the end of the process; tests start afresh with it.
void pathIndexReset();
