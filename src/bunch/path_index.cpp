#include "bunch/path_index.h"

#include "support/consistency.h"
#include "support/debug_level.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kMixWords = 37;
const uint32_t kMix[kMixWords] = {
    0x45742a3c, 0x2f30d043, 0x6b955a42, 0x39b2fb71, 0xb0c67456, 0x85f8abfb, 0xdcc3c977, 0xd1f7da2f,
    0x261f0717, 0xaa684520, 0x54ca45f8, 0x1d03a567, 0x7a10af40, 0xe2e2eca6, 0x2b2676a1, 0xd485ce18,
    0xf85a5ba1, 0x1fa4e2fd, 0x663e551a, 0x3b317919, 0xbd081d80, 0x5bd024a9, 0x3712189e, 0x991254bf,
    0x5ff181f8, 0xdaabbcf6, 0x26abcf5e, 0x504929b7, 0x26376d2c, 0xd880d639, 0xa8d6aa7f, 0x156899f9,
    0x7417f8ce, 0x598f11f7, 0x63471e97, 0x2387d11c, 0xde8d9ca3,
};

constexpr uint32_t kNoSlot = UINT32_MAX;
constexpr uint64_t kNone = UINT64_MAX;
constexpr uint64_t kFull = ~0ull;

uint32_t bigEndianWord(const unsigned char* b)
{
    return static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 | static_cast<uint32_t>(b[2]) << 8
           | b[3];
}

} // namespace

uint32_t PathHash::operator()(const void* key, uint32_t len) const
{
    // Groups of eight bytes, the last one padded with zeros; an empty key
    // is one group of zeros.
    const auto* bytes = static_cast<const unsigned char*>(key);
    const uint32_t groups = len == 0 ? 1 : (len + 7) >> 3;
    uint32_t h = 0;
    uint32_t i = 0;
    uint32_t j = 1;
    for (uint32_t g = 0; g < groups; ++g) {
        const uint32_t at = g * 8;
        const unsigned char* group = bytes + at;
        unsigned char tail[8] = {};
        if (len - at < 8) {
            if (len > at)
                std::memcpy(tail, group, len - at);
            group = tail;
        }
        uint32_t a = bigEndianWord(group);
        uint32_t b = bigEndianWord(group + 4);
        uint64_t p = static_cast<uint64_t>(a - kMix[i]) * static_cast<uint64_t>(b - kMix[j]);
        h ^= static_cast<uint32_t>((p >> 31) + p);
        i += 2;
        j += 2;
        if (i > 36) {
            i -= 37;
            if (i == 0)
                ++j;
        }
        if (j >= 37)
            j -= 37;
    }
    return h;
}

PathStore::~PathStore()
{
    for (Block* block = first_; block != nullptr;) {
        Block* next = block->next;
        std::free(block->bytes);
        std::free(block);
        block = next;
    }
}

PathStore::Block* PathStore::addBlock(uint64_t size)
{
    if (quenby_debug > 1)
        std::fprintf(stderr, "quenby: pnb_allocBuf(%lld)\n", static_cast<long long>(size));
    auto* block = static_cast<Block*>(std::calloc(1, sizeof(Block)));
    if (block == nullptr) {
        std::fputs("quenby: pnb_allocBuf: could not alloc new header\n", stderr);
        return nullptr;
    }
    block->bytes = static_cast<char*>(std::calloc(1, size));
    if (block->bytes == nullptr) {
        std::fputs("quenby: pnb_allocBuf: could not alloc new path buffer\n", stderr);
        std::free(block);
        return nullptr;
    }
    block->free = block->bytes;
    block->size = size;
    block->freeLen = size;
    block->next = nullptr;
    if (last_ != nullptr) {
        quenbyCheck(first_ != nullptr, "pnbAnchorP != __null");
        last_->next = block;
    } else {
        quenbyCheck(first_ == nullptr, "pnbAnchorP == __null");
        first_ = block;
    }
    last_ = block;
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby: pnb_allocBuf()->0x%llx\n",
                     static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(block)));
    return block;
}

char* PathStore::store(char* path)
{
    size_t n = std::strlen(path);
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby: pnb_storePath(%s)\n", path);
    quenbyCheck(n > 0, "pathLen > 0");
    quenbyCheck(n < kBlockSize, "pathLen < 1048576");
    size_t need = n + 1;
    if (path[n - 1] == '\n') {
        path[n - 1] = '\0';
        need = n;
    }
    if (last_ == nullptr || need > last_->freeLen) {
        if (addBlock(kBlockSize) == nullptr)
            return nullptr;
    }
    char* copy = last_->free;
    std::memcpy(copy, path, need);
    last_->free += need;
    last_->freeLen -= need;
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby: pnb_storePath()->%s\n", copy);
    return copy;
}

PathIndex::~PathIndex()
{
    std::free(entries_);
    std::free(taken_[0]);
}

bool PathIndex::allocate()
{
    // At least one entry stays empty, which ends every probe.
    const uint64_t wanted = static_cast<uint64_t>(capacity_) + capacity_ / 2 + 1;
    entryCount_ = wanted < (1ull << 32) ? wanted : 1ull << 32;
    uint64_t bits = capacity_;
    uint64_t words = 0;
    for (int level = 0; level < 3; ++level) {
        takenWords_[level] = (bits + 63) / 64;
        words += takenWords_[level];
        bits = takenWords_[level];
    }
    entries_ = static_cast<Entry*>(std::calloc(entryCount_, sizeof(Entry)));
    taken_[0] = static_cast<uint64_t*>(std::calloc(words, sizeof(uint64_t)));
    if (entries_ == nullptr || taken_[0] == nullptr) {
        std::free(entries_);
        std::free(taken_[0]);
        entries_ = nullptr;
        taken_[0] = nullptr;
        return false;
    }
    // The bits past the end of each level count as taken.
    bits = capacity_;
    for (int level = 0; level < 3; ++level) {
        if (level > 0)
            taken_[level] = taken_[level - 1] + takenWords_[level - 1];
        if (bits % 64 != 0)
            taken_[level][bits / 64] = kFull << (bits % 64);
        bits = takenWords_[level];
    }
    return true;
}

// The first free slot (level 0) or not full word below (levels above) at
// or after `from`, without wrapping; kNone when there is none.
uint64_t PathIndex::nextFree(int level, uint64_t from) const
{
    const uint64_t bits = level == 0 ? capacity_ : takenWords_[level - 1];
    if (from >= bits)
        return kNone;
    uint64_t w = from >> 6;
    uint64_t free = ~taken_[level][w] & (kFull << (from & 63));
    if (free == 0) {
        if (level == 2) {
            do
                ++w;
            while (w < takenWords_[2] && taken_[2][w] == kFull);
            if (w == takenWords_[2])
                return kNone;
        } else if ((w = nextFree(level + 1, w + 1)) == kNone) {
            return kNone;
        }
        free = ~taken_[level][w];
    }
    return (w << 6) + static_cast<uint64_t>(__builtin_ctzll(free));
}

// Where linear probing puts a path whose home is `home`, taken; the table
// is not full.
uint32_t PathIndex::takeSlot(uint32_t home)
{
    uint64_t s = nextFree(0, home);
    if (s == kNone)
        s = nextFree(0, 0);
    const auto slot = static_cast<uint32_t>(s);
    for (int level = 0; level < 3; ++level) {
        uint64_t& word = taken_[level][s >> 6];
        word |= 1ull << (s & 63);
        if (word != kFull)
            break;
        s >>= 6;
    }
    return slot;
}

uint32_t PathIndex::place(const char* path, uint32_t hash, offset_t offset)
{
    const uint32_t slot = takeSlot(hash % capacity_);
    uint64_t e = hash % entryCount_;
    while (entries_[e].offset != 0)
        e = e + 1 == entryCount_ ? 0 : e + 1;
    entries_[e] = {offset, path, slot, static_cast<uint16_t>(hash >> 16), MARK_NONE};
    return slot;
}

// Indexes the batch in the order it came: every path hashed and its entry
// fetched first, so that their cache misses overlap.
void PathIndex::flushPending()
{
    for (int i = 0; i < pendingCount_; ++i) {
        Pending& p = pending_[i];
        p.hash = hash_(p.path, static_cast<uint32_t>(std::strlen(p.path)));
        const Entry* home = &entries_[p.hash % entryCount_];
        __builtin_prefetch(home, 1);
        __builtin_prefetch(reinterpret_cast<const char*>(home + 1) - 1, 1);
    }
    for (int i = 0; i < pendingCount_; ++i)
        place(pending_[i].path, pending_[i].hash, pending_[i].offset);
    pendingCount_ = 0;
}

int PathIndex::add(char* storedPath, offset_t offset)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby: gsi_addIndex(%s, 0x%llx)\n", storedPath != nullptr ? storedPath : "(null)",
                     static_cast<unsigned long long>(offset));
    quenbyCheck(storedPath != nullptr, "pathP != __null");
    quenbyCheck(offset != 0, "index != 0");
    if (entries_ == nullptr && (capacity_ == 0 || !allocate()))
        return -1;
    if (slotsUsed_ == capacity_)
        return -1;
    flushPending();
    ++slotsUsed_;
    const uint32_t s =
        place(storedPath, hash_(storedPath, static_cast<uint32_t>(std::strlen(storedPath))), offset);
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby: gsi_addIndex()->0x%llx\n", static_cast<unsigned long long>(s));
    return static_cast<int>(s);
}

// add() for a batch: the same checks now, the indexing with the batch.
bool PathIndex::queue(const char* storedPath, offset_t offset)
{
    quenbyCheck(offset != 0, "index != 0");
    if (entries_ == nullptr && (capacity_ == 0 || !allocate()))
        return false;
    if (slotsUsed_ == capacity_)
        return false;
    ++slotsUsed_;
    pending_[pendingCount_++] = {storedPath, offset, 0};
    if (pendingCount_ == kBatch)
        flushPending();
    return true;
}

int PathIndex::insert(char* path, offset_t offset)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby: gsi_insert([%s] [0x%llx])\n", path, static_cast<unsigned long long>(offset));
    char* stored = store_.store(path);
    if (stored == nullptr) {
        std::fprintf(stderr, "quenby: gsi_insert() Provided path %s could not be stored\n", path);
        return -1;
    }
    // Traced additions go one by one, so that their messages keep their order.
    if (quenby_debug > 0 ? add(stored, offset) < 0 : !queue(stored, offset)) {
        std::fprintf(stderr, "gsi_insert() failed to add provided path %s at index 0x%llx\n", stored,
                     static_cast<unsigned long long>(offset));
        return -1;
    }
    return 0;
}

offset_t PathIndex::find(const char* path, uint32_t* slotOut, UpdateMark** markOut)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:gsi_findIndex(%s)\n", path != nullptr ? path : "(null)");
    quenbyCheck(path != nullptr, "pathP != __null");
    offset_t result = 0;
    uint32_t slot = 0;
    UpdateMark* mark = nullptr;
    if (entries_ != nullptr) {
        flushPending();
        const uint32_t hash = hash_(path, static_cast<uint32_t>(std::strlen(path)));
        const uint32_t h = hash % capacity_;
        if (quenby_debug > 2)
            std::fprintf(stderr, "quenby:gsi_findIndex: looking for [%s] at %d\n", path, static_cast<int>(h));
        uint32_t found = kNoSlot;
        const auto tag = static_cast<uint16_t>(hash >> 16);
        for (uint64_t e = hash % entryCount_; entries_[e].offset != 0; e = e + 1 == entryCount_ ? 0 : e + 1) {
            Entry& entry = entries_[e];
            if (entry.tag == tag && std::strcmp(entry.path, path) == 0) {
                found = slot = entry.slot;
                result = entry.offset;
                mark = &entry.mark;
                break;
            }
        }
        if (found != h && quenby_debug > 2) {
            std::fputs("quenby:gsi_findIndex: looking further\n", stderr);
            if (found != kNoSlot)
                std::fprintf(stderr, "quenby:gsi_findIndex: found match at %d\n", static_cast<int>(found));
            else if (slotsUsed_ == capacity_)
                std::fprintf(stderr, "quenby:gsi_findIndex: wrapped back to hval %d\n", static_cast<int>(h));
        }
    }
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby:gsi_findIndex(%s)->0x%llx\n", path, static_cast<unsigned long long>(result));
    if (slotOut != nullptr)
        *slotOut = slot;
    if (markOut != nullptr)
        *markOut = mark;
    return result;
}
