#include "update/shadow_header.h"

#include "records/policy_record.h"
#include "test_util.h"

#include <cerrno>
#include <cstring>
#include <string>

namespace {

const std::string kGood = "%%mshadow0%%:00_BACKUP_FILES_41:1400:/gpfs/fs1:kestrel:3:Mon Nov 23 08:20:00 2026\n";

TEST(ShadowHeader, ParsesAndCarriesEveryField)
{
    ShadowHeader h;
    ASSERT_EQ(parseShadowHeader(kGood.c_str(), &h), 0);
    EXPECT_STREQ(h.dbName, "00_BACKUP_FILES_41");
    EXPECT_EQ(h.formatVersion, 1400);
    EXPECT_STREQ(h.backupDir, "/gpfs/fs1");
    EXPECT_STREQ(h.toolName, "kestrel");
    EXPECT_EQ(h.headerCount, 3);
    EXPECT_STREQ(h.creationDate, "Mon Nov 23 08:20:00 2026\n");

    // Only the first 31 characters of the date are kept.
    std::string longDate = "%%mshadow0%%:db:1:/d:tool:1:" + std::string(40, 'x') + "\n";
    ASSERT_EQ(parseShadowHeader(longDate.c_str(), &h), 0);
    EXPECT_EQ(std::string(h.creationDate), std::string(31, 'x'));
}

TEST(ShadowHeader, EachBrokenFieldHasItsCode)
{
    struct Case {
        std::string line;
        int code;
    } cases[] = {
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
    for (const Case& c : cases) {
        ShadowHeader h;
        EXPECT_EQ(parseShadowHeader(c.line.c_str(), &h), c.code) << c.line;
    }
    // The limits themselves are accepted.
    ShadowHeader h;
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
    HeapBuf line;
    ASSERT_TRUE(line.allocate(16));
    ShadowHeader h;

    testutil::writeFile(dir.file("empty"), "");
    FILE* f = std::fopen(dir.file("empty").c_str(), "r");
    EXPECT_EQ(readShadowHeader(f, &line.ptr, &line.size, &h), -2);
    std::fclose(f);

    // A line longer than the buffer doubles it and is read again whole.
    testutil::writeFile(dir.file("good"), kGood + "next\n");
    f = std::fopen(dir.file("good").c_str(), "r");
    EXPECT_EQ(readShadowHeader(f, &line.ptr, &line.size, &h), 0);
    EXPECT_EQ(line.size, 128);
    EXPECT_EQ(std::string(line.ptr), kGood);
    std::fclose(f);

    HeapBuf small;
    ASSERT_TRUE(small.allocate(16));
    f = std::fopen(dir.file("good").c_str(), "r");
    sysFailOn(SysCall::alloc, 1, ENOMEM);
    EXPECT_EQ(readShadowHeader(f, &small.ptr, &small.size, &h), -3);
    sysFailOn(SysCall::fseek, 1, ESPIPE);
    EXPECT_EQ(readShadowHeader(f, &small.ptr, &small.size, &h), -4);
    std::fclose(f);
}

TEST(ShadowHeader, DefaultsTakeTheDirectoryOfTheOldDatabase)
{
    struct Case {
        const char* path;
        const char* dir;
    } cases[] = {{"/gpfs/fs1/.kestrel/shadow", "/gpfs/fs1/.kestrel"}, {"shadow", "shadow"}, {"/shadow", ""}};
    for (const Case& c : cases) {
        ShadowHeader h;
        setDefaultShadowHeader(&h, c.path);
        EXPECT_STREQ(h.backupDir, c.dir);
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
    FILE* f = std::fopen(dir.file("out").c_str(), "w");
    ASSERT_EQ(writeShadowHeader(f, h, "/new", "Wed Feb  2 10:00:00 2022\n"), 0);
    std::fclose(f);
    EXPECT_EQ(testutil::readFile(dir.file("out")),
              "%%mshadow0%%:mydb:1400:/new:tool:2:Wed Feb  2 10:00:00 2022\n"
              "%%shadow%%:03_COMMENT::1:\n"
              "%%shadow%%:03_COMMENT::2:   This is a machine generated file.\n"
              "%%shadow%%:03_COMMENT::3:   Do not delete or edit!\n"
              "%%shadow%%:03_COMMENT::4:\n");

    // A carried date that lost its line feed still ends the line.
    f = std::fopen(dir.file("out2").c_str(), "w");
    ASSERT_EQ(writeShadowHeader(f, h, "/d", "date-without-end"), 0);
    std::fclose(f);
    EXPECT_EQ(testutil::readFile(dir.file("out2")).substr(0, 40), "%%mshadow0%%:mydb:1400:/d:tool:2:date-wi");
    EXPECT_NE(testutil::readFile(dir.file("out2")).find("date-without-end\n%%shadow%%"), std::string::npos);

    f = std::fopen(dir.file("out3").c_str(), "w");
    sysFailOn(SysCall::fwrite, 3, EIO);
    EXPECT_LT(writeShadowHeader(f, h, "/d", "x\n"), 0);
    std::fclose(f);
}

} // namespace
