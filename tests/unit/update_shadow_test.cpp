// Shadow update failures by injected faults, and outputs that name an input.
#include "update/update_shadow.h"

#include "test_util.h"

namespace {

class UpdateShadowFaults : public testing::Test {
protected:
    testutil::GlobalsGuard guard;
    testutil::ScratchDir dir;
    std::string oldDb = dir.file("old"), newDb = dir.file("new"), list = dir.file("list"), out, err;

    void SetUp() override
    {
        testutil::writeFile(oldDb, testutil::kDbHeader);
        testutil::writeFile(list, testutil::record({}));
    }
    int call(const char* newName, const char* changed, const char* unsupp)
    {
        auto openFiles = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
        int result = 0;
        const auto before = openFiles();
        testing::internal::CaptureStdout();
        err = testutil::stderrOf([&] {
            result = updateShadow(oldDb.c_str(), newName, list.c_str(), changed, dir.file("expired").c_str(), unsupp,
                                  nullptr, nullptr, nullptr);
        });
        out = testing::internal::GetCapturedStdout();
        sysFaultsClear();
        EXPECT_EQ(openFiles(), before) << "a file was left open";
        EXPECT_EQ(testutil::readFile(oldDb), testutil::kDbHeader);
        return result;
    }
};

TEST_F(UpdateShadowFaults, EachFailureNamesItsPlace)
{
    const std::string err = "quenby::UPDATESHADOWERR::1::";
    const std::string fail = "quenby::UPDATESHADOWERR::-1::0::0::0::\n";
    const struct { SysCall call; int nth, errnum; std::string err, resultLine; } rows[] = {
        {SysCall::fwrite, 1, EIO, "", fail},
        {SysCall::ftell, 1, EIO, err + "ftell 1 failed (-1)\n", fail},
        {SysCall::fopen, 1, ENOENT, err + "could not open " + oldDb + " for read (error=2)\n", fail},
        {SysCall::create, 1, EACCES, err + "could not open " + newDb + " for writing (error=13)\n", fail},
        {SysCall::fopen, 2, EMFILE, err + "could not open " + list + " for read (error=24)\n", fail},
        {SysCall::fcntl, 1, EBADF, err + "could not open " + dir.file("expired") + " for writing (error=9)\n", fail},
        // A close or a commit that fails costs one, and nothing reaches its final name.
        {SysCall::fclose, 1, EIO, "", "quenby::UPDATESHADOWERR::-1::1::0::0::\n"},
        {SysCall::fsync, 1, EIO, "", "quenby::UPDATESHADOWERR::-1::1::0::0::\n"},
        {SysCall::rename, 1, EXDEV, "", "quenby::UPDATESHADOWERR::-1::1::0::0::\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.err);
        sysFailOn(row.call, row.nth, row.errnum);
        EXPECT_EQ(call(newDb.c_str(), dir.file("changed").c_str(), dir.file("unsupp").c_str()), -1);
        EXPECT_EQ(out, row.resultLine);
        EXPECT_EQ(this->err, row.err);
        EXPECT_FALSE(std::filesystem::exists(newDb));
        EXPECT_FALSE(std::filesystem::exists(dir.file("changed")));
    }
}

TEST_F(UpdateShadowFaults, NeverWritesOverItsInputs)
{
    EXPECT_EQ(call(oldDb.c_str(), dir.file("changed").c_str(), oldDb.c_str()), -1);
    EXPECT_EQ(err, "quenby::UPDATESHADOWERR::1::output " + oldDb + " is the input " + oldDb + "\n");
    EXPECT_EQ(call(newDb.c_str(), list.c_str(), nullptr), -1);
    EXPECT_EQ(testutil::readFile(list), testutil::record({}));
    EXPECT_EQ(call(newDb.c_str(), dir.file("changed").c_str(), nullptr), 0);
}

} // namespace

namespace {

// A directory that takes no new file: existing outputs are written in place.
TEST_F(UpdateShadowFaults, WritesInPlaceWhereNoTemporaryFileCanBeMade)
{
    for (const char* name : {"new", "changed", "expired"})
        testutil::writeFile(dir.file(name), "yesterday\n");
    sysFailOn(SysCall::create, 1, EACCES, true);
    EXPECT_EQ(call(newDb.c_str(), dir.file("changed").c_str(), nullptr), 0);
    EXPECT_EQ(out, "::UPDATESHADOW::0::1::0::0::\n");
    EXPECT_EQ(testutil::readFile(newDb).rfind("%%mshadow0%%", 0), 0u);
    EXPECT_EQ(testutil::readFile(dir.file("expired")), "yesterday\n");
}

} // namespace
