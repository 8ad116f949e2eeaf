// The debug level from the environment, and the one trace whose text is checked.
#include "cli/dispatch.h"
#include "clientopts/validate_client.h"

#include "test_util.h"

namespace {

TEST(DebugLevel, IsReadWithoutValidation)
{
    testutil::GlobalsGuard guard;
    quenby_debug = 9;
    readDebugLevel(); // unset: left alone
    EXPECT_EQ(quenby_debug, 9);
    for (auto [value, level] : {std::pair<const char*, int>{"x", 0}, {"7abc", 7}, {" 3", 3}, {"-2", -2},
                                {"4294967301", 5}}) {
        guard.setEnv("DEBUGquenby", value);
        readDebugLevel();
        EXPECT_EQ(quenby_debug, level) << value;
    }
}

TEST(DebugLevel, TracesEveryOptionLineAboveLevelThree)
{
    for (int level : {3, 4}) {
        testutil::GlobalsGuard guard;
        quenby_debug = level;
        char text[] = "SKIPACL: YES\n  \nno colon\n";
        FILE* in = fmemopen(text, sizeof text - 1, "r");
        QBSUserOption opt{};
        EXPECT_EQ(testutil::stderrOf([&] { EXPECT_EQ(parseQBSOptions(in, &opt, nullptr), 0); }),
                  level > 3 ? "quenby:QBS:SKIPACL: YES\nquenby:QBS:  \nquenby:QBS:no colon\n" : "");
        std::fclose(in);
    }
}

} // namespace
