#include "support/file_open.h"

#include "test_util.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using testutil::GlobalsGuard;
using testutil::ScratchDir;
using testutil::writeFile;

namespace {

// The portable numbering written out independently of the table in the code.
int expectedPortable(int e)
{
    static const std::map<int, int> remapped = {
        {35, 45},   {36, 86},   {37, 49},   {38, 109},  {39, 87},   {40, 85},  {42, 35},  {43, 36},
        {44, 37},   {45, 38},   {46, 39},   {47, 40},   {48, 41},   {49, 42},  {50, 43},  {51, 44},
        {60, 123},  {61, 122},  {62, 119},  {63, 118},  {66, 93},   {67, 126}, {71, 121}, {72, 125},
        {74, 120},  {75, 127},  {84, 116},  {85, 82},   {87, 84},   {88, 57},  {89, 58},  {90, 59},
        {91, 60},   {92, 61},   {93, 62},   {94, 63},   {95, 64},   {96, 65},  {97, 66},  {98, 67},
        {99, 68},   {100, 69},  {101, 70},  {102, 71},  {103, 72},  {104, 73}, {105, 74}, {106, 75},
        {107, 76},  {108, 77},  {109, 115}, {110, 78},  {111, 79},  {112, 80}, {113, 81}, {114, 56},
        {115, 55},  {116, 52},  {122, 88},  {125, 117},
    };
    if (e <= 34)
        return e;
    auto it = remapped.find(e);
    return it != remapped.end() ? it->second : e + 1000;
}

TEST(ErrnoToPortable, WholeRangeMatchesTheFixedNumbering)
{
    for (int e = -5; e <= 200; ++e)
        EXPECT_EQ(errnoToPortable(e), expectedPortable(e)) << "errno " << e;
    EXPECT_EQ(errnoToPortable(100000), 101000);
    EXPECT_EQ(errnoToPortable(-100000), -100000);
}

TEST(CxiErrno, MapsCurrentErrnoWithoutChangingIt)
{
    const struct {
        int err, plain, checked;
    } rows[] = {{0, 0, -1}, {130, 1130, 1130}, {41, 1041, 1041}, {EIO, 5, 5}, {ENAMETOOLONG, 86, 86}};
    for (const auto& r : rows) {
        errno = r.err;
        EXPECT_EQ(cxiErrno(), r.plain) << r.err;
        EXPECT_EQ(errno, r.err);
        EXPECT_EQ(cxiErrnoChecked(), r.checked) << r.err;
        EXPECT_EQ(errno, r.err);
    }
}

TEST(CxiFopen, FailuresGivePortableCodeAndNullStream)
{
    ScratchDir dir;
    ASSERT_EQ(symlink(dir.file("loopB").c_str(), dir.file("loopA").c_str()), 0);
    ASSERT_EQ(symlink(dir.file("loopA").c_str(), dir.file("loopB").c_str()), 0);
    const std::string tooLong = dir.file(std::string(300, 'n'));
    const std::string dirPath = dir.path().string();
    const std::string loop = dir.file("loopA");
    const struct {
        const char* name;
        const char* path;
        const char* mode;
        int code;
    } rows[] = {
        {"missing", "/nonexistent-quenby-dir/none", "r", 2},
        {"directory for writing", dirPath.c_str(), "w", 21},
        {"null path", nullptr, "r", 22},
        {"component too long", tooLong.c_str(), "r", 86},
        {"symlink loop", loop.c_str(), "r", 85},
    };
    for (const auto& r : rows) {
        FILE* stream = reinterpret_cast<FILE*>(0x1); // must be cleared on entry
        EXPECT_EQ(cxiFopen(r.path, r.mode, &stream, inheritNone), r.code) << r.name;
        EXPECT_EQ(stream, nullptr) << r.name;
    }
}

TEST(CxiFopen, DirectoryWithoutSearchPermissionGives13)
{
    ScratchDir dir;
    const std::string locked = dir.file("locked");
    const std::string open = dir.file("open");
    ASSERT_EQ(mkdir(locked.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(open.c_str(), 0755), 0);
    writeFile(locked + "/f", "x");
    writeFile(open + "/f", "x");
    ASSERT_EQ(chmod(locked.c_str(), 0), 0);
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);

    // Root passes every permission check, so the opens run in a child that
    // has given up root; the child's exit status carries the result.
    auto openAsUnprivileged = [](const std::string& path) {
        pid_t pid = fork();
        if (pid < 0)
            return -1;
        if (pid == 0) {
            if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
                _exit(200);
            FILE* stream = nullptr;
            _exit(cxiFopen(path.c_str(), "r", &stream, inheritNone) & 0xff);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    int control = openAsUnprivileged(open + "/f");
    if (control == 200)
        GTEST_SKIP() << "cannot drop root privileges here";
    EXPECT_EQ(control, 0);
    EXPECT_EQ(openAsUnprivileged(locked + "/f"), 13);
    chmod(locked.c_str(), 0755);
}

bool closeOnExec(FILE* stream)
{
    int flags = fcntl(fileno(stream), F_GETFD);
    return flags != -1 && (flags & FD_CLOEXEC) != 0;
}

int acquireCalls = 0;
int releaseCalls = 0;
bool outOfOrder = false; // a release that did not follow its acquire

// Puts counting hooks in place and the originals back afterwards.
struct HookSwap {
    PopenSyncFunc acquire = PopenSyncAcquireP;
    PopenSyncFunc release = PopenSyncReleaseP;
    HookSwap()
    {
        acquireCalls = releaseCalls = 0;
        outOfOrder = false;
        PopenSyncAcquireP = [] { outOfOrder |= acquireCalls++ != releaseCalls; };
        PopenSyncReleaseP = [] { outOfOrder |= ++releaseCalls != acquireCalls; };
    }
    ~HookSwap()
    {
        PopenSyncAcquireP = acquire;
        PopenSyncReleaseP = release;
    }
};

TEST(CxiFopen, InheritanceSetsCloseOnExecAndRunsHooksOnlyForSync)
{
    ScratchDir dir;
    const std::string path = dir.file("f");
    writeFile(path, "data\n");
    EXPECT_EQ(PopenSyncAcquireP, &syncFuncNoop);
    EXPECT_EQ(PopenSyncReleaseP, &syncFuncNoop);
    const struct {
        Inherit_t inherit;
        bool cloexec;
        int hookCalls;
    } rows[] = {
        {inheritNone, true, 0},
        {inheritSync, true, 1},
        {inheritChild, false, 0},
        {static_cast<Inherit_t>(3), false, 0},
    };
    for (const auto& r : rows) {
        HookSwap hooks;
        FILE* stream = nullptr;
        ASSERT_EQ(cxiFopen(path.c_str(), "r", &stream, r.inherit), 0) << r.inherit;
        ASSERT_NE(stream, nullptr);
        EXPECT_EQ(closeOnExec(stream), r.cloexec) << r.inherit;
        char buf[16] = {};
        EXPECT_NE(fgets(buf, sizeof buf, stream), nullptr);
        EXPECT_STREQ(buf, "data\n");
        fclose(stream);
        EXPECT_EQ(acquireCalls, r.hookCalls) << r.inherit;
        EXPECT_EQ(releaseCalls, r.hookCalls) << r.inherit;
        EXPECT_FALSE(outOfOrder);
    }
}

TEST(CxiFopen, SyncHooksAlsoRunAroundFailures)
{
    HookSwap hooks;
    FILE* stream = nullptr;
    EXPECT_EQ(cxiFopen("/nonexistent-quenby-dir/none", "r", &stream, inheritSync), 2);
    EXPECT_EQ(cxiFopen(nullptr, "r", &stream, inheritSync), 22);
    EXPECT_EQ(acquireCalls, 2);
    EXPECT_EQ(releaseCalls, 2);
    EXPECT_FALSE(outOfOrder);
}

TEST(CxiFopen, InjectedFailures)
{
    ScratchDir dir;
    const std::string path = dir.file("f");
    writeFile(path, "data\n");
    GlobalsGuard guard;
    FILE* stream = nullptr;

    sysFailOn(SysCall::fcntl, 1, EBADF);
    EXPECT_EQ(cxiFopen(path.c_str(), "r", &stream, inheritNone), 9);
    EXPECT_EQ(stream, nullptr);

    // Inheriting streams never touch the descriptor flags.
    sysFailOn(SysCall::fcntl, 1, EBADF);
    ASSERT_EQ(cxiFopen(path.c_str(), "r", &stream, inheritChild), 0);
    ASSERT_NE(stream, nullptr);
    fclose(stream);
    sysFaultsClear();

    sysFailOn(SysCall::fopen, 1, 0);
    EXPECT_EQ(cxiFopen(path.c_str(), "r", &stream, inheritNone), -1);
    EXPECT_EQ(stream, nullptr);

    sysFailOn(SysCall::fopen, 1, EMFILE);
    EXPECT_EQ(cxiFopen(path.c_str(), "r", &stream, inheritNone), 24);
    EXPECT_EQ(stream, nullptr);
}

} // namespace
