// Failure paths of the shadow update, made to happen with injected faults:
// each prints its message, returns its own code and closes every file.
#include "update/update_shadow.h"

#include "test_util.h"

#include <cerrno>
#include <dirent.h>
#include <sys/stat.h>
#include <string>

namespace {

const std::string kHeader = "%%mshadow0%%:00_BACKUP_FILES_41:1400:/gpfs/fs1:kestrel:1:Mon Nov 23 08:20:00 2026\n"
                            "%%shadow%%:03_COMMENT::1:\n"
                            "%%shadow%%:03_COMMENT::2:   This is a machine generated file.\n"
                            "%%shadow%%:03_COMMENT::3:   Do not delete or edit!\n"
                            "%%shadow%%:03_COMMENT::4:\n";
const std::string kRecord =
    "0:0:0000000000000100:1:0:0:0:0:5!a/b/c:6!system;68!2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 root "
    "resdnt\n";
// fwrite calls that the header takes before the first record.
constexpr int kHeaderWrites = 15;

int openDescriptors()
{
    int count = 0;
    DIR* d = opendir("/proc/self/fd");
    while (dirent* e = readdir(d))
        count += e->d_name[0] != '.';
    closedir(d);
    return count;
}

struct Outcome {
    int result;
    std::string out;
    std::string err;
};

class UpdateShadowFaults : public testing::Test {
protected:
    testutil::GlobalsGuard guard;
    testutil::ScratchDir dir;
    std::string oldDb = dir.file("old");
    std::string newDb = dir.file("new");
    std::string list = dir.file("list");

    // A file the old database does not have: listed, then written.
    void newFileOnly()
    {
        testutil::writeFile(oldDb, kHeader);
        testutil::writeFile(list, kRecord);
    }
    // A file that is gone: its expired line, then the record.
    void goneFileOnly()
    {
        testutil::writeFile(oldDb, kHeader + kRecord);
        testutil::writeFile(list, "");
    }

    Outcome run()
    {
        int before = openDescriptors();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        int result = updateShadow(oldDb.c_str(), newDb.c_str(), list.c_str(), dir.file("changed").c_str(),
                                  dir.file("expired").c_str(), dir.file("unsupp").c_str(), dir.file("hsm").c_str(),
                                  nullptr, nullptr);
        Outcome o{result, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
        sysFaultsClear();
        EXPECT_EQ(openDescriptors(), before) << "a file was left open";
        return o;
    }
};

TEST_F(UpdateShadowFaults, FailedWritesNameTheirPlace)
{
    struct Case {
        const char* name;
        bool gone;
        SysCall call;
        int nth;
        int result;
        std::string err;
        std::string resultLine;
    } cases[] = {
        {"record write", false, SysCall::fwrite, kHeaderWrites + 2, -65,
         "quenby::UPDATESHADOWERR::1::output to " + newDb + " failed\n", "quenby::UPDATESHADOWERR::-65::1::0::0::\n"},
        {"changed list write", false, SysCall::fwrite, kHeaderWrites + 1, -1,
         "::updatePDRForBackup 14 failed (-1)\n", "quenby::UPDATESHADOWERR::-1::0::0::0::\n"},
        {"expired list write", true, SysCall::fwrite, kHeaderWrites + 1, -1,
         "::updatePDRForExpire 12 failed (-1)\n", "quenby::UPDATESHADOWERR::-1::0::0::0::\n"},
        {"expired record write", true, SysCall::fwrite, kHeaderWrites + 2, -69, "output to " + newDb + " failed\n",
         "quenby::UPDATESHADOWERR::-69::0::1::0::\n"},
        {"header write", false, SysCall::fwrite, 1, -1, "", "quenby::UPDATESHADOWERR::-1::0::0::0::\n"},
        {"write position", false, SysCall::ftell, 1, -1, "quenby::UPDATESHADOWERR::1::ftell 1 failed (-1)\n",
         "quenby::UPDATESHADOWERR::-1::0::0::0::\n"},
        {"buffers", false, SysCall::alloc, 4, -1, "quenby::UPDATESHADOWERR::1::failed to allocate memory\n",
         "quenby::UPDATESHADOWERR::-1::0::0::0::\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.gone ? goneFileOnly() : newFileOnly();
        std::string before = testutil::readFile(oldDb);
        sysFailOn(c.call, c.nth, EIO);
        Outcome o = run();
        EXPECT_EQ(o.result, c.result);
        EXPECT_EQ(o.out, c.resultLine);
        if (c.err.empty())
            EXPECT_EQ(o.err, "");
        else
            EXPECT_NE(o.err.find(c.err), std::string::npos) << o.err;
        EXPECT_EQ(testutil::readFile(oldDb), before);
    }
}

TEST_F(UpdateShadowFaults, OpenFailuresCarryTheErrorCode)
{
    struct Case {
        int nth;
        int err;
        std::string message;
    } cases[] = {
        {1, ENOENT, "quenby::UPDATESHADOWERR::1::could not open " + oldDb + " for read (error=2)\n"},
        {2, EACCES, "quenby::UPDATESHADOWERR::1::could not open " + newDb + " for writing (error=13)\n"},
        {3, EMFILE, "quenby::UPDATESHADOWERR::1::could not open " + list + " for read (error=24)\n"},
        {6, ENOSPC, "quenby::UPDATESHADOWERR::1::could not open " + dir.file("unsupp") + " for writing (error=28)\n"},
    };
    for (const Case& c : cases) {
        newFileOnly();
        sysFailOn(SysCall::fopen, c.nth, c.err);
        Outcome o = run();
        EXPECT_EQ(o.result, -1);
        EXPECT_EQ(o.err, c.message);
        EXPECT_EQ(o.out, "quenby::UPDATESHADOWERR::-1::0::0::0::\n");
    }
    newFileOnly();
    sysFailOn(SysCall::fcntl, 1, EBADF);
    EXPECT_EQ(run().err, "quenby::UPDATESHADOWERR::1::could not open " + oldDb + " for read (error=9)\n");
}

TEST_F(UpdateShadowFaults, EachFailedCloseLowersTheResult)
{
    newFileOnly();
    sysFailOn(SysCall::fclose, 1, EIO);
    Outcome one = run();
    EXPECT_EQ(one.result, -1);
    EXPECT_EQ(one.out, "quenby::UPDATESHADOWERR::-1::1::0::0::\n");

    // Seven files open, every close failing; the merge's own failure comes first.
    newFileOnly();
    sysFailOn(SysCall::fclose, 1, EIO, true);
    sysFailOn(SysCall::fwrite, kHeaderWrites + 2, EIO);
    Outcome all = run();
    EXPECT_EQ(all.result, -65 - 7);
    // The record still reached the changed list before the failure.
    EXPECT_NE(testutil::readFile(dir.file("changed")).find("updated "), std::string::npos);
}

TEST_F(UpdateShadowFaults, NeverWritesOverItsInputs)
{
    newFileOnly();
    std::string before = testutil::readFile(oldDb);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    // New database and unsupported list named as the old database.
    int result = updateShadow(oldDb.c_str(), oldDb.c_str(), list.c_str(), dir.file("changed").c_str(),
                              dir.file("expired").c_str(), oldDb.c_str(), nullptr, nullptr, nullptr);
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(err, "quenby::UPDATESHADOWERR::1::output " + oldDb + " is the input " + oldDb + "\n");
    EXPECT_EQ(testutil::readFile(oldDb), before);

    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    result = updateShadow(oldDb.c_str(), newDb.c_str(), list.c_str(), list.c_str(), dir.file("expired").c_str(),
                          nullptr, nullptr, nullptr, nullptr);
    testing::internal::GetCapturedStdout();
    err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(testutil::readFile(list), kRecord);
}

TEST_F(UpdateShadowFaults, MissingDatabaseNamesGiveTheOwnUsageText)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int result = updateShadow(oldDb.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Usage: quenby updateShadow <old shadow file> <new shadow file> [<list file> <changed> <expired> "
              "<unsupported> <HSMMigrated> [<subdir>] [<filesetList>]]\n");
    EXPECT_EQ(result, -1);
}

} // namespace

namespace {

// An unused list is removed only when it is a regular file of its own.
TEST_F(UpdateShadowFaults, RemovesOnlyUnusedListsThatAreFilesOfTheirOwn)
{
    newFileOnly();
    std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    // Migration expiry opens neither list; both stay.
    updateShadow(oldDb.c_str(), newDb.c_str(), "/dev/null", "/dev/null", dir.file("expired").c_str(), fifo.c_str(),
                 newDb.c_str(), nullptr, nullptr);
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(testutil::fileExists(fifo));
    EXPECT_EQ(testutil::readFile(newDb).substr(0, 12), "%%mshadow0%%");

    testutil::writeFile(dir.file("unsupp"), "old content\n");
    Outcome o = run();
    EXPECT_EQ(o.result, 0);
    EXPECT_FALSE(testutil::fileExists(dir.file("unsupp")));
}

} // namespace
