// The path index of execbunch: PathHash over keys of growing length,
// PathIndex::insert of the paths of a table of a million slots filled to 50,
// 90 and 100 per cent, and PathIndex::find in those tables: present and
// absent paths in random order, and present ones in the order they were
// registered, as a client reports them.
#include "bunch/path_index.h"
#include "sample_data.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

void BM_universalHash(benchmark::State& state)
{
    const auto len = static_cast<uint32_t>(state.range(0));
    SampleData data(7);
    std::string key;
    while (key.size() < len)
        key += "/cluster/fs1/" + data.path(key.size());
    key.resize(len);
    PathHash hash;
    const uint32_t expected = hash(key.data(), len);
    std::string changed = key;
    changed.back() ^= 1;
    if (hash(changed.data(), len) == expected) {
        state.SkipWithError("the hash does not read the key's last byte");
        return;
    }

    uint32_t h = 0;
    for (auto _ : state) {
        h = hash(key.data(), len);
        benchmark::DoNotOptimize(h);
    }
    if (h != expected)
        state.SkipWithError("the hash of one key changed");
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * len));
}
BENCHMARK(BM_universalHash)->RangeMultiplier(2)->Range(8, 256)->Arg(1024);

// A bunch of a million files: execbunch makes its table one slot per line.
constexpr uint32_t kSlots = 1000000;
constexpr size_t kAbsent = 1 << 18;

// NUL-terminated paths in one block, as the client's output lines hold them.
struct PathBlock {
    std::vector<char> bytes;
    std::vector<size_t> starts;

    void add(const std::string& path)
    {
        starts.push_back(bytes.size());
        bytes.insert(bytes.end(), path.begin(), path.end());
        bytes.push_back('\0');
    }
    char* at(size_t i) { return bytes.data() + starts[i]; }
};

struct SamplePaths {
    PathBlock present; // the first n are in a table filled to n slots
    PathBlock absent;  // in no table
    std::vector<offset_t> offsets;
};

SamplePaths& samplePaths()
{
    static SamplePaths paths = [] {
        SamplePaths p;
        SampleData data(41);
        // Offsets of the records in a shadow database, past its header.
        offset_t offset = 240;
        for (uint32_t i = 0; i < kSlots; ++i) {
            std::string path = "/cluster/fs1/" + data.path(i);
            p.present.add(path);
            p.offsets.push_back(offset);
            offset += static_cast<offset_t>(path.size() + 110 + data.rng()() % 40);
        }
        for (size_t i = 0; i < kAbsent; ++i)
            p.absent.add("/cluster/fs1/" + data.path(10ull * kSlots + i));
        return p;
    }();
    return paths;
}

struct Query {
    const char* path;
    offset_t want; // 0: not in the table
};

// The table of the load factor being measured, built once for its hits and
// misses; the benchmarks run in registration order, so three builds in all.
struct LoadedIndex {
    int percent = -1;
    std::unique_ptr<PathIndex> index;
    std::vector<Query> hits, misses, inOrder;
} loaded;

// Fills the index to `percent` of its slots; the error text, or null.
const char* loadIndex(int percent)
{
    if (loaded.percent == percent)
        return nullptr;
    loaded = LoadedIndex();
    SamplePaths& paths = samplePaths();
    loaded.index = std::make_unique<PathIndex>(kSlots);
    const uint32_t filled = static_cast<uint32_t>(static_cast<uint64_t>(kSlots) * percent / 100);
    for (uint32_t i = 0; i < filled; ++i)
        if (loaded.index->insert(paths.present.at(i), paths.offsets[i]) != 0)
            return "the index did not take a path";

    std::mt19937_64 rng(static_cast<uint64_t>(percent));
    for (uint32_t i = 0; i < filled; ++i)
        loaded.hits.push_back({paths.present.at(i), paths.offsets[i]});
    loaded.inOrder = loaded.hits;
    for (size_t i = 0; i < kAbsent; ++i)
        loaded.misses.push_back({paths.absent.at(i), 0});
    std::shuffle(loaded.hits.begin(), loaded.hits.end(), rng);
    std::shuffle(loaded.misses.begin(), loaded.misses.end(), rng);
    loaded.percent = percent;
    return nullptr;
}

void BM_pathIndexFind(benchmark::State& state)
{
    const int percent = static_cast<int>(state.range(0));
    const bool hit = state.range(1) != 0;
    if (const char* error = loadIndex(percent)) {
        state.SkipWithError(error);
        return;
    }
    const std::vector<Query>& queries = !hit ? loaded.misses : state.range(2) != 0 ? loaded.inOrder : loaded.hits;
    PathIndex& index = *loaded.index;

    size_t next = 0;
    bool wrong = false;
    for (auto _ : state) {
        const Query& q = queries[next];
        wrong |= index.find(q.path, nullptr) != q.want;
        if (++next == queries.size())
            next = 0;
    }
    if (wrong)
        state.SkipWithError(hit ? "a present path was not found at its offset" : "an absent path was found");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_pathIndexFind)
    ->ArgNames({"load_pct", "hit", "in_order"})
    ->Args({50, 1, 0})
    ->Args({50, 1, 1})
    ->Args({50, 0, 0})
    ->Args({90, 1, 0})
    ->Args({90, 1, 1})
    ->Args({90, 0, 0})
    ->Args({100, 1, 0})
    ->Args({100, 1, 1})
    ->Args({100, 0, 0});

// Registration as execbunch does it while it splits a bunch: every path
// stored and indexed, the table allocated at the first one.
void BM_pathIndexInsert(benchmark::State& state)
{
    const int percent = static_cast<int>(state.range(0));
    const uint32_t filled = static_cast<uint32_t>(static_cast<uint64_t>(kSlots) * percent / 100);
    SamplePaths& paths = samplePaths();
    bool wrong = false;
    for (auto _ : state) {
        PathIndex index(kSlots);
        for (uint32_t i = 0; i < filled; ++i)
            wrong |= index.insert(paths.present.at(i), paths.offsets[i]) != 0;
        wrong |= index.find(paths.present.at(filled - 1), nullptr) != paths.offsets[filled - 1];
    }
    if (wrong)
        state.SkipWithError("a path was not taken or not found");
    state.SetItemsProcessed(state.iterations() * filled);
}
BENCHMARK(BM_pathIndexInsert)->ArgName("load_pct")->Arg(50)->Arg(90)->Arg(100)->Unit(benchmark::kMillisecond);

} // namespace
