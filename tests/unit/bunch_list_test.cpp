// Bunch files split into client lists: which lists appear, what each line
// becomes, what is registered, and how every failure ends the run.
#include "bunch/bunch_list.h"

#include "test_util.h"

#include <cerrno>

namespace {

std::string registered;
int addPathResult = 0;

int recordPath(char* path, offset_t index)
{
    registered.append(path).append("=").append(std::to_string(index)).append(";");
    return addPathResult;
}

std::string line(const char* disposition, const char* offset, const std::string& path)
{
    return std::string("1 2 3 ") + disposition + " " + offset + " 2010-01-01 10:00:00.000000 -- " + path + "\n";
}

enum Args { Lists, OldFormat, NoChangeList };

TEST(BunchList, LinesBecomeListsAndIndexEntries)
{
    testutil::GlobalsGuard guard;
    testutil::ScratchDir dir;
    const std::string bunch = dir.file("bunch"), names[] = {dir.file("B"), dir.file("E"), dir.file("S")};
    const std::string none = dir.file("none/list"), cannotOpen = "quenby: could not open output " + none;
    const std::string p9k(9000, 'p'), a8 = line("updated", "8", "/a"), aList = "B:\"/a\"\n|";
    const std::string closing = " errors occurred in closing output files.\n";
    // unopenable: every list is in a missing directory; noBunch: the bunch file is missing.
    struct Case {
        std::string bunch{}; int result = 0; std::string lists{}, registered{}; offset_t low = 0, hi = 0;
        std::string err{}; const char* removePath = nullptr; Args args = Lists; bool noQuotes = false;
        bool unopenable = false; int addResult = 0; SysCall fault = SysCall::count_; int nth = 1; bool repeat = false;
        bool noBunch = false;
    } cases[] = {
        {line("updated", "00000000000012ab", "/fs/dir/a b"), 2, "B:\"/fs/dir/a b\"\n|", "/fs/dir/a b=4779;", 0x12ab,
         0x12ab, ""},
        {line("expired", "500", "/a") + line("ctimech", "300", "/b") + line("expired", "900", "/c"), 5,
         "E:\"/a\"\n\"/c\"\n|S:\"/b\"\n|", "/a=1280;/b=768;/c=2304;", 0x300, 0x900, ""},
        {"", 0, "", "", 0, 0, ""},
        {line("deleted", "5", "/d") + line("updatedX", "7", "/x"), 2, "B:\"/x\"\n|", "/x=7;", 7, 7,
         "quenby: cannot determine disposition for deleted\n"},
        {line("updated", "1", "a\\nb") + line("updated", "2", "c\\\\d") + line("updated", "3", "e\\\\nf"), 2,
         "B:\"a\nb\"\n\"c\\d\"\n\"e\\nf\"\n|", "a\nb=1;c\\d=2;e\\nf=3;", 1, 3, ""},
        {line("updated", "4", "/fs/.snapshots/s1/d/f") + line("updated", "5", "/fs/other"), 2, "B:\"/fs/d/f\"\n|",
         "/fs/d/f=4;", 4, 4, "quenby:parseBackupRecords() [.snapshots/s1] not found in [/fs/other], skipping\n",
         ".snapshots/s1"},
        {line("updated", "4", "/fs/.snapshots/s1/d/f"), 2, "B:\"d/f\"\n|", "d/f=4;", 4, 4, "", "/fs/.snapshots/s1"},
        {line("updated", "4", "/fs/x") + line("expired", "6", "/y"), 3, "B:/fs/x\n|E:/y\n|", "/fs/x=4;/y=6;", 4, 6, "",
         "NONE", Lists, true},
        // A last line without its line feed is not taken.
        {line("updated", "8", p9k) + "1 2 3 updated 9 -- /b", 2, "B:\"" + p9k + "\"\n|", p9k + "=8;", 8, 8, ""},
        {a8 + "1 2 3 updated 9 /b\n", -102, aList, "/a=8;", 8, 8,
         "quenby: could not locate start of file path in 1 2 3 updated 9 /b\n\n"},
        {a8 + "1 2 x updated 9 -- /b\n", -101, aList, "/a=8;", 8, 8,
         "quenby: input line 1 2 x updated 9 -- /b\n could not be parsed\n"},
        {"1 2 3 -- /o/a\n4 5 6 -- /o/b\n", 1, "E:\"/o/a\"\n\"/o/b\"\n|", "", 0, 0, "", nullptr, OldFormat},
        {line("ctimech", "8", "/a"), -1, "", "", 0, 0, "quenby: inconsistent input args\n", nullptr, NoChangeList},
        {.bunch = a8, .result = -103, .err = cannotOpen + "\n", .unopenable = true},
        {.bunch = line("expired", "8", "/a"), .result = -104, .err = cannotOpen + ":\n", .unopenable = true},
        {.bunch = line("ctimech", "8", "/a"), .result = -106, .err = cannotOpen + "\n", .unopenable = true},
        {.bunch = a8, .result = -105, .lists = aList, .registered = "/a=8;",
         .err = "quenby: error while adding path /a to index -7\n", .addResult = -7},
        // The fifth write is the second line's opening quote.
        {.bunch = a8 + a8, .result = -107, .lists = aList, .registered = "/a=8;", .low = 8, .hi = 8,
         .fault = SysCall::fwrite, .nth = 5},
        {.bunch = a8, .result = -110, .lists = aList, .registered = "/a=8;", .low = 8, .hi = 8,
         .err = "quenby: 1" + closing, .fault = SysCall::fflush},
        {.bunch = a8, .result = -110, .lists = aList, .registered = "/a=8;", .low = 8, .hi = 8,
         .err = "quenby: 2" + closing, .fault = SysCall::fclose, .repeat = true},
        // Nothing is done without the bunch file, not even resetting the offsets.
        {.result = -1, .low = -1, .hi = -1,
         .err = "quenby: input file " + dir.file("missing") + " could not be opened\n", .noBunch = true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bunch.substr(0, 60) + std::to_string(c.result));
        testutil::writeFile(bunch, c.bunch);
        for (const std::string& f : names)
            std::remove(f.c_str());
        registered.clear();
        expireOldFormat = 0;
        addPathResult = c.addResult;
        if (c.noQuotes)
            guard.setEnv("KESTREL_NO_QUOTES", "");
        if (c.fault != SysCall::count_)
            sysFailOn(c.fault, c.nth, EIO, c.repeat);
        const std::string in = c.noBunch ? dir.file("missing") : bunch;
        auto list = [&](int i) { return c.unopenable ? none.c_str() : names[i].c_str(); };
        offset_t low = -1, hi = -1;
        testing::internal::CaptureStderr();
        EXPECT_EQ(parseBackupRecords(in.c_str(), c.args == Lists ? list(0) : nullptr, list(1),
                                     c.args == OldFormat ? nullptr : list(2), c.removePath, &low, &hi, recordPath),
                  c.result);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err);
        sysFaultsClear();
        unsetenv("KESTREL_NO_QUOTES");
        std::string lists;
        for (const std::string& f : names)
            if (testutil::fileExists(f))
                lists.append(1, f.back()).append(":").append(testutil::readFile(f)).append("|");
        EXPECT_EQ(lists, c.lists);
        EXPECT_EQ(registered, c.registered);
        EXPECT_EQ(std::make_pair(low, hi), std::make_pair(c.low, c.hi));
        EXPECT_EQ(expireOldFormat, c.args == OldFormat ? 1 : 0);
    }
    expireOldFormat = 0;
}

} // namespace
