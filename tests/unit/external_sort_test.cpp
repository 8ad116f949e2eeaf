// The sort command line as a stand-in sort program receives it, the quoting
// of names on it, and the sorted index of a PDR list made by the real sort.
#include "rebuild/external_sort.h"

#include "support/shell_quote.h"
#include "test_util.h"

#include <cerrno>
#include <cstring>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using Args = std::vector<std::string>;

const std::string kComment = "%%shadow%%:03_COMMENT::1:\n";

std::string hex16(size_t offset)
{
    char text[17];
    std::snprintf(text, sizeof text, "%016zx", offset);
    return text;
}

std::string pdr(const std::string& head, const std::string& path)
{
    return head + ":" + std::to_string(path.size()) + "!" + path
           + ":6!system;68!2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 root resdnt\n";
}

class SortCommand : public testing::Test {
protected:
    testutil::GlobalsGuard guard;
    testutil::ScratchDir dir;
    std::string script = dir.file("fake-sort"), argsFile = dir.file("args");
    std::string in = dir.file("in"), out = dir.file("out"), err;

    void SetUp() override
    {
        unsetenv("KESTREL_SORT_OPTIONS");
        // NUL-separated, so a newline inside an argument stays visible.
        testutil::writeFile(script, "#!/bin/sh\nprintf '%s\\0' \"$@\" > " + argsFile + "\nexit \"$FAKE_EXIT\"\n");
        chmod(script.c_str(), 0755);
    }
    // The stand-in as the whole command part.
    void useFake(int code, const std::string& before = "", const std::string& after = "")
    {
        guard.setEnv("KESTREL_SORT_OPTIONS", "FAKE_EXIT=" + std::to_string(code) + " " + before + script + after);
    }
    // What the stand-in received; empty when it did not run.
    Args args()
    {
        Args got;
        std::string text = testutil::readFile(argsFile);
        for (size_t start = 0, end; (end = text.find('\0', start)) != std::string::npos; start = end + 1)
            got.push_back(text.substr(start, end - start));
        std::remove(argsFile.c_str());
        return got;
    }
    int sort(const std::string& inFile, const std::string& outFile, const char* tempDir)
    {
        testing::internal::CaptureStderr();
        int rc = sortFile(inFile.c_str(), outFile.c_str(), tempDir, "-b -k 2");
        err = testing::internal::GetCapturedStderr();
        return rc;
    }
};

TEST_F(SortCommand, EveryNameArrivesAsOneWordAndRunsNothing)
{
    const std::string pwned = dir.file("pwned"), touch = "touch " + pwned;
    const std::string names[] = {"plain-1.x_y", "a b'c\"d", "x$HOME", "a;" + touch, "*", "line\nbreak", "$(" + touch + ")",
                                 "`" + touch + "`", "a|b&c", "<in>", "~root", "#x", "[ab]?", "back\\slash", "tab\there",
                                 "it's", "''", "(x)"};
    useFake(0);
    for (const std::string& name : names) {
        const std::string inFile = dir.file(name), outFile = dir.file("o " + name), temp = dir.file("t" + name);
        EXPECT_EQ(sort(inFile, outFile, temp.c_str()), 0) << name;
        EXPECT_EQ(args(), (Args{"-b", "-k", "2", "-T", temp, "-o", outFile, inFile}));
        EXPECT_EQ(err, "");
    }
    EXPECT_FALSE(testutil::fileExists(pwned));
}

TEST_F(SortCommand, RunsTheCommandPartAndReturnsTheRawStatus)
{
    const std::string systemSort
        = testutil::fileExists("/etc/debian_version") ? "LC_ALL=C /usr/bin/sort" : "LC_ALL=C /bin/sort";
    // Code -1: no stand-in; the system sort fails on the missing input and complains first.
    const std::tuple<int, const char*, int> rows[] = {{-1, "", 512}, {0, "", 0}, {2, "", 512}, {1, " -r", 256}};
    for (const auto& [code, own, rc] : rows) {
        if (code >= 0)
            useFake(code, "", own);
        const std::string command = code < 0 ? systemSort : std::getenv("KESTREL_SORT_OPTIONS");
        EXPECT_EQ(sort(in, out, nullptr), rc) << command;
        Args expected{"-b", "-k", "2", "-T", "/tmp", "-o", out, in};
        if (*own != '\0')
            expected.insert(expected.begin(), own + 1);
        EXPECT_EQ(args(), code < 0 ? Args{} : expected);
        const std::string message = "quenby: sortFile: system(" + command + " -b -k 2 -T /tmp -o " + out + " " + in
                                    + " > /dev/null) returned " + std::to_string(rc) + "\n";
        EXPECT_EQ(code < 0 ? err.substr(err.find("quenby: ")) : err, rc == 0 ? "" : message);
    }
    EXPECT_EQ(predefinedSortCommand, systemSort);
}

TEST_F(SortCommand, OverlongPartsAreIgnoredOrRefused)
{
    const size_t fakeLength = std::strlen("FAKE_EXIT=0 ") + script.size();
    for (size_t length : {4095u, 4096u}) {
        testutil::writeFile(in, "2 b\n1 c\n3 a\n");
        std::remove(out.c_str());
        useFake(0, std::string(length - fakeLength, '/')); // the same program, a longer name
        EXPECT_EQ(sort(in, out, dir.path().c_str()), 0) << err;
        EXPECT_EQ(args().empty(), length == 4096) << length;
        EXPECT_EQ(testutil::readFile(out), length == 4096 ? "3 a\n2 b\n1 c\n" : "") << length;
    }
    // The line's length without its temp dir, measured from a run's message.
    useFake(2);
    sort(in, out, "/t");
    args();
    const size_t fixed = err.rfind(") returned") - err.find("system(") - 7 - 2;
    for (size_t length : {8191u, 8192u, 20000u}) {
        std::string temp(length - fixed, 't');
        temp[0] = '/';
        EXPECT_EQ(sort(in, out, temp.c_str()), length < 8192 ? 512 : -1) << length;
        EXPECT_EQ(args().empty(), length >= 8192) << length;
        EXPECT_EQ(err.rfind("quenby: sortFile: ", 0), 0u) << length;
    }
}

TEST(ShellQuote, QuotesEveryWordTheShellWouldChange)
{
    const std::pair<std::string, std::string> rows[] = {
        {"/mnt/cluster/fs1/.kestrel-list_1.x+y,z@w%=", "/mnt/cluster/fs1/.kestrel-list_1.x+y,z@w%="},
        {"", "''"},
        {"it's", "'it'\\''s'"},
        {"''", "''\\'''\\'''"},
        {"a{b,c}", "'a{b,c}'"}, // bash as /bin/sh expands it into two words
    };
    for (const auto& [word, appended] : rows) {
        std::string line = "x ";
        appendShellWord(line, word.c_str());
        EXPECT_EQ(line, "x " + appended) << word;
        EXPECT_EQ(shellSafe(word.c_str()), word == appended) << word;
    }
    for (char c : std::string(" \t\n\"$;&|<>()`\\*?[#~")) {
        std::string line;
        appendShellWord(line, (std::string("a") + c).c_str());
        EXPECT_EQ(line, std::string("'a") + c + "'") << int(c);
    }
}

class SortPDRList : public SortCommand {
protected:
    std::string list = dir.file("list"), sorted = dir.file("sorted"), index = list + ".path";
    char* expire = nullptr;

    ~SortPDRList() override { std::free(expire); }
    int run(const char* listName, const char* sortedName)
    {
        std::free(std::exchange(expire, nullptr));
        testing::internal::CaptureStderr();
        int rc = sortPDRListByPathname(listName, sortedName, &expire, dir.path().c_str());
        err = testing::internal::GetCapturedStderr();
        return rc;
    }
};

TEST_F(SortPDRList, IndexSortedByWholePathWithExpireDataFromTheFirstRecord)
{
    // An offset is where the reader started: a skipped header line belongs to the next record.
    const std::string paths[] = {"b", "a b", "", "A", "a", "a b", "a\tb", "a/c", ".kestrelShadow"};
    std::string mixed = kComment, lines[std::size(paths)], mixedSorted;
    for (size_t i = 0, start = 0; i < std::size(paths); ++i) {
        mixed += paths[i].empty() ? kComment : pdr("3:1:" + hex16(i) + ":5:7:0:0:b", paths[i]);
        lines[i] = hex16(start) + " " + paths[i] + "\n";
        start = paths[i].empty() ? start : mixed.size();
    }
    for (int i : {8, 3, 4, 6, 1, 5, 7, 0})
        mixedSorted += lines[i];
    const std::string first = pdr("a0:fffffff:5:6:7:1c:2d:b", "p");
    const std::tuple<std::string, const char*, std::string> rows[] = {
        {mixed, "3:1:000000000000000d:-0x1:0:0:0:0", mixedSorted},
        {"", nullptr, ""},
        {kComment, nullptr, ""},
        {first + pdr("1:2:3:4:5:6:7:8", "o"), "a0:fffffff:000000000000000d:-0x1:0:1c:2d:0",
         hex16(first.size()) + " o\n0000000000000000 p\n"},
    };
    for (const auto& [content, wantExpire, wantSorted] : rows) {
        testutil::writeFile(list, content);
        EXPECT_EQ(run(list.c_str(), sorted.c_str()), 0) << err;
        EXPECT_EQ(testutil::readFile(sorted), wantSorted);
        EXPECT_EQ(expire == nullptr ? "(untouched)" : std::string(expire), wantExpire ? wantExpire : "(untouched)");
        EXPECT_FALSE(testutil::fileExists(index));
    }
}

TEST_F(SortPDRList, FailuresReturnTheirCode)
{
    const std::string missing = dir.file("none");
    testutil::writeFile(list, "0:0:zz\n");
    EXPECT_EQ(run(list.c_str(), sorted.c_str()), -1); // the reader's result
    EXPECT_EQ(err.rfind("quenby: failed to parse shadow line [1]0:0:zz\n", 0), 0u) << err;
    EXPECT_EQ(run(nullptr, sorted.c_str()), -1);
    EXPECT_EQ(run(list.c_str(), nullptr), -1);
    EXPECT_EQ(err, "");
    EXPECT_EQ(run(missing.c_str(), sorted.c_str()), -1);
    EXPECT_EQ(err, "quenby: fopen scan result file: " + std::string(std::strerror(ENOENT))
                       + "\nquenby: sortPDRListByPathname: could not open " + missing + "\n");
    // A failing sort gives its status; the unsorted index is gone all the same.
    testutil::writeFile(list, pdr("0:0:1:1:0:0:0:0", "p"));
    useFake(2);
    EXPECT_EQ(run(list.c_str(), sorted.c_str()), 512);
    EXPECT_EQ(args(), (Args{"-b", "-k", "2", "-T", dir.path().string(), "-o", sorted, index}));
    EXPECT_FALSE(testutil::fileExists(index));
}

} // namespace
