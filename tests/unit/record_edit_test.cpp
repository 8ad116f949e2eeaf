#include "records/record_edit.h"

#include "test_util.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using testutil::GlobalsGuard;
using testutil::readFile;
using testutil::ScratchDir;

namespace {

const std::string kShow = "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 root resdnt";
const std::string kPrefix = "0:0:000000000000abcd:1:0:0:0:0:5!a/b/c:6!system;";
const std::string kLine = kPrefix + "68!" + kShow + "\n";

TEST(ChangePDRState, RewritesOnlyTheFlagField)
{
    const struct {
        std::string line;
        int state;
        int rc;
        std::string after;
    } rows[] = {
        {"0:0:1:1:0:0:0:0:5!a/b/c:6!p;3!abc\n", 5, 1, "0:0:1:1:0:0:0:0:5!a/b/c:6!p;3!abc\n"},
        {"0:0:1:1:0:0:0:0:5!a/b/c:6!p;3!abc\n", 0x10, 1, "0:0:1:1:0:0:0:0:5!a/b/c:6!p;3!abc\n"},
        {"0:0:1:1:0:0:0:0:5!a/b/c:6!p;3!abc\n", -1, 1, "0:0:1:1:0:0:0:0:5!a/b/c:6!p;3!abc\n"},
        {"0:0:1:1:0:0:0:0:5!a/b/c:6!p;3!abc\n", 9, 1, "0:0:1:1:0:0:0:0:5!a/b/c:6!p;3!abc\n"},
        {"0:0:1:1:0:0:0:0:5!a/b/c:6!p;3!abc\n", 0xf, 0, "0:0:1:1:0:0:0:f:5!a/b/c:6!p;3!abc\n"},
        {"0:0:1:1:0:0:0:0000000b:5!a/b/c\n", PDR_NORMAL, 0, "0:0:1:1:0:0:0:00000000:5!a/b/c\n"},
        {"0:0:1:1:0:0:0:0:5!a/b/c\n", PDR_EXPIRE, 0, "0:0:1:1:0:0:0:e:5!a/b/c\n"},
        {"0:0:1:1:0:0:0:ab:5!a/b/c\n", PDR_METACH, 0, "0:0:1:1:0:0:0:0a:5!a/b/c\n"},
        {"0:0:1:1:0:0:0:0:5!a/b/c\n", PDR_BACKUP, 0, "0:0:1:1:0:0:0:b:5!a/b/c\n"},
        {"0:0:1:1:0:0:0:b:5!a/b/c\n", PDR_CHANGE, 0, "0:0:1:1:0:0:0:c:5!a/b/c\n"},
        {"0:0:1:1:0:0:0:1C:5!a/b/c\n", PDR_DELETE, 0, "0:0:1:1:0:0:0:0d:5!a/b/c\n"},
        // The path may hold ":" and "!"; only the first "!" counts.
        {"0:0:1:1:0:0:0:0:9!x:1:2!y!z\n", PDR_BACKUP, 0, "0:0:1:1:0:0:0:b:9!x:1:2!y!z\n"},
        {"0:0:1:1:0:0:0:0:5 a/b/c\n", PDR_BACKUP, 2, "0:0:1:1:0:0:0:0:5 a/b/c\n"},
    };
    for (const auto& row : rows) {
        std::string line = row.line;
        EXPECT_EQ(changePDRState(line.data(), row.state), row.rc) << row.line << " " << row.state;
        EXPECT_EQ(line, row.after);
        EXPECT_EQ(std::strlen(line.c_str()), row.line.size());
    }
}

TEST(ChangePDRState, DebugTraceShowsStateAndLine)
{
    GlobalsGuard guard;
    quenby_debug = 3;
    std::string line = kLine;
    testing::internal::CaptureStderr();
    ASSERT_EQ(changePDRState(line.data(), PDR_EXPIRE), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "quenby:changePDRState(e) exit 0 PDR:\n" + line);
}

// The work-list line built into a buffer of the writers' size.
int build(const std::string& line, const char* keyword, offset_t offset, std::string& out)
{
    std::vector<char> buf(WORK_LINE_BUF_SIZE, '\0');
    int rc = updatePDRForBackupExpire(buf.data(), line.c_str(), keyword, offset);
    out = rc == 1 ? std::string(buf.data()) : std::string();
    return rc;
}

TEST(UpdatePDRForBackupExpire, BuildsWorkListLines)
{
    const std::string longShow = std::string(599, 's') + "E";
    const struct {
        std::string line;
        const char* keyword;
        offset_t offset;
        std::string expected;
    } rows[] = {
        {kLine, KEYWORD_UPDATED, 0x1f40,
         "0:0:000000000000abcd:1:0:0:0:0:5!a/b/c:6!system;93!updated 0000000000001f40 2010-01-01 "
         "10:00:00.000000 2010-01-02 11:30:00.000000 42 root resdnt\n"},
        {kLine, KEYWORD_CTIMECH, 0, kPrefix + "93!ctimech 0000000000000000 " + kShow + "\n"},
        {kLine, KEYWORD_EXPIRED, 0x7fffffffffffffffLL, kPrefix + "93!expired 7fffffffffffffff " + kShow + "\n"},
        // The prefix ends at the last ";", not at one inside the path.
        {"0:0:1:1:0:0:0:0:5!a;b;c:6!system;68!" + kShow + "\n", KEYWORD_UPDATED, 0xab,
         "0:0:1:1:0:0:0:0:5!a;b;c:6!system;93!updated 00000000000000ab " + kShow + "\n"},
        // Only the length's worth of SHOW text is carried, not the rest of the line.
        {kPrefix + "5!abcdefgh\n", KEYWORD_UPDATED, 1, kPrefix + "30!updated 0000000000000001 abcde\n"},
        {kPrefix + "600!" + longShow + "\n", KEYWORD_UPDATED, 2,
         kPrefix + "625!updated 0000000000000002 " + longShow.substr(0, 509) + "\n"},
    };
    for (const auto& row : rows) {
        std::string out;
        EXPECT_EQ(build(row.line, row.keyword, row.offset, out), 1) << row.line;
        EXPECT_EQ(out, row.expected);
    }
}

TEST(UpdatePDRForBackupExpire, RejectsLinesWithoutAUsableShowLength)
{
    const struct {
        std::string line;
        int rc;
    } rows[] = {
        {"0:0:1:1:0:0:0:0:5!a/b/c:6!system!68!" + kShow + "\n", -1},
        {kPrefix + "0!" + kShow + "\n", -2},
        {kPrefix + "-68!" + kShow + "\n", -2},
        {kPrefix + "x!" + kShow + "\n", -2},
        {kPrefix, -2},
        {kPrefix + "68 " + kShow + "\n", -3},
    };
    for (const auto& row : rows) {
        std::string out;
        EXPECT_EQ(build(row.line, KEYWORD_UPDATED, 1, out), row.rc) << row.line;
    }
}

// Runs a writer against a scratch output file; returns the writer's result,
// with what it wrote and what it printed.
template <typename Writer>
int runWriter(Writer writer, std::string& written, std::string& err)
{
    ScratchDir dir;
    FILE* out = std::fopen(dir.file("out").c_str(), "w");
    EXPECT_NE(out, nullptr);
    testing::internal::CaptureStderr();
    int rc = writer(out);
    err = testing::internal::GetCapturedStderr();
    std::fclose(out);
    written = readFile(dir.file("out"));
    return rc;
}

TEST(UpdatePDRForBackup, WritesOrReportsWithBuildResult)
{
    const std::string noShowLen = kPrefix + "0!" + kShow + "\n";
    const std::string noSemicolon = "0:0:1:1:0:0:0:0:5!a/b/c:6!system\n";
    const std::string hugePrefix = "0:0:1:1:0:0:0:0:40000!" + std::string(40000, 'h') + ":6!system;68!" + kShow + "\n";
    const auto msg = [](const std::string& line, const std::string& built, int rc) {
        return "quenby: failed to update PDR(b): [" + line + "] [a/b/c] [" + built + "] 0x1f40 "
               + std::to_string(rc) + "\n";
    };
    const struct {
        const char* name;
        std::string line;
        int state;
        int rc;
        std::string written;
        std::string err;
    } rows[] = {
        {"backup", kLine, PDR_BACKUP, 0, kPrefix + "93!updated 0000000000001f40 " + kShow + "\n", ""},
        {"metadata", kLine, PDR_METACH, 0, kPrefix + "93!ctimech 0000000000001f40 " + kShow + "\n", ""},
        {"change state", kLine, PDR_CHANGE, -1, "", msg(kLine, "", -1)},
        {"normal state", kLine, PDR_NORMAL, -1, "", msg(kLine, "", -1)},
        {"show length 0", noShowLen, PDR_BACKUP, -1, "", msg(noShowLen, kPrefix, -2)},
        {"no semicolon", noSemicolon, PDR_BACKUP, -1, "", msg(noSemicolon, "", -1)},
    };
    for (const auto& row : rows) {
        std::string written, err;
        int rc = runWriter([&](FILE* out) { return updatePDRForBackup(row.line.c_str(), "a/b/c", out, row.state, 0x1f40); },
                           written, err);
        EXPECT_EQ(rc, row.rc) << row.name;
        EXPECT_EQ(written, row.written) << row.name;
        EXPECT_EQ(err, row.err) << row.name;
    }

    // A line far longer than any record must fail, not overrun the builder.
    std::string written, err;
    EXPECT_EQ(runWriter([&](FILE* out) { return updatePDRForBackup(hugePrefix.c_str(), "a/b/c", out, PDR_BACKUP, 0x1f40); },
                        written, err),
              -1);
    EXPECT_EQ(written, "");
    EXPECT_EQ(err.rfind("quenby: failed to update PDR(b): [", 0), 0u);
}

TEST(UpdatePDRForExpire, WritesOrReports)
{
    const std::string noSemicolon = "0:0:1:1:0:0:0:0:5!a/b/c:6!system\n";
    std::string written, err;
    EXPECT_EQ(runWriter([&](FILE* out) { return updatePDRForExpire(kLine.c_str(), "a/b/c", out, 0x1f40); }, written, err), 0);
    EXPECT_EQ(written, kPrefix + "93!expired 0000000000001f40 " + kShow + "\n");
    EXPECT_EQ(err, "");

    EXPECT_EQ(runWriter([&](FILE* out) { return updatePDRForExpire(noSemicolon.c_str(), "a/b/c", out, 0x1f40); },
                        written, err),
              -1);
    EXPECT_EQ(written, "");
    EXPECT_EQ(err, "quenby: failed to update PDR(e): " + noSemicolon + " a/b/c  1f40\n");
}

TEST(WorkListWriters, FailedWriteIsReported)
{
    const std::string built = kPrefix + "93!updated 0000000000001f40 " + kShow + "\n";
    const std::string expired = kPrefix + "93!expired 0000000000001f40 " + kShow + "\n";
    GlobalsGuard guard;
    std::string written, err;

    sysFailOn(SysCall::fwrite, 1, ENOSPC);
    EXPECT_EQ(runWriter([&](FILE* out) { return updatePDRForBackup(kLine.c_str(), "a/b/c", out, PDR_BACKUP, 0x1f40); },
                        written, err),
              -1);
    EXPECT_EQ(written, "");
    EXPECT_EQ(err.rfind("quenby: failed to update PDR(b): [" + kLine + "] [a/b/c] [" + built + "] 0x1f40 ", 0), 0u) << err;

    sysFailOn(SysCall::fwrite, 1, ENOSPC);
    EXPECT_EQ(runWriter([&](FILE* out) { return updatePDRForExpire(kLine.c_str(), "a/b/c", out, 0x1f40); }, written, err),
              -1);
    EXPECT_EQ(written, "");
    EXPECT_EQ(err, "quenby: failed to update PDR(e): " + kLine + " a/b/c " + expired + " 1f40\n");
}

// SHOW fields 1 to 5 with the given fractions, ctime second and size.
std::string show(const char* mtimeFrac, const char* ctimeFrac, const char* ctimeSec = "00", const char* size = "42")
{
    return std::string("2010-01-01 10:00:00.") + mtimeFrac + " 2010-01-02 11:30:" + ctimeSec + "." + ctimeFrac + " "
           + size;
}

// A heap copy of exactly the text's size, so that any read past its end is caught.
std::unique_ptr<char[]> exact(const std::string& text)
{
    auto copy = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

TEST(DiffShowData, ComparesAtFixedPositions)
{
    const std::string base = show("000000", "000000");
    const struct {
        const char* name;
        std::string oldShow, newShow;
        const char *oldHsm, *newHsm;
        int expected;
    } rows[] = {
        {"same", base, base, "resdnt", "resdnt", 0},
        {"old fractions zero: to the second", base, show("500000", "000000"), "resdnt", "resdnt", 0},
        {"old fractions zero: ctime to the second", base, show("000000", "999999"), nullptr, nullptr, 0},
        {"old mtime fraction set", show("000001", "000000"), show("500000", "000000"), nullptr, nullptr, 1},
        {"old ctime fraction set, mtime fraction differs", show("000000", "000001"), show("500000", "000001"),
         nullptr, nullptr, 1},
        {"old ctime fraction set, ctime fraction differs", show("000000", "000001"), base, nullptr, nullptr, 2},
        {"new fractions alone do not raise precision", base, show("123456", "654321"), nullptr, nullptr, 0},
        {"size grows", base, show("000000", "000000", "00", "420"), nullptr, nullptr, 1},
        {"size shrinks", show("000000", "000000", "00", "420"), base, nullptr, nullptr, 1},
        {"mtime seconds", base, "2010-01-01 10:00:01.000000 2010-01-02 11:30:00.000000 42", nullptr, nullptr, 1},
        {"mtime and ctime: 1 stands alone", base, "2010-01-01 10:00:01.000000 2010-01-02 11:30:01.000000 42",
         "resdnt", "migrat", 1},
        {"size and HSM", base, show("000000", "000000", "00", "43"), "resdnt", "migrat", 1},
        {"ctime only", base, show("000000", "000000", "01"), nullptr, nullptr, 2},
        {"ctime date", base, "2010-01-01 10:00:00.000000 2010-01-03 11:30:00.000000 42", nullptr, nullptr, 2},
        {"resident to migrated", base, base, "resdnt", "migrat", 4},
        {"migrated to resident", base, base, "migrat", "resdnt", 4},
        {"resident to other word", base, base, "resdnt", "resdntx", 4},
        {"neither resident", base, base, "resdntx", "migrat", 0},
        {"migrated to premigrated", base, base, "migrat", "premig", 0},
        {"old state missing", base, base, nullptr, "resdnt", 0},
        {"new state missing", base, base, "resdnt", nullptr, 0},
        {"ctime and HSM", base, show("000000", "000000", "01"), "resdnt", "migrat", 6},
        // Short texts: positions past the end read as empty, never beyond.
        {"both empty", "", "", nullptr, nullptr, 0},
        {"short equal", "2010-01-01", "2010-01-01", "resdnt", "migrat", 4},
        {"short differ", "2010-01-01 10:00:00", "2010-01-01 10:00:01", nullptr, nullptr, 1},
        {"short vs full", "2010-01-01 10:00:00.000000 2010-01-02", base, nullptr, nullptr, 1},
        {"full vs short", base, "2010-01", nullptr, nullptr, 1},
    };
    for (const auto& row : rows) {
        auto oldCopy = exact(row.oldShow);
        auto newCopy = exact(row.newShow);
        EXPECT_EQ(diffShowData(oldCopy.get(), newCopy.get(), "fsA", "fsB", row.oldHsm, row.newHsm), row.expected)
            << row.name;
    }
}

TEST(DiffShowData, DebugTraceShowsBothSides)
{
    GlobalsGuard guard;
    quenby_debug = 4;
    const std::string base = show("000000", "000000");
    testing::internal::CaptureStderr();
    EXPECT_EQ(diffShowData(base.c_str(), base.c_str(), "fsA", "fsB", "resdnt", "migrat"), 4);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "quenby:diffShow:\n  [" + base + "]-[fsA resdnt]\n  [" + base + "]-[fsB migrat]\n");
}

} // namespace
