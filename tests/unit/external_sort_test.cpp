// The sort command line as a stand-in sort program receives it: words, quoting and length limits.
#include "rebuild/external_sort.h"

#include "support/shell_quote.h"
#include "test_util.h"

#include <cstring>
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

} // namespace
