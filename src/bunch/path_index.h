// The path store, the path index and its hash: every path of a bunch with
// the offset of its record in the shadow database, found again by name when
// the backup client reports the path. One execbunch run owns one of each.
#pragma once

#include "records/policy_record.h"

#include <cstdint>

// The bunch's paths, packed into blocks that are never moved or freed
// before the store goes: the index points into them.
class PathStore {
public:
    static constexpr uint64_t kBlockSize = 0x100000;

    struct Block {
        char* bytes;
        uint64_t size;
        char* free;
        uint64_t freeLen;
        Block* next;
    };

    PathStore() = default;
    ~PathStore();
    PathStore(const PathStore&) = delete;
    PathStore& operator=(const PathStore&) = delete;

    // A stored copy of `path` (a trailing line feed is cut off, also in the
    // caller's text); null when no block could be allocated.
    char* store(char* path);
    const Block* firstBlock() const { return first_; }

private:
    // A new zero-filled block linked at the end of the list; null on failure.
    Block* addBlock(uint64_t size);

    Block* first_ = nullptr;
    Block* last_ = nullptr;
};

// Multiply-and-fold hash over 64-bit groups of the key.
class PathHash {
public:
    uint32_t operator()(const void* key, uint32_t len) const;
};

// What this run already did to a record, kept with its path.
using UpdateMark = uint8_t;
constexpr UpdateMark MARK_NONE = 0;
constexpr UpdateMark MARK_NORMAL = 1;
constexpr UpdateMark MARK_DELETE = 2;
constexpr UpdateMark MARK_BACKUP = 4;

// A fixed number of slots numbered as open addressing with linear probing
// numbers them (the first free slot at or after the hash's home), allocated
// at the first insertion. Slots are never emptied. A path is found again
// through a separate, roomier table whose entries hold a tag of the hash,
// the offset and the mark, so that a lookup mostly reads one entry and the
// path it points to.
class PathIndex {
public:
    // `capacity` 0: an unconfigured index, which takes and finds nothing.
    explicit PathIndex(uint32_t capacity) : capacity_(capacity) {}
    ~PathIndex();
    PathIndex(const PathIndex&) = delete;
    PathIndex& operator=(const PathIndex&) = delete;

    // Stores the path and indexes it: 0, or -1 with a message. Without
    // debugging the indexing waits for a small batch, whose hashes and
    // entries are fetched together; every failure shows here all the same.
    int insert(char* path, offset_t offset);
    // Indexes a path that stays valid as long as the index: the slot number
    // that received it, or -1 when the table cannot be allocated or is full.
    int add(char* storedPath, offset_t offset);
    // The offset registered for the path, 0 when it is not there; the slot
    // number goes through `slotOut` when given, its update mark through
    // `markOut` (null when the path is not there).
    offset_t find(const char* path, uint32_t* slotOut, UpdateMark** markOut = nullptr);

    uint32_t capacity() const { return capacity_; }
    // Paths indexed.
    uint32_t size() const { return slotsUsed_; }
    PathStore& store() { return store_; }

private:
    // Everything a lookup needs in one place: most cost one cache miss.
    struct Entry {
        offset_t offset; // 0: empty
        const char* path;
        uint32_t slot;
        uint16_t tag; // of the hash, compared before the paths are
        UpdateMark mark;
    };
    struct Pending {
        const char* path;
        offset_t offset;
        uint32_t hash;
    };
    static constexpr int kBatch = 16;

    bool allocate();
    bool queue(const char* storedPath, offset_t offset);
    uint64_t nextFree(int level, uint64_t from) const;
    uint32_t takeSlot(uint32_t home);
    uint32_t place(const char* path, uint32_t hash, offset_t offset);
    void flushPending();

    PathStore store_;
    PathHash hash_;
    uint32_t capacity_;
    uint32_t slotsUsed_ = 0; // pending ones included
    // Entries by hash, linear probing in a table half again as large as
    // the capacity: a run is short even when every slot is taken, and equal
    // paths are met in the order they came.
    Entry* entries_ = nullptr;
    uint64_t entryCount_ = 0;
    // Taken slots, one bit each, in three levels: a bit above is set when
    // its word below is full, so the first free slot after any slot is a
    // few words away however long the run of taken ones.
    uint64_t* taken_[3] = {};
    uint64_t takenWords_[3] = {};
    Pending pending_[kBatch];
    int pendingCount_ = 0;
};
