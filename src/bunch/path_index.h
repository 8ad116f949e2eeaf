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
    PathHash() = default;
    ~PathHash();
    PathHash(const PathHash&) = delete;
    PathHash& operator=(const PathHash&) = delete;

    uint32_t operator()(const void* key, uint32_t len);

private:
    uint32_t scratchWords_ = 0;
    uint32_t* scratch_ = nullptr;
};

// What this run already did to a record, kept in its path's slot.
constexpr uint32_t MARK_NONE = 0;
constexpr uint32_t MARK_NORMAL = 1;
constexpr uint32_t MARK_DELETE = 2;
constexpr uint32_t MARK_BACKUP = 4;

// A fixed number of slots, open addressing with linear probing, allocated
// at the first insertion. Slots are never emptied.
class PathIndex {
public:
    // `capacity` 0: an unconfigured index, which takes and finds nothing.
    explicit PathIndex(uint32_t capacity) : capacity_(capacity) {}
    ~PathIndex();
    PathIndex(const PathIndex&) = delete;
    PathIndex& operator=(const PathIndex&) = delete;

    // Stores the path and indexes it: 0, or -1 with a message.
    int insert(char* path, offset_t offset);
    // Indexes a path that stays valid as long as the index: the slot number
    // that received it, or -1 when the table cannot be allocated or is full.
    int add(char* storedPath, offset_t offset);
    // The offset registered for the path, 0 when it is not there; the slot
    // number goes through `slotOut` when given.
    offset_t find(const char* path, uint32_t* slotOut);
    // The update mark of a slot, null when the index has no such slot.
    uint32_t* markOf(uint32_t slot);

    uint32_t capacity() const { return capacity_; }
    PathStore& store() { return store_; }

private:
    struct Slot {
        offset_t offset; // 0: empty
        char* path;
        uint32_t updateMark;
        uint32_t hash; // compared before the paths are
    };

    bool allocateSlots();
    uint32_t firstFreeFrom(uint32_t h);
    void link(uint32_t slot, uint32_t hash);

    PathStore store_;
    PathHash hash_;
    uint32_t capacity_;
    Slot* slots_ = nullptr;
    // Beside the slots, two structures give every answer of linear probing
    // without walking its runs, which grow long in a nearly full table:
    // - freeNext_: a disjoint-set forest whose roots are the free slots; the
    //   root reached from a slot is the first free slot at or after it,
    //   cyclically, which is where linear probing inserts;
    // - hash buckets chaining the occupied slots by their path's hash, in
    //   insertion order, so that the first slot of a chain that holds the
    //   path is the one linear probing meets first.
    uint32_t* freeNext_ = nullptr;
    uint32_t* chainNext_ = nullptr;
    uint32_t* bucketHead_ = nullptr;
    uint32_t* bucketTail_ = nullptr;
    uint32_t bucketMask_ = 0;
    uint32_t slotsUsed_ = 0;
};
