#include "update/shadow_header.h"

#include "records/policy_record.h"
#include "test_util.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>

namespace {

const std::string kGood = "%%mshadow0%%:00_BACKUP_FILES_41:1400:/mnt/cluster/fs1:kestrel:3:Mon Nov 23 08:20:00 2026\n";

TEST(ShadowHeader, ParsesAndCarriesEveryField)
{
    ShadowHeader h;
    ASSERT_EQ(parseShadowHeader(kGood.c_str(), &h), 0);
    EXPECT_EQ(std::make_tuple(std::string(h.dbName), h.formatVersion, std::string(h.backupDir), std::string(h.toolName),
                              h.headerCount, std::string(h.creationDate)),
              std::make_tuple("00_BACKUP_FILES_41", 1400, "/mnt/cluster/fs1", "kestrel", 3, "Mon Nov 23 08:20:00 2026\n"));
    // Only the first 31 characters of the date are kept.
    std::string longDate = "%%mshadow0%%:db:1:/d:tool:1:" + std::string(40, 'x') + "\n";
    ASSERT_EQ(parseShadowHeader(longDate.c_str(), &h), 0);
    EXPECT_EQ(std::string(h.creationDate), std::string(31, 'x'));
}

TEST(ShadowHeader, EachBrokenFieldHasItsCode)
{
    const std::pair<std::string, int> cases[] = {
        {"0:0:1:1:0:0:0:0:1!a:1!p;56!x\n", -5},
        {"%%mshadow0%%", -6},
        {"%%mshadow0%%:no-more-colons\n", -7},
        {"%%mshadow0%%:" + std::string(20, 'n') + ":1400:/d:kestrel:1:date\n", -7},
        {"%%mshadow0%%::1400:/d:kestrel:1:date\n", -7},
        {"%%mshadow0%%:db:\n", -8},
        {"%%mshadow0%%:db:vers:/d:kestrel:1:date\n", -9},
        {"%%mshadow0%%:db:1400\n", -10},
        {"%%mshadow0%%:db:1400:/no/end\n", -11},
        {"%%mshadow0%%:db:1400:/" + std::string(4096, 'd') + ":kestrel:1:date\n", -11},
        {"%%mshadow0%%:db:1400:/d:k:1:date\n", -12},
        {"%%mshadow0%%:db:1400:/d:" + std::string(33, 't') + ":1:date\n", -12},
        {"%%mshadow0%%:db:1400:/d:kestrel\n", -12},
        {"%%mshadow0%%:db:1400:/d:kestrel:count:date\n", -13},
        {"%%mshadow0%%:db:1400:/d:kestrel:1\n", -14},
    };
    ShadowHeader h;
    for (const auto& [line, code] : cases)
        EXPECT_EQ(parseShadowHeader(line.c_str(), &h), code) << line;
    // The limits themselves are accepted.
    std::string limits = "%%mshadow0%%:" + std::string(19, 'n') + ":1:/" + std::string(4095, 'd') + ":tt:1:d\n";
    EXPECT_EQ(parseShadowHeader(limits.c_str(), &h), 0);
    limits = "%%mshadow0%%:n:1::" + std::string(32, 't') + ":1:d\n";
    EXPECT_EQ(parseShadowHeader(limits.c_str(), &h), 0);
    EXPECT_STREQ(h.backupDir, "");
}

TEST(ShadowHeader, ReadFailuresOfTheFirstLine)
{
    testutil::GlobalsGuard guard;
    testutil::ScratchDir dir;
    ShadowHeader h;
    testutil::writeFile(dir.file("empty"), "");
    testutil::writeFile(dir.file("good"), kGood + "next\n");
    // `size`: the line buffer after the call; a line longer than it doubles it and is read again whole.
    const struct {
        const char* file;
        SysCall fault;
        int rc, size;
    } rows[] = {{"empty", SysCall::count_, -2, 16}, {"good", SysCall::count_, 0, 128}, {"good", SysCall::alloc, -3, 16},
                {"good", SysCall::fseek, -4, 32}};
    for (const auto& r : rows) {
        HeapBuf line;
        ASSERT_TRUE(line.allocate(16));
        FILE* f = std::fopen(dir.file(r.file).c_str(), "r");
        if (r.fault != SysCall::count_)
            sysFailOn(r.fault, 1, EIO);
        EXPECT_EQ(readShadowHeader(f, &line.ptr, &line.size, &h), r.rc) << r.file << r.rc;
        EXPECT_EQ(line.size, r.size) << r.rc;
        EXPECT_EQ(r.rc == 0, std::string(line.ptr) == kGood) << r.rc;
        std::fclose(f);
        sysFaultsClear();
    }
}

TEST(ShadowHeader, DefaultsTakeTheDirectoryOfTheOldDatabase)
{
    for (auto [path, dirName] : {std::pair<const char*, const char*>{"/mnt/cluster/fs1/.kestrel/shadow", "/mnt/cluster/fs1/.kestrel"},
                                  {"shadow", "shadow"}, {"/shadow", ""}}) {
        ShadowHeader h;
        setDefaultShadowHeader(&h, path);
        EXPECT_STREQ(h.backupDir, dirName);
        EXPECT_STREQ(h.dbName, "00_BACKUP_FILES_41");
        EXPECT_STREQ(h.toolName, "kestrel");
        EXPECT_EQ(h.headerCount, 1);
    }
}

TEST(ShadowHeader, WritesFiveLinesWithFormat1400)
{
    testutil::GlobalsGuard guard;
    testutil::ScratchDir dir;
    ShadowHeader h;
    ASSERT_EQ(parseShadowHeader("%%mshadow0%%:mydb:1300:/old:tool:2:Tue Jan  1 00:00:00 2019\n", &h), 0);
    const std::string comments = "%%shadow%%:03_COMMENT::1:\n"
                                 "%%shadow%%:03_COMMENT::2:   This is a machine generated file.\n"
                                 "%%shadow%%:03_COMMENT::3:   Do not delete or edit!\n"
                                 "%%shadow%%:03_COMMENT::4:\n";
    // A carried date that lost its line feed still ends the line.
    for (const char* date : {"Wed Feb  2 10:00:00 2022\n", "date-without-end"}) {
        FILE* f = std::fopen(dir.file("out").c_str(), "w");
        ASSERT_EQ(writeShadowHeader(f, h, "/new", date), 0);
        std::fclose(f);
        EXPECT_EQ(testutil::readFile(dir.file("out")),
                  "%%mshadow0%%:mydb:1400:/new:tool:2:" + std::string(date).substr(0, 24) + "\n" + comments);
    }
    FILE* f = std::fopen(dir.file("out").c_str(), "w");
    sysFailOn(SysCall::fwrite, 3, EIO);
    EXPECT_LT(writeShadowHeader(f, h, "/d", "x\n"), 0);
    std::fclose(f);
}

} // namespace
