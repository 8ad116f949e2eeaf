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

uint32_t bigEndianWord(const uint32_t* word)
{
    const unsigned char* b = reinterpret_cast<const unsigned char*>(word);
    return static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 | static_cast<uint32_t>(b[2]) << 8
           | b[3];
}

} // namespace

PathHash::~PathHash()
{
    std::free(scratch_);
}

uint32_t PathHash::operator()(const void* key, uint32_t len)
{
    uint32_t n = ((len + 7) >> 3) << 1;
    if (n == 0)
        n = 2;
    if (n > scratchWords_) {
        std::free(scratch_);
        scratch_ = static_cast<uint32_t*>(std::malloc(static_cast<size_t>(n) * sizeof(uint32_t)));
        scratchWords_ = scratch_ != nullptr ? n : 0;
    }
    // Without a scratch buffer the key goes through one zero-padded group
    // at a time; the value is the same.
    uint32_t group[2];
    const unsigned char* bytes = static_cast<const unsigned char*>(key);
    if (scratch_ != nullptr) {
        scratch_[n - 2] = 0;
        scratch_[n - 1] = 0;
        std::memcpy(scratch_, key, len);
    }

    uint32_t h = 0;
    uint32_t i = 0;
    uint32_t j = 1;
    for (uint32_t k = 0; k < n; k += 2) {
        const uint32_t* words = scratch_ + k;
        if (scratch_ == nullptr) {
            uint32_t at = k * 4;
            uint32_t take = len > at ? (len - at < 8 ? len - at : 8) : 0;
            group[0] = group[1] = 0;
            std::memcpy(group, bytes + at, take);
            words = group;
        }
        uint32_t a = bigEndianWord(words);
        uint32_t b = bigEndianWord(words + 1);
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
    std::free(slots_);
    for (uint32_t* p : {freeNext_, chainNext_, bucketHead_, bucketTail_})
        std::free(p);
}

bool PathIndex::allocateSlots()
{
    uint32_t buckets = 1;
    while (buckets < capacity_ && buckets < (1u << 31))
        buckets <<= 1;
    slots_ = static_cast<Slot*>(std::calloc(capacity_, sizeof(Slot)));
    freeNext_ = static_cast<uint32_t*>(std::malloc(sizeof(uint32_t) * capacity_));
    chainNext_ = static_cast<uint32_t*>(std::malloc(sizeof(uint32_t) * capacity_));
    bucketHead_ = static_cast<uint32_t*>(std::malloc(sizeof(uint32_t) * buckets));
    bucketTail_ = static_cast<uint32_t*>(std::malloc(sizeof(uint32_t) * buckets));
    if (slots_ == nullptr || freeNext_ == nullptr || chainNext_ == nullptr || bucketHead_ == nullptr
        || bucketTail_ == nullptr) {
        std::free(slots_);
        slots_ = nullptr;
        for (uint32_t** p : {&freeNext_, &chainNext_, &bucketHead_, &bucketTail_}) {
            std::free(*p);
            *p = nullptr;
        }
        return false;
    }
    for (uint32_t s = 0; s < capacity_; ++s)
        freeNext_[s] = s;
    for (uint32_t b = 0; b < buckets; ++b)
        bucketHead_[b] = bucketTail_[b] = kNoSlot;
    bucketMask_ = buckets - 1;
    slotsUsed_ = 0;
    return true;
}

// The first free slot at or after `h`, cyclically; the table is not full.
uint32_t PathIndex::firstFreeFrom(uint32_t h)
{
    uint32_t root = h;
    while (freeNext_[root] != root)
        root = freeNext_[root];
    for (uint32_t s = h; freeNext_[s] != root;) {
        uint32_t next = freeNext_[s];
        freeNext_[s] = root;
        s = next;
    }
    return root;
}

// Takes the slot out of the free forest and chains it into its bucket.
void PathIndex::link(uint32_t slot, uint32_t hash)
{
    freeNext_[slot] = slot + 1 == capacity_ ? 0 : slot + 1;
    ++slotsUsed_;
    const uint32_t b = hash & bucketMask_;
    chainNext_[slot] = kNoSlot;
    if (bucketTail_[b] == kNoSlot)
        bucketHead_[b] = slot;
    else
        chainNext_[bucketTail_[b]] = slot;
    bucketTail_[b] = slot;
}

int PathIndex::add(char* storedPath, offset_t offset)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby: gsi_addIndex(%s, 0x%llx)\n", storedPath != nullptr ? storedPath : "(null)",
                     static_cast<unsigned long long>(offset));
    quenbyCheck(storedPath != nullptr, "pathP != __null");
    quenbyCheck(offset != 0, "index != 0");
    if (slots_ == nullptr && (capacity_ == 0 || !allocateSlots()))
        return -1;
    if (slotsUsed_ == capacity_)
        return -1;
    const uint32_t hash = hash_(storedPath, static_cast<uint32_t>(std::strlen(storedPath)));
    const uint32_t s = firstFreeFrom(hash % capacity_);
    slots_[s].offset = offset;
    slots_[s].path = storedPath;
    slots_[s].hash = hash;
    link(s, hash);
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby: gsi_addIndex()->0x%llx\n", static_cast<unsigned long long>(s));
    return static_cast<int>(s);
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
    if (add(stored, offset) < 0) {
        std::fprintf(stderr, "gsi_insert() failed to add provided path %s at index 0x%llx\n", stored,
                     static_cast<unsigned long long>(offset));
        return -1;
    }
    return 0;
}

offset_t PathIndex::find(const char* path, uint32_t* slotOut)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:gsi_findIndex(%s)\n", path != nullptr ? path : "(null)");
    quenbyCheck(path != nullptr, "pathP != __null");
    offset_t result = 0;
    uint32_t slot = 0;
    if (slots_ != nullptr) {
        const uint32_t hash = hash_(path, static_cast<uint32_t>(std::strlen(path)));
        const uint32_t h = hash % capacity_;
        if (quenby_debug > 2)
            std::fprintf(stderr, "quenby:gsi_findIndex: looking for [%s] at %d\n", path, static_cast<int>(h));
        uint32_t found = kNoSlot;
        for (uint32_t s = bucketHead_[hash & bucketMask_]; s != kNoSlot; s = chainNext_[s]) {
            if (slots_[s].hash == hash && std::strcmp(slots_[s].path, path) == 0) {
                found = s;
                break;
            }
        }
        if (found != kNoSlot) {
            result = slots_[found].offset;
            slot = found;
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
    return result;
}

uint32_t* PathIndex::markOf(uint32_t slot)
{
    return slots_ != nullptr && slot < capacity_ ? &slots_[slot].updateMark : nullptr;
}
