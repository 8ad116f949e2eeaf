// The path index and its hash: fixed hash values, probing with wrap-around,
// full and unconfigured tables, and the block-packed path store.
#include "bunch/path_index.h"

#include "support/consistency.h"
#include "test_util.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

char* store(std::string path) { return pnb_storePath(path.data()); }
// Built by appending: GCC 12 warns falsely on "text" + std::string temporaries.
std::string numbered(const char* prefix, int i) { return std::string(prefix).append(std::to_string(i)); }

class PathIndex : public testing::Test {
protected:
    void SetUp() override { pathIndexReset(); gsiCount = 100; }
    void TearDown() override { pathIndexReset(); }
};

TEST(MUHashTest, FixedValuesAndSeeds)
{
    // Longer keys first, so shorter ones run over a reused scratch buffer. The
    // 1000-byte key (value from an independent model) takes the mixing-word
    // pairs through several wraps.
    const std::pair<std::string, uint32_t> cases[] = {{std::string(1000, 'k'), 0x784b020c},
        {"dir1/file.txt", 0x13d3e2d0}, {"123456789", 0x29ec5e32}, {"12345678", 0x5c6040ce}, {"a/b/c", 0x8a3466cd},
        {"/a", 0xc6304d52}, {"a", 0x48e79f7c}, {"", 0xaf48fcc8}};
    for (const auto& [key, want] : cases)
        EXPECT_EQ(gsimu.universalHash(key.data(), key.size()), want) << key;

    MUHash be, raw;
    be.set_mix("abc", 3, false);
    raw.set_mix("abc", 3, true);
    EXPECT_EQ(be.mix[36] ^ c_mix[36], 0x61626361u); // the seed repeats over 148 bytes: word 36 is "abca"
    EXPECT_NE(be.universalHash("a/b/c", 5), 0x8a3466cdu);
    EXPECT_NE(be.universalHash("a/b/c", 5), raw.universalHash("a/b/c", 5)); // little-endian host
    be.re_mix("abc", 3, false); // XORs into the current words
    raw.set_mix(nullptr, 0, true);
    EXPECT_EQ(be.universalHash("a/b/c", 5), 0x8a3466cdu);
    EXPECT_EQ(raw.universalHash("a/b/c", 5), 0x8a3466cdu);
}

TEST_F(PathIndex, FullOrUnconfiguredTableRefuses)
{
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(gsi_insert(numbered("f", i).data(), i + 1), 0);
    std::vector<gsiSlot_t> before(gsiHashP, gsiHashP + gsiCount);
    testing::internal::CaptureStderr();
    EXPECT_EQ(gsi_insert(std::string("more").data(), 0x77), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "gsi_insert() failed to add provided path more at index 0x77\n");
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(gsiHashP[i].index, before[i].index);
        EXPECT_EQ(gsi_findIndex(numbered("f", i).c_str(), nullptr), i + 1);
    }
    EXPECT_EQ(gsi_findIndex("missing", nullptr), 0);

    pathIndexReset();
    EXPECT_EQ(gsi_addIndex(store("y"), 2), -1);
    uint32_t slot = 5;
    EXPECT_EQ(gsi_findIndex("y", &slot), 0);
    EXPECT_EQ(slot, 0u);
}

TEST_F(PathIndex, StoreCutsTheLineFeedPacksBlocksAndRefusesBadPaths)
{
    char text[] = "d/e\n";
    ASSERT_EQ(gsi_insert(text, 9), 0);
    EXPECT_STREQ(text, "d/e");
    EXPECT_EQ(gsi_findIndex("d/e", nullptr), 9);

    pathIndexReset();
    char* first = store(std::string(PNB_BLOCK_SIZE - 1, 'h'));
    EXPECT_EQ(first, pnbAnchorP->bufP);
    EXPECT_EQ(pnbAnchorP->freeLen, 0u);
    char* next = store("n");
    EXPECT_EQ(pnbAnchorP->nextP, pnbLastBufP);
    EXPECT_EQ(next, pnbLastBufP->bufP);

    pathIndexReset();
    for (int i = 0; i < 95325; ++i)
        ASSERT_NE(store("0123456789"), nullptr);
    EXPECT_EQ(pnbAnchorP->freeLen, 1u);
    next = store("0123456789");
    EXPECT_EQ(pnbAnchorP->nextP, pnbLastBufP);
    EXPECT_EQ(next, pnbLastBufP->bufP);

    // Broken conditions.
    EXPECT_THROW(store(""), ConsistencyError);
    EXPECT_THROW(store(std::string(PNB_BLOCK_SIZE, 'x')), ConsistencyError);
    EXPECT_THROW(gsi_addIndex(store("z"), 0), ConsistencyError);
    EXPECT_THROW(gsi_findIndex(nullptr, nullptr), ConsistencyError);
}

// Slots and answers are those of plain linear probing, in a table filled to
// the last slot with duplicates and colliding paths among the inserts, so
// probes wrap past the end and a duplicate finds the first of its paths.
TEST_F(PathIndex, AgreesWithLinearProbingUpToAFullTable)
{
    std::vector<std::pair<offset_t, std::string>> model(gsiCount); // index, path
    auto probe = [&](const std::string& path) -> std::pair<offset_t, uint32_t> {
        uint32_t h = gsimu.universalHash(path.data(), static_cast<uint32_t>(path.size())) % gsiCount;
        for (uint32_t i = 0, s = h; i < gsiCount; ++i, s = (s + 1) % gsiCount)
            if (model[s].first == 0 || model[s].second == path)
                return {model[s].first, model[s].first == 0 ? 0 : s};
        return {0, 0};
    };
    uint32_t seed = 7;
    auto next = [&]() { return seed = seed * 1103515245u + 12345u; };
    for (int i = 1; i <= static_cast<int>(gsiCount); ++i) {
        std::string path = numbered("p", static_cast<int>(next() % 60));
        uint32_t h = gsimu.universalHash(path.data(), static_cast<uint32_t>(path.size())) % gsiCount;
        uint32_t expected = h;
        while (model[expected].first != 0)
            expected = (expected + 1) % gsiCount;
        ASSERT_EQ(gsi_addIndex(store(path), i), static_cast<int>(expected)) << path;
        model[expected] = {i, path};
        for (int q = 0; q < 70; ++q) {
            std::string look = numbered("p", q);
            uint32_t slot = 12345;
            offset_t got = gsi_findIndex(look.c_str(), &slot);
            auto [want, wantSlot] = probe(look);
            ASSERT_EQ(std::make_pair(got, slot), std::make_pair(want, wantSlot)) << look << " after " << i;
        }
    }
    EXPECT_EQ(gsi_addIndex(store("one more"), 999), -1);
}

} // namespace
