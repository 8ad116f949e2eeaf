// What each command line hands over, seen through recorders that take the
// place of the sub-commands. Usage texts and traces are checked end to end.
#include "test_util.h"

#include <string>
#include <vector>

namespace {

std::vector<std::string> calls;

std::string arg(const char* text)
{
    return text == nullptr ? "none" : std::string("'") + text + "'";
}

template <typename... T>
int record(const char* name, T... args)
{
    std::string call = name;
    call += "(";
    bool first = true;
    auto add = [&](const std::string& a) {
        if (!first)
            call += ',';
        call += a;
        first = false;
    };
    (add(arg(args)), ...);
    call += ")";
    calls.push_back(call);
    return 7;
}

const SubCommandTable recorders = {
    [](const char* a, const char* b, const char* c, const char* d, const char* e, const char* f, const char* g,
       const char* h, const char* i) { return record("updateShadow", a, b, c, d, e, f, g, h, i); },
    [](const char* a, const char* b, const char* c, const char* d) {
        calls.push_back("migDiff=" + std::to_string(migDiff));
        return record("clusterMigDiff", a, b, c, d);
    },
    [](const char* a, const char* b, const char* c, const char* d) { return record("rebuildShadow", a, b, c, d); },
    [](const char* a, const char* b, const char* c, const char* d, const char* e, int n, const char* g) {
        calls.push_back("n=" + std::to_string(n));
        return record("execBunch", a, b, c, d, e, g);
    },
    [](const char* a, const char* b, const char* c) { return record("validateQBSClient", a, b, c); },
    [](const char* a, const char* b, const char* c, const char* d, const char* e) {
        return record("verifyShadow", a, b, c, d, e);
    },
};

struct Dispatched {
    int result;
    std::string out;
    std::string err;
    std::vector<std::string> calls;
};

Dispatched run(std::vector<std::string> words)
{
    words.insert(words.begin(), "quenby");
    std::vector<char*> argv;
    for (std::string& w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    calls.clear();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int result = dispatch(static_cast<int>(words.size()), argv.data(), recorders);
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    return {result, out, err, calls};
}

std::string one(const Dispatched& d)
{
    std::string all;
    for (const std::string& c : d.calls) {
        if (!all.empty())
            all += ' ';
        all += c;
    }
    return all;
}

TEST(Dispatch, HandsOverExactlyTheArgumentsOfEachForm)
{
    testutil::GlobalsGuard guard;
    struct Case {
        std::vector<std::string> words;
        std::string call;
    } cases[] = {
        {{"updateshadow", "o", "n"}, "updateShadow('o','n',none,none,none,none,none,none,none)"},
        {{"updateshadow", "o", "n", "l", "c", "e", "u"}, "updateShadow('o','n','l','c','e','u',none,none,none)"},
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
        {{"execbunch", "i", "c", "e", "s", "db", "abc"}, "n=0 execBunch('i','c','e','s','db',none)"},
        {{"execbunch", "i", "c", "e", "s", "db", "4294967297"}, "n=1 execBunch('i','c','e','s','db',none)"},
        {{"execbunch", "i", "c", "e", "s", "db", "-5x"}, "n=-5 execBunch('i','c','e','s','db',none)"},
        {{"validateqbsclient", "m", "n", "srv"}, "validateQBSClient('m','n','srv')"},
        {{"verifyshadow", "s", "p"}, "verifyShadow('s','p',none,none,none)"},
        {{"verifyshadow", "s", "p", "o"}, "verifyShadow('s','p','o',none,none)"},
        {{"verifyshadow", "s", "p", "o", "q", "d"}, "verifyShadow('s','p','o','q','d')"},
    };
    for (const Case& c : cases) {
        migDiff = 0;
        Dispatched d = run(c.words);
        EXPECT_EQ(d.result, 7) << c.call;
        EXPECT_EQ(one(d), c.call);
        EXPECT_EQ(d.out, "");
        EXPECT_EQ(d.err, "");
    }
}

TEST(Dispatch, DebugLevelIsReadWithoutValidation)
{
    testutil::GlobalsGuard guard;
    struct Case {
        const char* value;
        int level;
    } cases[] = {{"5", 5}, {"x", 0}, {"7abc", 7}, {" 3", 3}, {"-2", -2}, {"4294967301", 5}};
    for (const Case& c : cases) {
        quenby_debug = 0;
        guard.setEnv("DEBUGquenby", c.value);
        readDebugLevel();
        EXPECT_EQ(quenby_debug, c.level) << c.value;
    }
    unsetenv("DEBUGquenby");
    quenby_debug = 0;
    readDebugLevel();
    EXPECT_EQ(quenby_debug, 0);
}

} // namespace
