#include "bunch/path_index.h"

#include "support/consistency.h"
#include "support/debug_level.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

pathNameBuffer_t* pnbAnchorP = nullptr;
pathNameBuffer_t* pnbLastBufP = nullptr;
gsiSlot_t* gsiHashP = nullptr;
uint32_t gsiCount = 0;

const uint32_t c_mix[MUHash::mixWords] = {
    0x45742a3c, 0x2f30d043, 0x6b955a42, 0x39b2fb71, 0xb0c67456, 0x85f8abfb, 0xdcc3c977, 0xd1f7da2f,
    0x261f0717, 0xaa684520, 0x54ca45f8, 0x1d03a567, 0x7a10af40, 0xe2e2eca6, 0x2b2676a1, 0xd485ce18,
    0xf85a5ba1, 0x1fa4e2fd, 0x663e551a, 0x3b317919, 0xbd081d80, 0x5bd024a9, 0x3712189e, 0x991254bf,
    0x5ff181f8, 0xdaabbcf6, 0x26abcf5e, 0x504929b7, 0x26376d2c, 0xd880d639, 0xa8d6aa7f, 0x156899f9,
    0x7417f8ce, 0x598f11f7, 0x63471e97, 0x2387d11c, 0xde8d9ca3,
};

MUHash gsimu;

namespace {

// Frees the store and the index when the process ends, so that memory
// checkers see nothing left over; nothing frees them earlier.
struct PathIndexAtExit {
    ~PathIndexAtExit() { pathIndexReset(); }
} pathIndexAtExit;

uint32_t bigEndianWord(const uint32_t* word)
{
    const unsigned char* b = reinterpret_cast<const unsigned char*>(word);
    return static_cast<uint32_t>(b[0]) << 24 | static_cast<uint32_t>(b[1]) << 16 | static_cast<uint32_t>(b[2]) << 8
           | b[3];
}

} // namespace

MUHash::MUHash()
{
    set_mix(nullptr, 0, false);
}

MUHash::~MUHash()
{
    std::free(scratchP);
}

uint32_t MUHash::universalHash(const void* key, uint32_t len)
{
    uint32_t n = ((len + 7) >> 3) << 1;
    if (n == 0)
        n = 2;
    if (n > bufWords) {
        std::free(scratchP);
        scratchP = static_cast<uint32_t*>(std::malloc(static_cast<size_t>(n) * sizeof(uint32_t)));
        bufWords = scratchP != nullptr ? n : 0;
    }
    // Without a scratch buffer the key goes through one zero-padded group
    // at a time; the value is the same.
    uint32_t group[2];
    const unsigned char* bytes = static_cast<const unsigned char*>(key);
    if (scratchP != nullptr) {
        scratchP[n - 2] = 0;
        scratchP[n - 1] = 0;
        std::memcpy(scratchP, key, len);
    }

    uint32_t h = 0;
    uint32_t i = 0;
    uint32_t j = 1;
    for (uint32_t k = 0; k < n; k += 2) {
        const uint32_t* words = scratchP + k;
        if (scratchP == nullptr) {
            uint32_t at = k * 4;
            uint32_t take = len > at ? (len - at < 8 ? len - at : 8) : 0;
            group[0] = group[1] = 0;
            std::memcpy(group, bytes + at, take);
            words = group;
        }
        uint32_t a = bigEndianWord(words);
        uint32_t b = bigEndianWord(words + 1);
        uint64_t p = static_cast<uint64_t>(a - mix[i]) * static_cast<uint64_t>(b - mix[j]);
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

void MUHash::set_mix(const void* seed, uint32_t len, bool raw)
{
    std::memcpy(mix, c_mix, sizeof mix);
    if (seed != nullptr && len != 0)
        re_mix(seed, len, raw);
}

void MUHash::re_mix(const void* seed, uint32_t len, bool raw)
{
    if (seed == nullptr || len == 0) {
        set_mix(nullptr, 0, raw);
        return;
    }
    uint32_t block[mixWords];
    unsigned char* out = reinterpret_cast<unsigned char*>(block);
    const size_t blockBytes = sizeof block;
    for (size_t at = 0; at < blockBytes; at += len) {
        size_t take = blockBytes - at < len ? blockBytes - at : len;
        std::memcpy(out + at, seed, take);
    }
    for (int k = 0; k < mixWords; ++k)
        mix[k] ^= raw ? block[k] : bigEndianWord(&block[k]);
}

pathNameBuffer_t* pnb_allocBuf(uint64_t size)
{
    if (quenby_debug > 1)
        std::fprintf(stderr, "quenby: pnb_allocBuf(%lld)\n", static_cast<long long>(size));
    auto* block = static_cast<pathNameBuffer_t*>(std::calloc(1, sizeof(pathNameBuffer_t)));
    if (block == nullptr) {
        std::fputs("quenby: pnb_allocBuf: could not alloc new header\n", stderr);
        return nullptr;
    }
    block->bufP = static_cast<char*>(std::calloc(1, size));
    if (block->bufP == nullptr) {
        std::fputs("quenby: pnb_allocBuf: could not alloc new path buffer\n", stderr);
        std::free(block);
        return nullptr;
    }
    block->freeP = block->bufP;
    block->bufLen = size;
    block->freeLen = size;
    block->nextP = nullptr;
    if (pnbLastBufP != nullptr) {
        quenbyCheck(pnbAnchorP != nullptr, "pnbAnchorP != __null");
        pnbLastBufP->nextP = block;
    } else {
        quenbyCheck(pnbAnchorP == nullptr, "pnbAnchorP == __null");
        pnbAnchorP = block;
    }
    pnbLastBufP = block;
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby: pnb_allocBuf()->0x%llx\n",
                     static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(block)));
    return block;
}

char* pnb_storePath(char* path)
{
    size_t n = std::strlen(path);
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby: pnb_storePath(%s)\n", path);
    quenbyCheck(n > 0, "pathLen > 0");
    quenbyCheck(n < PNB_BLOCK_SIZE, "pathLen < 1048576");
    size_t need = n + 1;
    if (path[n - 1] == '\n') {
        path[n - 1] = '\0';
        need = n;
    }
    if (pnbLastBufP == nullptr || need > pnbLastBufP->freeLen) {
        if (pnb_allocBuf(PNB_BLOCK_SIZE) == nullptr)
            return nullptr;
    }
    char* copy = pnbLastBufP->freeP;
    std::memcpy(copy, path, need);
    pnbLastBufP->freeP += need;
    pnbLastBufP->freeLen -= need;
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby: pnb_storePath()->%s\n", copy);
    return copy;
}

namespace {

// Beside the slots, two structures give every answer of linear probing
// without walking its runs, which grow long in a nearly full table:
// - freeNext: a disjoint-set forest whose roots are the free slots; the root
//   reached from a slot is the first free slot at or after it, cyclically,
//   which is where linear probing inserts;
// - hash buckets chaining the occupied slots by their path's hash, in the
//   order of insertion. Slots are never emptied, so the first slot of a
//   chain that holds the path is the one linear probing meets first.
constexpr uint32_t kNoSlot = UINT32_MAX;
uint32_t* freeNext = nullptr;
uint32_t* chainNext = nullptr;
uint32_t* bucketHead = nullptr;
uint32_t* bucketTail = nullptr;
uint32_t bucketMask = 0;
uint32_t slotsUsed = 0;

void freeProbeHelpers()
{
    for (uint32_t** p : {&freeNext, &chainNext, &bucketHead, &bucketTail}) {
        std::free(*p);
        *p = nullptr;
    }
    bucketMask = 0;
    slotsUsed = 0;
}

bool allocateSlots()
{
    uint32_t buckets = 1;
    while (buckets < gsiCount && buckets < (1u << 31))
        buckets <<= 1;
    gsiHashP = static_cast<gsiSlot_t*>(std::calloc(gsiCount, sizeof(gsiSlot_t)));
    freeNext = static_cast<uint32_t*>(std::malloc(sizeof(uint32_t) * gsiCount));
    chainNext = static_cast<uint32_t*>(std::malloc(sizeof(uint32_t) * gsiCount));
    bucketHead = static_cast<uint32_t*>(std::malloc(sizeof(uint32_t) * buckets));
    bucketTail = static_cast<uint32_t*>(std::malloc(sizeof(uint32_t) * buckets));
    if (gsiHashP == nullptr || freeNext == nullptr || chainNext == nullptr || bucketHead == nullptr
        || bucketTail == nullptr) {
        std::free(gsiHashP);
        gsiHashP = nullptr;
        freeProbeHelpers();
        return false;
    }
    for (uint32_t s = 0; s < gsiCount; ++s)
        freeNext[s] = s;
    for (uint32_t b = 0; b < buckets; ++b)
        bucketHead[b] = bucketTail[b] = kNoSlot;
    bucketMask = buckets - 1;
    slotsUsed = 0;
    return true;
}

// The first free slot at or after `h`, cyclically; the table is not full.
uint32_t firstFreeFrom(uint32_t h)
{
    uint32_t root = h;
    while (freeNext[root] != root)
        root = freeNext[root];
    for (uint32_t s = h; freeNext[s] != root;) {
        uint32_t next = freeNext[s];
        freeNext[s] = root;
        s = next;
    }
    return root;
}

} // namespace

int gsi_addIndex(char* pathP, offset_t index)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby: gsi_addIndex(%s, 0x%llx)\n", pathP != nullptr ? pathP : "(null)",
                     static_cast<unsigned long long>(index));
    quenbyCheck(pathP != nullptr, "pathP != __null");
    quenbyCheck(index != 0, "index != 0");
    if (gsiHashP == nullptr && (gsiCount == 0 || !allocateSlots()))
        return -1;
    if (slotsUsed == gsiCount)
        return -1;
    const uint32_t hash = gsimu.universalHash(pathP, static_cast<uint32_t>(std::strlen(pathP)));
    const uint32_t s = firstFreeFrom(hash % gsiCount);
    gsiHashP[s].index = index;
    gsiHashP[s].pathP = pathP;
    gsiHashP[s].hash = hash;
    freeNext[s] = s + 1 == gsiCount ? 0 : s + 1;
    ++slotsUsed;
    const uint32_t b = hash & bucketMask;
    chainNext[s] = kNoSlot;
    if (bucketTail[b] == kNoSlot)
        bucketHead[b] = s;
    else
        chainNext[bucketTail[b]] = s;
    bucketTail[b] = s;
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby: gsi_addIndex()->0x%llx\n", static_cast<unsigned long long>(s));
    return static_cast<int>(s);
}

int gsi_insert(char* path, offset_t index)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby: gsi_insert([%s] [0x%llx])\n", path, static_cast<unsigned long long>(index));
    char* stored = pnb_storePath(path);
    if (stored == nullptr) {
        std::fprintf(stderr, "quenby: gsi_insert() Provided path %s could not be stored\n", path);
        return -1;
    }
    if (gsi_addIndex(stored, index) < 0) {
        std::fprintf(stderr, "gsi_insert() failed to add provided path %s at index 0x%llx\n", stored,
                     static_cast<unsigned long long>(index));
        return -1;
    }
    return 0;
}

offset_t gsi_findIndex(const char* pathP, uint32_t* slotOut)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:gsi_findIndex(%s)\n", pathP != nullptr ? pathP : "(null)");
    quenbyCheck(pathP != nullptr, "pathP != __null");
    offset_t result = 0;
    uint32_t slot = 0;
    if (gsiHashP != nullptr) {
        const uint32_t hash = gsimu.universalHash(pathP, static_cast<uint32_t>(std::strlen(pathP)));
        const uint32_t h = hash % gsiCount;
        if (quenby_debug > 2)
            std::fprintf(stderr, "quenby:gsi_findIndex: looking for [%s] at %d\n", pathP, static_cast<int>(h));
        uint32_t found = kNoSlot;
        for (uint32_t s = bucketHead[hash & bucketMask]; s != kNoSlot; s = chainNext[s]) {
            if (gsiHashP[s].hash == hash && std::strcmp(gsiHashP[s].pathP, pathP) == 0) {
                found = s;
                break;
            }
        }
        if (found != kNoSlot) {
            result = gsiHashP[found].index;
            slot = found;
        }
        if (found != h && quenby_debug > 2) {
            std::fputs("quenby:gsi_findIndex: looking further\n", stderr);
            if (found != kNoSlot)
                std::fprintf(stderr, "quenby:gsi_findIndex: found match at %d\n", static_cast<int>(found));
            else if (slotsUsed == gsiCount)
                std::fprintf(stderr, "quenby:gsi_findIndex: wrapped back to hval %d\n", static_cast<int>(h));
        }
    }
    if (quenby_debug > 2)
        std::fprintf(stderr, "quenby:gsi_findIndex(%s)->0x%llx\n", pathP, static_cast<unsigned long long>(result));
    if (slotOut != nullptr)
        *slotOut = slot;
    return result;
}

void pathIndexReset()
{
    for (pathNameBuffer_t* block = pnbAnchorP; block != nullptr;) {
        pathNameBuffer_t* next = block->nextP;
        std::free(block->bufP);
        std::free(block);
        block = next;
    }
    pnbAnchorP = nullptr;
    pnbLastBufP = nullptr;
    std::free(gsiHashP);
    gsiHashP = nullptr;
    gsiCount = 0;
    freeProbeHelpers();
}
