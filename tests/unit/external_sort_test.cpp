// The sort command line as a stand-in sort program receives it; query lines and records an index points at.
#include "rebuild/external_sort.h"

#include "rebuild/index_query.h"
#include "rebuild/record_fetch.h"

#include "support/shell_quote.h"
#include "test_util.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <random>
#include <sys/stat.h>

namespace {

using Args = std::vector<std::string>;

class SortCommand : public testing::Test {
protected:
    testutil::GlobalsGuard guard;
    testutil::ScratchDir dir;
    std::string script = dir.file("sort"), argsFile = dir.file("args"), in = dir.file("in"), out = dir.file("o"), err;
    std::string command; // as KESTREL_SORT_OPTIONS holds it

    // The stand-in as the command part; NUL-separated, a newline inside an argument stays visible.
    void useFake(int code, const std::string& before = "", const std::string& after = "")
    {
        testutil::writeFile(script, "#!/bin/sh\nprintf '%s\\0' \"$@\" >" + argsFile + "\nexit " + std::to_string(code));
        chmod(script.c_str(), 0755);
        command = before + script + after;
    }
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
        int rc = 0;
        err = testutil::stderrOf([&] { rc = sortFile(inFile.c_str(), outFile.c_str(), tempDir, "-b -k 2", command.c_str()); });
        return rc;
    }
};

TEST_F(SortCommand, EveryNameArrivesAsOneWordAndRunsNothing)
{
    const std::string pwned = dir.file("pwned"), touch = "touch " + pwned;
    const std::string names[] = {"plain-1.x_y", "a b'c\"d", "x$HOME", "a;" + touch, "*", "line\nbreak",
                                 "$(" + touch + ")", "`" + touch + "`", "a|b&c", "<in>", "~root", "#x", "[ab]?",
                                 "back\\slash", "tab\there", "it's", "''", "(x)", "a{b,c}"};
    useFake(0);
    for (const std::string& name : names) {
        const std::string inFile = dir.file(name), outFile = dir.file("o " + name), temp = dir.file("t" + name);
        EXPECT_EQ(sort(inFile, outFile, temp.c_str()), 0) << name;
        EXPECT_EQ(args(), (Args{"-b", "-k", "2", "-T", temp, "-o", outFile, inFile}));
    }
    EXPECT_FALSE(std::filesystem::exists(pwned));
    // Quoted only when the shell would change the word.
    const char* safe = "/mnt/cluster/fs1/.kestrel-list_1.x+y,z@w%=";
    std::string line;
    appendShellWord(line, safe);
    EXPECT_EQ(line, safe);
    EXPECT_FALSE(shellSafe(""));
    for (char c : std::string(" \t\n\"$;&|<>()`\\*?[#~{'"))
        EXPECT_FALSE(shellSafe((std::string("a") + c).c_str())) << int(c);
}

// A command part of 4096 bytes or more gives way to the system sort; a line of 8192 bytes or more is refused.
TEST_F(SortCommand, CommandPartStatusAndLengthLimits)
{
    useFake(1, "", " -r");
    EXPECT_EQ(sort(in, out, nullptr), 256);
    EXPECT_EQ(args(), (Args{"-r", "-b", "-k", "2", "-T", "/tmp", "-o", out, in}));
    EXPECT_EQ(err, "quenby: sortFile: system(" + script + " -r -b -k 2 -T /tmp -o " + out + " " + in
                       + " > /dev/null) returned 256\n");
    testutil::writeFile(in, "2 b\n1 c\n3 a\n");
    for (size_t length : {4095u, 4096u}) {
        useFake(0, std::string(length - script.size(), '/')); // the same program, a longer name
        EXPECT_EQ(sort(in, out, dir.path.c_str()), 0) << err;
        EXPECT_EQ(args().empty(), length == 4096) << length;
    }
    EXPECT_EQ(testutil::readFile(out), "3 a\n2 b\n1 c\n");
    useFake(2);
    const size_t fixed = std::strlen(" -b -k 2 -T  -o   > /dev/null") + script.size() + out.size() + in.size();
    for (size_t length : {8191u, 8192u, 20000u}) {
        std::string temp(length - fixed, 't');
        temp[0] = '/';
        EXPECT_EQ(sort(in, out, temp.c_str()), length < 8192 ? 512 : -1) << length;
        EXPECT_EQ(args().empty(), length >= 8192) << length;
        EXPECT_EQ(err.rfind("quenby: sortFile: ", 0), 0u) << length;
    }
}

// A line in the driver's form gives what the full conversion gives for it with every blank doubled.
TEST(QueryLine, PlainAndWidenedFormsAgree)
{
    testutil::ScratchDir dir;
    auto fields = [&](const std::string& line) {
        testutil::writeFile(dir.file("q"), line);
        LineSource source;
        QueryPathRoom room;
        queryRecord q{};
        unsigned int eof = 0;
        const int rc = source.open(dir.file("q").c_str()) | readQueryRecord(source, room, &q, &eof);
        return std::to_string(rc) + " " + std::to_string(q.attrFlag) + q.mtimeDate + " " + q.mtimeTime + " "
               + q.ctimeDate + " " + q.ctimeTime + " " + std::to_string(q.fileSize) + std::string(rc ? "" : q.path);
    };
    for (std::string line : {"1 2024-02-23 23:09:53 2024-03-02 09:29:46 103012127 5!a b!c\n", "007 d t d t -1 1!x\n",
                             "-12 12345678901 t d t 123456789012345678 2!ab\n", "1 123456789012 t d t 0 1!a\n"}) {
        std::string wide;
        for (size_t i = 0; i < line.size(); ++i)
            wide += line.substr(i, 1) + (line[i] == ' ' && i < line.find('!') ? " " : "");
        EXPECT_EQ(fields(line), fields(wide)) << line;
    }
}

// Whatever an index holds (a header, a line too long to copy, no offset, the end, more lines than the
// copier's ring holds), a record fetched through the copier is what the reader finds at the offset asked.
TEST(RecordFetch, CopiedRecordsAreThoseReadAtTheirOffsets)
{
    testutil::ScratchDir dir;
    std::string list = testutil::kDbHeader, index;
    std::vector<long long> offsets = {0, 5, -1};
    for (int i = 0; i < 40000; ++i, list += testutil::record({.path = i == 7 ? std::string(2 << 20, 'x') : "p"}))
        offsets.push_back(static_cast<long long>(list.size()));
    offsets.push_back(static_cast<long long>(list.size()));
    std::shuffle(offsets.begin(), offsets.end(), std::mt19937(17));
    for (long long offset : offsets)
        index += (offset == 5 ? "zz" : "") + (std::ostringstream() << std::hex << std::setfill('0') << std::setw(16)
                                                                    << offset).str() + " p\n";
    testutil::writeFile(dir.file("list"), list);
    testutil::writeFile(dir.file("index"), index);
    LineSource at({.access = LineSource::Access::positioned}), direct({.access = LineSource::Access::positioned});
    ASSERT_EQ(at.open(dir.file("list").c_str()) | direct.open(dir.file("list").c_str()), 0);
    RecordFetch fetch(at, {});
    RecordReader reader(direct);
    fetch.map();
    fetch.follow(dir.file("index").c_str());
    // Each side's results and messages; some lines are never asked for, some for another offset.
    auto fetchAll = [&](bool copied) {
        std::vector<std::string> seen;
        std::string messages = testutil::stderrOf([&] {
            for (size_t line = 1; line <= offsets.size(); line += 1 + line % 3) {
                Record rec;
                bool eof = false;
                const long long offset = offsets[line - 1] + (line % 5 == 0);
                const int rc = copied ? fetch.recordOf(line, offset, rec, eof) : reader.recordAt(offset, rec, eof);
                seen.push_back(std::to_string(rc) + (rc < -1 || eof ? "" : std::string(rec.line, rec.length)));
            }
        });
        return std::pair(seen, messages);
    };
    EXPECT_EQ(fetchAll(true), fetchAll(false));
    EXPECT_EQ(fetch.close(), 0);
}

} // namespace
