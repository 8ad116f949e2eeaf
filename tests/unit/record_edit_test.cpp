#include "records/record_edit.h"

#include "test_util.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

const std::string kShow = "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 root resdnt";
const std::string kPrefix = "0:0:000000000000abcd:1:0:0:0:0:5!a/b/c:6!system;";
const std::string kLine = kPrefix + "68!" + kShow + "\n";

TEST(ChangePDRState, RewritesOnlyTheFlagField)
{
    const struct {
        std::string flag;
        int state, rc;
        std::string after, rest = "5!a/b/c:6!p;3!abc\n";
    } rows[] = {
        {"0", 9, 1, "0"},
        {"0", 0x10, 1, "0"},
        {"0", 0xf, 0, "f"},
        {"0000000b", PDR_NORMAL, 0, "00000000"},
        {"0", PDR_EXPIRE, 0, "e"},
        {"ab", PDR_METACH, 0, "0a"},
        {"1C", PDR_DELETE, 0, "0d"},
        {"0", PDR_BACKUP, 0, "b", "9!x:1:2!y!z\n"}, // only the first "!" counts
        {"0", PDR_BACKUP, 2, "0", "5 a/b/c\n"},
    };
    for (const auto& row : rows) {
        std::string line = "0:0:1:1:0:0:0:" + row.flag + ":" + row.rest;
        EXPECT_EQ(changePDRState(line.data(), row.state), row.rc) << row.flag << " " << row.state;
        EXPECT_EQ(std::string(line.c_str()), "0:0:1:1:0:0:0:" + row.after + ":" + row.rest);
    }
}

TEST(UpdatePDRForBackupExpire, BuildsWorkListLinesOrRejects)
{
    const std::string longShow = std::string(599, 's') + "E";
    const struct {
        std::string line;
        const char* keyword;
        offset_t offset;
        int rc;
        std::string expected;
    } rows[] = {
        {kLine, KEYWORD_UPDATED, 0x1f40, 1,
         "0:0:000000000000abcd:1:0:0:0:0:5!a/b/c:6!system;93!updated 0000000000001f40 2010-01-01 "
         "10:00:00.000000 2010-01-02 11:30:00.000000 42 root resdnt\n"},
        {kLine, KEYWORD_EXPIRED, 0x7fffffffffffffffLL, 1, kPrefix + "93!expired 7fffffffffffffff " + kShow + "\n"},
        // The prefix ends at the last ";", not at one inside the path.
        {"0:0:1:1:0:0:0:0:5!a;b;c:6!system;68!" + kShow + "\n", KEYWORD_UPDATED, 0xab, 1,
         "0:0:1:1:0:0:0:0:5!a;b;c:6!system;93!updated 00000000000000ab " + kShow + "\n"},
        {kPrefix + "5!abcdefgh\n", KEYWORD_CTIMECH, 1, 1, kPrefix + "30!ctimech 0000000000000001 abcde\n"},
        {kPrefix + "600!" + longShow + "\n", KEYWORD_UPDATED, 2, 1,
         kPrefix + "625!updated 0000000000000002 " + longShow.substr(0, 509) + "\n"},
        // Rejected: the prefix is copied before the SHOW length is read.
        {"0:0:1:1:0:0:0:0:5!a/b/c:6!system!68!" + kShow + "\n", KEYWORD_UPDATED, 1, -1, ""},
        {kPrefix + "0!" + kShow + "\n", KEYWORD_UPDATED, 1, -2, kPrefix},
        {kPrefix + "-68!" + kShow + "\n", KEYWORD_UPDATED, 1, -2, kPrefix},
        {kPrefix + "x!" + kShow + "\n", KEYWORD_UPDATED, 1, -2, kPrefix},
        {kPrefix + "68 " + kShow + "\n", KEYWORD_UPDATED, 1, -3, kPrefix},
    };
    for (const auto& row : rows) {
        std::vector<char> out(WORK_LINE_BUF_SIZE, '\0');
        EXPECT_EQ(updatePDRForBackupExpire(out.data(), row.line.c_str(), row.keyword, row.offset), row.rc)
            << row.line;
        EXPECT_EQ(std::string(out.data()), row.expected);
    }
}

TEST(WorkListWriters, WriteOrReport)
{
    const std::string zeroLen = kPrefix + "0!" + kShow + "\n";
    const std::string huge = "0:0:1:1:0:0:0:0:40000!" + std::string(40000, 'h') + ":6!system;68!" + kShow + "\n";
    const std::string updated = kPrefix + "93!updated 0000000000001f40 " + kShow + "\n";
    const std::string expired = kPrefix + "93!expired 0000000000001f40 " + kShow + "\n";
    auto msgB = [](const std::string& line, const std::string& built, const char* rc) {
        return "quenby: failed to update PDR(b): [" + line + "] [a/b/c] [" + built + "] 0x1f40 " + rc + "\n";
    };
    auto msgE = [](const std::string& line, const std::string& built) {
        return "quenby: failed to update PDR(e): " + line + " a/b/c " + built + " 1f40\n";
    };
    const int expire = -1; // the expiry writer instead of the backup writer
    // Nothing written means result -1.
    const struct {
        int state;
        std::string line;
        bool failWrite;
        std::string written, err;
        bool wholeErr = true;
    } rows[] = {
        {PDR_BACKUP, kLine, false, updated, ""},
        {PDR_CHANGE, kLine, false, "", msgB(kLine, "", "-1")},
        {PDR_BACKUP, zeroLen, false, "", msgB(zeroLen, kPrefix, "-2")},
        {PDR_BACKUP, kLine, true, "", msgB(kLine, updated, "-1")},
        {expire, kLine, false, expired, ""},
        {expire, zeroLen, false, "", msgE(zeroLen, kPrefix)},
        {expire, kLine, true, "", msgE(kLine, expired)},
        // Far longer than any record: must fail, not overrun the builder.
        {PDR_BACKUP, huge, false, "", "quenby: failed to update PDR(b): [" + huge + "] [a/b/c] [", false},
    };
    for (const auto& row : rows) {
        testutil::GlobalsGuard guard;
        testutil::ScratchDir dir;
        FILE* out = std::fopen(dir.file("out").c_str(), "w");
        ASSERT_NE(out, nullptr);
        if (row.failWrite)
            sysFailOn(SysCall::fwrite, 1, ENOSPC);
        testing::internal::CaptureStderr();
        int rc = row.state == expire ? updatePDRForExpire(row.line.c_str(), "a/b/c", out, 0x1f40)
                                     : updatePDRForBackup(row.line.c_str(), "a/b/c", out, row.state, 0x1f40);
        std::string err = testing::internal::GetCapturedStderr();
        std::fclose(out);
        EXPECT_EQ(rc, row.written.empty() ? -1 : 0) << row.line.substr(0, 60) << " " << row.state;
        EXPECT_EQ(testutil::readFile(dir.file("out")), row.written);
        EXPECT_EQ(row.wholeErr ? err : err.substr(0, row.err.size()), row.err);
    }
}

// SHOW fields 1 to 5 with the given fractions, seconds and size.
std::string show(const char* mFrac, const char* cFrac, const char* mSec = "00", const char* cSec = "00",
                 const char* size = "42")
{
    return std::string("2010-01-01 10:00:") + mSec + "." + mFrac + " 2010-01-02 11:30:" + cSec + "." + cFrac + " "
           + size;
}

TEST(DiffShowData, ComparesAtFixedPositions)
{
    const std::string base = show("000000", "000000");
    const char *res = "resdnt", *mig = "migrat";
    const struct {
        std::string oldShow, newShow;
        const char *oldHsm, *newHsm;
        int expected;
    } rows[] = {
        {base, base, res, res, 0},
        // Old fractions both zero: times to the second, whatever the new ones hold.
        {base, show("500000", "999999"), res, res, 0},
        {show("000001", "000000"), show("500000", "000000"), nullptr, nullptr, 1},
        {show("000000", "000001"), show("500000", "000001"), nullptr, nullptr, 1},
        {show("000000", "000001"), base, nullptr, nullptr, 2},
        {base, show("000000", "000000", "00", "00", "420"), nullptr, nullptr, 1},
        {base, show("000000", "000000", "01", "01"), res, mig, 1},
        {base, show("000000", "000000", "00", "00", "43"), res, mig, 1},
        {base, show("000000", "000000", "00", "01"), nullptr, nullptr, 2},
        {base, show("000000", "000000", "00", "01"), res, mig, 6},
        {base, base, res, mig, 4},
        {base, base, mig, res, 4},
        {base, base, res, "resdntx", 4},
        {base, base, "resdntx", mig, 0},
        {base, base, nullptr, res, 0},
        {base, base, res, nullptr, 0},
        // Short texts: positions past the end read as empty, never beyond.
        {"", "", nullptr, nullptr, 0},
        {"2010-01-01 10:00:00.000000 2010-01-02", base, nullptr, nullptr, 1},
        {base, "2010-01", nullptr, nullptr, 1},
    };
    for (const auto& row : rows) {
        // Heap copies of exactly the text's size, so the sanitizer sees any overread.
        std::vector<char> o(row.oldShow.c_str(), row.oldShow.c_str() + row.oldShow.size() + 1);
        std::vector<char> n(row.newShow.c_str(), row.newShow.c_str() + row.newShow.size() + 1);
        EXPECT_EQ(diffShowData(o.data(), n.data(), "fsA", "fsB", row.oldHsm, row.newHsm), row.expected)
            << "row " << &row - rows;
    }
}

TEST(RecordEdits, DebugTraces)
{
    testutil::GlobalsGuard guard;
    std::string line = kLine, base = show("000000", "000000");
    quenby_debug = 4;
    testing::internal::CaptureStderr();
    changePDRState(line.data(), PDR_EXPIRE);
    diffShowData(base.c_str(), base.c_str(), "fsA", "fsB", "resdnt", "migrat");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "quenby:changePDRState(e) exit 0 PDR:\n" + line + "quenby:diffShow:\n  [" + base + "]-[fsA resdnt]\n  ["
                  + base + "]-[fsB migrat]\n");
}

} // namespace
