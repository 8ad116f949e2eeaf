// The path index against linear probing, full and unconfigured tables, and the block-packed path store.
#include "bunch/path_index.h"

#include "support/consistency.h"
#include "test_util.h"

#include <map>
#include <set>

namespace {

char* store(PathStore& paths, std::string path) { return paths.store(path.data()); }
// Built by appending: GCC 12 warns falsely on "text" + std::string temporaries.
std::string numbered(const char* prefix, int i) { return std::string(prefix).append(std::to_string(i)); }

TEST(PathIndex, StoreCutsTheLineFeedPacksBlocksAndRefusesBadPaths)
{
    PathIndex index(100);
    char text[] = "d/e\n";
    ASSERT_EQ(index.insert(text, 9), 0);
    EXPECT_STREQ(text, "d/e");
    EXPECT_EQ(index.find("d/e", nullptr), 9);
    // Paths that fill a block to its last byte, or leave one byte over: the next opens a new block.
    for (auto [count, size] : {std::pair<int, size_t>{1, PathStore::kBlockSize - 1}, {95325, 10}}) {
        PathStore paths;
        for (int i = 0; i < count; ++i)
            ASSERT_NE(store(paths, std::string(size, 'h')), nullptr);
        EXPECT_EQ(paths.firstBlock()->freeLen, PathStore::kBlockSize - count * (size + 1));
        char* next = store(paths, "0123456789");
        EXPECT_EQ(next, paths.firstBlock()->next->bytes);
    }
    EXPECT_THROW(store(index.store(), ""), ConsistencyError);
    EXPECT_THROW(store(index.store(), std::string(PathStore::kBlockSize, 'x')), ConsistencyError);
    EXPECT_THROW(index.add(store(index.store(), "z"), 0), ConsistencyError);
    EXPECT_THROW(index.find(nullptr, nullptr), ConsistencyError);
}

// Duplicates and colliding paths, batched and one by one, fill the table to its last slot: probes wrap past the end.
TEST(PathIndex, AgreesWithLinearProbingUpToAFullTable)
{
    PathIndex index(100);
    const uint32_t slots = index.capacity();
    std::vector<std::pair<offset_t, std::string>> model(slots); // offset, path
    PathHash hash;
    auto home = [&](const std::string& path) { return hash(path.data(), static_cast<uint32_t>(path.size())) % slots; };
    auto probe = [&](const std::string& path) -> std::pair<offset_t, uint32_t> {
        for (uint32_t i = 0, s = home(path); i < slots; ++i, s = (s + 1) % slots)
            if (model[s].first == 0 || model[s].second == path)
                return {model[s].first, model[s].first == 0 ? 0 : s};
        return {0, 0};
    };
    std::map<uint32_t, UpdateMark*> marks; // by slot
    uint32_t seed = 7;
    for (int i = 1; i <= static_cast<int>(slots); ++i) {
        seed = seed * 1103515245u + 12345u;
        std::string path = numbered("p", static_cast<int>(seed % 60));
        uint32_t expected = home(path);
        while (model[expected].first != 0)
            expected = (expected + 1) % slots;
        // The first ones go in batches, looked up after every twentieth.
        const bool batched = i <= 40;
        if (batched)
            ASSERT_EQ(index.insert(path.data(), i), 0);
        else
            ASSERT_EQ(index.add(store(index.store(), path), i), static_cast<int>(expected)) << path;
        model[expected] = {i, path};
        for (int q = 0; q < 70 && (!batched || i % 20 == 0); ++q) {
            std::string look = numbered("p", q);
            uint32_t slot = 12345;
            UpdateMark* mark = nullptr;
            offset_t got = index.find(look.c_str(), &slot, &mark);
            ASSERT_EQ(std::make_pair(got, slot), probe(look)) << look << " after " << i;
            // Each slot keeps one mark of its own.
            ASSERT_EQ(mark != nullptr, got != 0);
            ASSERT_TRUE(mark == nullptr || marks.emplace(slot, mark).first->second == mark) << look;
        }
    }
    std::set<UpdateMark*> distinct;
    for (auto [slot, mark] : marks)
        distinct.insert(mark);
    EXPECT_EQ(distinct.size(), marks.size());
    EXPECT_EQ(testutil::stderrOf([&] { EXPECT_EQ(index.insert(std::string("more").data(), 0x77), -1); }),
              "gsi_insert() failed to add provided path more at index 0x77\n");
    PathIndex unconfigured(0); // takes and finds nothing
    EXPECT_EQ(unconfigured.add(store(unconfigured.store(), "y"), 2), -1);
    uint32_t slot = 5;
    UpdateMark* mark = marks.begin()->second;
    EXPECT_EQ(unconfigured.find("y", &slot, &mark), 0);
    EXPECT_EQ(slot, 0u);
    EXPECT_EQ(mark, nullptr);
}

} // namespace
