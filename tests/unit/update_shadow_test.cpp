// Failure paths of the shadow update, made to happen with injected faults:
// each prints its message, returns its own code and closes every file.
#include "update/update_shadow.h"

#include "test_util.h"

#include <cerrno>
#include <dirent.h>
#include <sys/stat.h>
#include <string>

namespace {

const std::string kHeader = "%%mshadow0%%:00_BACKUP_FILES_41:1400:/mnt/cluster/fs1:kestrel:1:Mon Nov 23 08:20:00 2026\n"
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
    std::string out, err;
};

class UpdateShadowFaults : public testing::Test {
protected:
    testutil::GlobalsGuard guard;
    testutil::ScratchDir dir;
    std::string oldDb = dir.file("old"), newDb = dir.file("new"), list = dir.file("list");

    // gone: the old database has a file that is gone (its expired line, then the record);
    // else the list has one the old database lacks (listed, then written).
    void prepare(bool gone)
    {
        testutil::writeFile(oldDb, gone ? kHeader + kRecord : kHeader);
        testutil::writeFile(list, gone ? "" : kRecord);
    }
    Outcome call(const char* newName, const char* listName, const char* changed, const char* unsupp,
                 const char* hsm)
    {
        int before = openDescriptors();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        int result = updateShadow(oldDb.c_str(), newName, listName, changed, dir.file("expired").c_str(), unsupp, hsm,
                                  nullptr, nullptr);
        Outcome o{result, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
        sysFaultsClear();
        EXPECT_EQ(openDescriptors(), before) << "a file was left open";
        return o;
    }
    Outcome run()
    {
        return call(newDb.c_str(), list.c_str(), dir.file("changed").c_str(), dir.file("unsupp").c_str(),
                    dir.file("hsm").c_str());
    }
};

TEST_F(UpdateShadowFaults, EachFailureNamesItsPlace)
{
    const std::string err = "quenby::UPDATESHADOWERR::1::", fail = "quenby::UPDATESHADOWERR::-1::0::0::0::\n";
    // `exact`: the whole of stderr, else a part of it.
    struct Case {
        const char* name; bool gone; SysCall call; int nth, errnum, result; std::string err, resultLine;
        bool exact = false;
    } cases[] = {
        {"record write", false, SysCall::fwrite, kHeaderWrites + 2, EIO, -65, err + "output to " + newDb + " failed\n",
         "quenby::UPDATESHADOWERR::-65::1::0::0::\n"},
        {"changed list write", false, SysCall::fwrite, kHeaderWrites + 1, EIO, -1,
         "::updatePDRForBackup 14 failed (-1)\n", fail},
        {"expired list write", true, SysCall::fwrite, kHeaderWrites + 1, EIO, -1,
         "::updatePDRForExpire 12 failed (-1)\n", fail},
        {"expired record write", true, SysCall::fwrite, kHeaderWrites + 2, EIO, -69, "output to " + newDb + " failed\n",
         "quenby::UPDATESHADOWERR::-69::0::1::0::\n"},
        {"header write", false, SysCall::fwrite, 1, EIO, -1, "", fail, true},
        {"write position", false, SysCall::ftell, 1, EIO, -1, err + "ftell 1 failed (-1)\n", fail},
        {"buffers", false, SysCall::alloc, 4, EIO, -1, err + "failed to allocate memory\n", fail},
        {"open old", false, SysCall::fopen, 1, ENOENT, -1, err + "could not open " + oldDb + " for read (error=2)\n",
         fail, true},
        {"open new", false, SysCall::fopen, 2, EACCES, -1,
         err + "could not open " + newDb + " for writing (error=13)\n", fail, true},
        {"open list", false, SysCall::fopen, 3, EMFILE, -1, err + "could not open " + list + " for read (error=24)\n",
         fail, true},
        {"open unsupported", false, SysCall::fopen, 6, ENOSPC, -1,
         err + "could not open " + dir.file("unsupp") + " for writing (error=28)\n", fail, true},
        {"close-on-exec", false, SysCall::fcntl, 1, EBADF, -1,
         err + "could not open " + oldDb + " for read (error=9)\n", fail, true},
        {"close", false, SysCall::fclose, 1, EIO, -1, "", "quenby::UPDATESHADOWERR::-1::1::0::0::\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        prepare(c.gone);
        std::string before = testutil::readFile(oldDb);
        sysFailOn(c.call, c.nth, c.errnum);
        Outcome o = run();
        EXPECT_EQ(o.result, c.result);
        EXPECT_EQ(o.out, c.resultLine);
        if (c.exact)
            EXPECT_EQ(o.err, c.err);
        else
            EXPECT_NE(o.err.find(c.err), std::string::npos) << o.err;
        EXPECT_EQ(testutil::readFile(oldDb), before);
    }

    // Seven files open, every close failing; the merge's own failure comes first.
    prepare(false);
    sysFailOn(SysCall::fclose, 1, EIO, true);
    sysFailOn(SysCall::fwrite, kHeaderWrites + 2, EIO);
    EXPECT_EQ(run().result, -65 - 7);
    // The record still reached the changed list before the failure.
    EXPECT_NE(testutil::readFile(dir.file("changed")).find("updated "), std::string::npos);
}

TEST_F(UpdateShadowFaults, NeverWritesOverItsInputsAndNeedsBothDatabases)
{
    prepare(false);
    // New database and unsupported list named as the old database; the list as the changed list.
    Outcome o = call(oldDb.c_str(), list.c_str(), dir.file("changed").c_str(), oldDb.c_str(), nullptr);
    EXPECT_EQ(o.result, -1);
    EXPECT_EQ(o.err, "quenby::UPDATESHADOWERR::1::output " + oldDb + " is the input " + oldDb + "\n");
    EXPECT_EQ(call(newDb.c_str(), list.c_str(), list.c_str(), nullptr, nullptr).result, -1);
    EXPECT_EQ(testutil::readFile(oldDb), kHeader);
    EXPECT_EQ(testutil::readFile(list), kRecord);

    o = call(nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(o.out, "");
    EXPECT_EQ(o.err, "Usage: quenby updateShadow <old shadow file> <new shadow file> [<list file> <changed> <expired> "
                     "<unsupported> <HSMMigrated> [<subdir>] [<filesetList>]]\n");
    EXPECT_EQ(o.result, -1);
}

// An unused list is removed only when it is a regular file of its own.
TEST_F(UpdateShadowFaults, RemovesOnlyUnusedListsThatAreFilesOfTheirOwn)
{
    prepare(false);
    std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // Migration expiry opens neither list; both stay.
    call(newDb.c_str(), "/dev/null", "/dev/null", fifo.c_str(), newDb.c_str());
    EXPECT_TRUE(testutil::fileExists(fifo));
    EXPECT_EQ(testutil::readFile(newDb).substr(0, 12), "%%mshadow0%%");

    testutil::writeFile(dir.file("unsupp"), "old content\n");
    EXPECT_EQ(run().result, 0);
    EXPECT_FALSE(testutil::fileExists(dir.file("unsupp")));
}

} // namespace
