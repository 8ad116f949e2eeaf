// Error numbers in the fixed numbering; streams opened with or without close-on-exec.
#include "support/file_open.h"

#include "test_util.h"

#include <fcntl.h>
#include <map>

namespace {

TEST(ErrnoToPortable, WholeRangeMatchesTheFixedNumberingAlsoThroughErrno)
{
    // Written out independently of the table in the code.
    const std::map<int, int> remapped = {
        {35, 45}, {36, 86}, {37, 49}, {38, 109}, {39, 87}, {40, 85}, {42, 35}, {43, 36}, {44, 37}, {45, 38}, {46, 39},
        {47, 40}, {48, 41}, {49, 42}, {50, 43}, {51, 44}, {60, 123}, {61, 122}, {62, 119}, {63, 118}, {66, 93},
        {67, 126}, {71, 121}, {72, 125}, {74, 120}, {75, 127}, {84, 116}, {85, 82}, {87, 84}, {88, 57}, {89, 58},
        {90, 59}, {91, 60}, {92, 61}, {93, 62}, {94, 63}, {95, 64}, {96, 65}, {97, 66}, {98, 67}, {99, 68}, {100, 69},
        {101, 70}, {102, 71}, {103, 72}, {104, 73}, {105, 74}, {106, 75}, {107, 76}, {108, 77}, {109, 115}, {110, 78},
        {111, 79}, {112, 80}, {113, 81}, {114, 56}, {115, 55}, {116, 52}, {122, 88}, {125, 117},
    };
    for (int e = -5; e <= 200; ++e) {
        auto it = remapped.find(e);
        int expected = e <= 34 ? e : it != remapped.end() ? it->second : e + 1000;
        errno = e;
        EXPECT_EQ(std::make_tuple(errnoToPortable(e), cxiErrno(), cxiErrnoChecked()),
                  std::make_tuple(expected, expected, expected == 0 ? -1 : expected)) << "errno " << e;
        EXPECT_EQ(errno, e) << "left unchanged";
    }
    EXPECT_EQ(errnoToPortable(100000), 101000);
    EXPECT_EQ(errnoToPortable(-100000), -100000);
}

std::string hookLog; // "a" per acquire, "r" per release

TEST(CxiFopen, CloseOnExecHooksAndFailures)
{
    testutil::ScratchDir dir;
    const std::string path = dir.file("f"), tooLong = dir.file(std::string(300, 'n')); // ENAMETOOLONG is remapped
    testutil::writeFile(path, "data\n");
    const PopenSyncFunc saved[] = {PopenSyncAcquireP, PopenSyncReleaseP};
    PopenSyncAcquireP = [] { hookLog += 'a'; };
    PopenSyncReleaseP = [] { hookLog += 'r'; };
    const struct {
        Inherit_t inherit; SysCall fault; int err, code; bool cloexec; const char* hooks; bool tooLong = false;
    } rows[] = {
        {inheritNone, SysCall::count_, 0, 0, true, ""}, {inheritSync, SysCall::count_, 0, 0, true, "ar"},
        {inheritChild, SysCall::count_, 0, 0, false, ""}, {inheritSync, SysCall::fcntl, EBADF, 9, false, "ar"},
        {inheritChild, SysCall::fcntl, EBADF, 0, false, ""}, // inheriting streams leave the flags alone
        {inheritNone, SysCall::fopen, 0, -1, false, ""},     // a failure never reads as success
        {inheritSync, SysCall::fopen, EMFILE, 24, false, "ar"}, {inheritNone, SysCall::count_, 0, 86, false, "", true}};
    for (const auto& r : rows) {
        testutil::GlobalsGuard guard;
        if (r.fault != SysCall::count_)
            sysFailOn(r.fault, 1, r.err);
        hookLog.clear();
        FILE* stream = reinterpret_cast<FILE*>(0x1); // must be cleared on a failure
        EXPECT_EQ(cxiFopen((r.tooLong ? tooLong : path).c_str(), "r", &stream, r.inherit), r.code);
        EXPECT_EQ(hookLog, r.hooks) << r.inherit;
        EXPECT_EQ(stream != nullptr, r.code == 0) << r.inherit;
        if (stream != nullptr) {
            EXPECT_EQ((fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC) != 0, r.cloexec) << r.inherit;
            fclose(stream);
        }
    }
    PopenSyncAcquireP = saved[0];
    PopenSyncReleaseP = saved[1];
}

} // namespace
