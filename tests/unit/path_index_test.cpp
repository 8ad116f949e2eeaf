// The path index against linear probing, full and unconfigured tables, and the block-packed path store.
#include "bunch/path_index.h"

#include "support/consistency.h"
#include "test_util.h"

namespace {

char* store(std::string path) { return pnb_storePath(path.data()); }
// Built by appending: GCC 12 warns falsely on "text" + std::string temporaries.
std::string numbered(const char* prefix, int i) { return std::string(prefix).append(std::to_string(i)); }

class PathIndex : public testing::Test {
protected:
    void SetUp() override { pathIndexReset(); gsiCount = 100; }
    void TearDown() override { pathIndexReset(); }
};

TEST_F(PathIndex, StoreCutsTheLineFeedPacksBlocksAndRefusesBadPaths)
{
    char text[] = "d/e\n";
    ASSERT_EQ(gsi_insert(text, 9), 0);
    EXPECT_STREQ(text, "d/e");
    EXPECT_EQ(gsi_findIndex("d/e", nullptr), 9);
    // Paths that fill a block to its last byte, or leave one byte over: the next opens a new block.
    for (auto [count, size] : {std::pair<int, size_t>{1, PNB_BLOCK_SIZE - 1}, {95325, 10}}) {
        pathIndexReset();
        for (int i = 0; i < count; ++i)
            ASSERT_NE(store(std::string(size, 'h')), nullptr);
        EXPECT_EQ(pnbAnchorP->freeLen, PNB_BLOCK_SIZE - count * (size + 1));
        char* next = store("0123456789");
        EXPECT_EQ(next, pnbAnchorP->nextP->bufP);
    }
    EXPECT_THROW(store(""), ConsistencyError);
    EXPECT_THROW(store(std::string(PNB_BLOCK_SIZE, 'x')), ConsistencyError);
    EXPECT_THROW(gsi_addIndex(store("z"), 0), ConsistencyError);
    EXPECT_THROW(gsi_findIndex(nullptr, nullptr), ConsistencyError);
}

// Duplicates and colliding paths fill the table to its last slot: probes wrap past the end.
TEST_F(PathIndex, AgreesWithLinearProbingUpToAFullTable)
{
    std::vector<std::pair<offset_t, std::string>> model(gsiCount); // index, path
    auto home = [](const std::string& path) {
        return gsimu.universalHash(path.data(), static_cast<uint32_t>(path.size())) % gsiCount;
    };
    auto probe = [&](const std::string& path) -> std::pair<offset_t, uint32_t> {
        for (uint32_t i = 0, s = home(path); i < gsiCount; ++i, s = (s + 1) % gsiCount)
            if (model[s].first == 0 || model[s].second == path)
                return {model[s].first, model[s].first == 0 ? 0 : s};
        return {0, 0};
    };
    uint32_t seed = 7;
    for (int i = 1; i <= static_cast<int>(gsiCount); ++i) {
        seed = seed * 1103515245u + 12345u;
        std::string path = numbered("p", static_cast<int>(seed % 60));
        uint32_t expected = home(path);
        while (model[expected].first != 0)
            expected = (expected + 1) % gsiCount;
        ASSERT_EQ(gsi_addIndex(store(path), i), static_cast<int>(expected)) << path;
        model[expected] = {i, path};
        for (int q = 0; q < 70; ++q) {
            std::string look = numbered("p", q);
            uint32_t slot = 12345;
            offset_t got = gsi_findIndex(look.c_str(), &slot);
            ASSERT_EQ(std::make_pair(got, slot), probe(look)) << look << " after " << i;
        }
    }
    EXPECT_EQ(testutil::stderrOf([] { EXPECT_EQ(gsi_insert(std::string("more").data(), 0x77), -1); }),
              "gsi_insert() failed to add provided path more at index 0x77\n");
    pathIndexReset(); // an unconfigured index takes and finds nothing
    EXPECT_EQ(gsi_addIndex(store("y"), 2), -1);
    uint32_t slot = 5;
    EXPECT_EQ(gsi_findIndex("y", &slot), 0);
    EXPECT_EQ(slot, 0u);
}

} // namespace
