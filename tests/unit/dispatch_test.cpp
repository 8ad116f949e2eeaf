// What each command line hands over, seen through recorders that take the
// place of the sub-commands.
#include "test_util.h"

#include <string>
#include <vector>

namespace {

std::string calls; // every recorded call, blank-separated

template <typename... T>
int record(const char* name, T... args)
{
    std::string call = name;
    char sep = '(';
    ((call += sep, call += args == nullptr ? std::string("none") : std::string("'") + args + "'", sep = ','), ...);
    calls += (calls.empty() ? "" : " ") + call + ")";
    return 7;
}

const SubCommandTable recorders = {
    [](const char* a, const char* b, const char* c, const char* d, const char* e, const char* f, const char* g,
       const char* h, const char* i) { return record("updateShadow", a, b, c, d, e, f, g, h, i); },
    [](const char* a, const char* b, const char* c, const char* d) {
        calls += "migDiff=" + std::to_string(migDiff);
        return record("clusterMigDiff", a, b, c, d);
    },
    [](const char* a, const char* b, const char* c, const char* d) { return record("rebuildShadow", a, b, c, d); },
    [](const char* a, const char* b, const char* c, const char* d, const char* e, int n, const char* g) {
        calls += "n=" + std::to_string(n);
        return record("execBunch", a, b, c, d, e, g);
    },
    [](const char* a, const char* b, const char* c) { return record("validateQBSClient", a, b, c); },
    [](const char* a, const char* b, const char* c, const char* d, const char* e) {
        return record("verifyShadow", a, b, c, d, e);
    },
};

TEST(Dispatch, HandsOverExactlyTheArgumentsOfEachForm)
{
    testutil::GlobalsGuard guard;
    const struct {
        std::vector<std::string> words;
        std::string call;
    } cases[] = {
        {{"updateshadow", "o", "n"}, "updateShadow('o','n',none,none,none,none,none,none,none)"},
        {{"updateshadow", "o", "n", "l", "c", "e", "u", "h"}, "updateShadow('o','n','l','c','e','u','h',none,none)"},
        {{"updateshadow", "o", "n", "l", "c", "e", "u", "h", "s", "f"},
         "updateShadow('o','n','l','c','e','u','h','s','f')"},
        {{"clustermigdiff", "a", "b", "c", "d"}, "migDiff=1 clusterMigDiff('a','b','c','d')"},
        {{"rebuildshadow", "q", "l", "s"}, "rebuildShadow('q','l','s',none)"},
        {{"rebuildshadow", "q", "l", "s", "d"}, "rebuildShadow('q','l','s','d')"},
        {{"rebuildshadow", "q", "l", "s", "d", "x"}, "rebuildShadow('q','l','s',none)"},
        {{"execbunch", "i", "c", "e", "s", "db", "100"}, "n=100 execBunch('i','c','e','s','db',none)"},
        {{"execbunch", "i", "c", "e", "s", "db", "100", "/fs"}, "n=100 execBunch('i','c','e','s','db','/fs')"},
        {{"execbunch", "i", "c", "e", "s", "db", "100", "/fs", "x"}, "n=100 execBunch('i','c','e','s','db',none)"},
        {{"execbunch", "i", "c", "e", "s", "db", "4294967297"}, "n=1 execBunch('i','c','e','s','db',none)"},
        {{"execbunch", "i", "c", "e", "s", "db", "-5x"}, "n=-5 execBunch('i','c','e','s','db',none)"},
        {{"validateqbsclient", "m", "n", "srv"}, "validateQBSClient('m','n','srv')"},
        {{"verifyshadow", "s", "p"}, "verifyShadow('s','p',none,none,none)"},
        {{"verifyshadow", "s", "p", "o", "q", "d"}, "verifyShadow('s','p','o','q','d')"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> words = c.words;
        words.insert(words.begin(), "quenby");
        std::vector<char*> argv;
        for (std::string& w : words)
            argv.push_back(w.data());
        argv.push_back(nullptr);
        migDiff = 0;
        calls.clear();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        EXPECT_EQ(dispatch(static_cast<int>(words.size()), argv.data(), recorders), 7) << c.call;
        EXPECT_EQ(testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr(), "") << c.call;
        EXPECT_EQ(calls, c.call);
    }
}

TEST(Dispatch, DebugLevelIsReadWithoutValidation)
{
    testutil::GlobalsGuard guard;
    for (auto [value, level] : {std::pair<const char*, int>{"x", 0}, {"7abc", 7}, {" 3", 3}, {"-2", -2},
                                {"4294967301", 5}, {nullptr, 9}}) { // unset: left alone
        quenby_debug = 9;
        if (value != nullptr)
            guard.setEnv("DEBUGquenby", value);
        else
            unsetenv("DEBUGquenby");
        readDebugLevel();
        EXPECT_EQ(quenby_debug, level) << (value ? value : "unset");
    }
}

} // namespace
