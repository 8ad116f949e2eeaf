#include "records/policy_record.h"

#include "test_util.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <random>
#include <string>
#include <tuple>

namespace {

const std::string kShowFields = "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42";
const std::string kShow = kShowFields + " root resdnt";
const std::string kHead = "0:0:000000000000abcd:1:0:0:0:0:";

// A record line as the policy scan writes it; a negative length marks an escaped path.
std::string pdr(const std::string& path, int pathLen = INT_MIN, const std::string& show = kShow)
{
    return kHead + std::to_string(pathLen == INT_MIN ? static_cast<int>(path.size()) : pathLen) + "!" + path
           + ":6!system;" + std::to_string(show.size()) + "!" + show + "\n";
}

// A scratch file and a reader over it.
struct Reader {
    testutil::ScratchDir dir;
    FILE* stream = nullptr;
    PolicyRecord rec;

    explicit Reader(const std::string& content)
    {
        testutil::writeFile(dir.file("in"), content);
        stream = std::fopen(dir.file("in").c_str(), "r");
        EXPECT_NE(stream, nullptr);
        EXPECT_TRUE(rec.allocate());
    }
    ~Reader() { std::fclose(stream); }
    int read() { return rec.read(stream); }
};

TEST(ReadPolicyRecord, ClassifiesPathsAndSplitsShow)
{
    const struct {
        std::string path;
        int escaped, migDiff, rc;
        std::string show = kShow;
        const char* hsm = "resdnt";
    } rows[] = {
        {"a\\ b\\tc/d\\ e", 1, 0, 0}, {"a:b!c;d e:f", 0, 0, 0}, {"a\x18" "b", 0, 0, 2}, {"a\x18" "b", 0, 1, 0},
        {"a\\nb", 1, 1, 0}, {"a\\nb", 0, 0, 0}, {".kestrel\x18", 0, 0, 2}, {".kestrel\x18", 0, 1, 3}, {".", 0, 0, 3},
        {".kestrelDb", 0, 0, 3}, {".execScript/x", 0, 0, 3}, {".execScrip", 0, 0, 0}, {".kestre", 0, 0, 0},
        {"f", 0, 0, 0, kShowFields + " root", nullptr},
        {"g", 0, 0, 0, kShow + " extra", "resdnt extra"},
    };
    for (const auto& row : rows) {
        testutil::GlobalsGuard guard;
        migDiff = row.migDiff;
        int len = static_cast<int>(row.path.size());
        Reader r(pdr(row.path, row.escaped ? -len : len, row.show));
        int rc = r.read();
        EXPECT_EQ(std::make_tuple(rc, r.rec.escapedPath, std::string(r.rec.path.ptr), std::string(r.rec.show.ptr)),
                  std::make_tuple(row.rc, row.escaped, row.path, kShowFields));
        EXPECT_STREQ(r.rec.filesetName, "root") << row.path;
        EXPECT_STREQ(r.rec.hsmState, row.hsm) << row.path;
    }
}

TEST(ReadPolicyRecord, NoClassificationWithoutFilesetOrHsmOutput)
{
    for (int which = 0; which < 2; ++which) {
        Reader r(pdr("."));
        char *fileset = reinterpret_cast<char*>(0x1), *hsm = fileset;
        EXPECT_EQ(readPolicyRecord(r.stream, &r.rec.line.ptr, &r.rec.line.size, &r.rec.ino, &r.rec.gen, &r.rec.path.ptr,
                                   &r.rec.path.size, &r.rec.show.ptr, &r.rec.show.size, which == 0 ? nullptr : &fileset,
                                   which == 1 ? nullptr : &hsm, &r.rec.endOfFile, nullptr, nullptr),
                  0)
            << which;
        EXPECT_STREQ(r.rec.path.ptr, ".");
        EXPECT_EQ(which == 0 ? hsm : fileset, nullptr) << "reset on entry";
    }
}

// Sizes after each read: doubling for a line, twice or exactly enough for
// a path or SHOW text; negative lengths count as their absolute values.
TEST(ReadPolicyRecord, BuffersGrowAndLongLinesAreReadWhole)
{
    const std::string fits(8188 - pdr("").size(), 'a'), oneMore = fits + "a", longPath(20000, 'L');
    ASSERT_EQ(pdr(fits).size(), 8191u); // fits the initial line buffer with its NUL; one more does not
    const struct {
        std::string line, path;
        int lineSize, pathSize, showSize, escaped = 0, state = 0;
        const char* hsm = "resdnt";
    } rows[] = {
        {pdr(fits), fits, 8192, 8192, 255},
        {pdr(oneMore), oneMore, 16384, 8192, 255},
        {"1:2:3:4:5:6:7:0000000b:-4!a:b;:-6!system;-68!" + kShow + "\n", "a:b;", 16384, 8192, 255, 1, 0xb},
        {pdr(std::string(4096, 'q'), -4096), std::string(4096, 'q'), 16384, 8192, 255, 1},
        {pdr(longPath), longPath, 32768, 20001, 255},
        {pdr("s", 1, kShowFields + " " + std::string(300, 'f') + " migrat"), "s", 32768, 20001, 510, 0, 0, "migrat"},
    };
    // Header lines are skipped wherever they stand.
    std::string content = std::string("%%mshadow0%%:DB:1400:/mnt/cluster:kestrel:1:date\n") + SHADOW_COMMENT_LINES;
    for (const auto& row : rows)
        content += row.line + "%%shadow%%:03_COMMENT::1:\n";
    // The last line has no line feed and needs a larger buffer: it ends the input.
    Reader r(content + pdr(std::string(9000, 'u')).substr(0, 9050));
    for (const auto& row : rows) {
        ASSERT_EQ(r.read(), 0) << row.line.size();
        EXPECT_EQ(std::string(r.rec.line.ptr, r.rec.lineLength), row.line);
        EXPECT_EQ(std::make_tuple(r.rec.escapedPath, r.rec.state, std::string(r.rec.path.ptr), r.rec.line.size,
                                  r.rec.path.size, r.rec.show.size),
                  std::make_tuple(row.escaped, row.state, row.path, row.lineSize, row.pathSize, row.showSize));
        EXPECT_STREQ(r.rec.hsmState, row.hsm);
    }
    EXPECT_EQ(r.read(), 0);
    EXPECT_EQ(r.rec.endOfFile, 1u);
}

TEST(ReadPolicyRecord, FailuresPrintTheStepMessageWithTheLine)
{
    const std::string longLine = pdr(std::string(20000, 'L'));
    const std::string realloc = "quenby: failed to realloc memory for line ";
    const struct {
        std::string line, message;
        size_t shown = std::string::npos; // how much of the line had been read
        SysCall fault = SysCall::count_;
        int nth = 0, lineSize = 8192;
    } rows[] = {
        {"garbage\n", "quenby: failed to parse shadow line [1]"},
        {"0:0:1:1:0:0:0\n", "quenby: failed to parse shadow line [1]"},
        {pdr(std::string(4097, 'p'), -4097), "quenby: failed to parse shadow line [1]"},
        {kHead + "5\n", "quenby: failed to find file path in "},
        {kHead + "9000!a/b/c:6!system;68!" + kShow + "\n", "quenby: invalid file path length 9000 in "},
        {kHead + "500!a/b/c:6!system;68!" + kShow + "\n", "quenby: file path length 500 larger than "},
        {kHead + "5!a/b/c:x!system;68!" + kShow + "\n", "quenby: failed to parse shadow line [2]"},
        {kHead + "5!a/b/c:6\n", "quenby: failed to find storage pool in "},
        {kHead + "5!a/b/c:99!system;5!x\n", "quenby: invalid storage pool length 99 in "},
        {kHead + "5!a/b/c:6!system;x!" + kShow + "\n", "quenby: failed to parse shadow line [3]"},
        {kHead + "5!a/b/c:6!system;68\n", "quenby: failed to find show attribute in "},
        {kHead + "5!a/b/c:6!system;99!" + kShow + "\n", "quenby: invalid show attribute length 99 in "},
        {pdr("a", 1, kShowFields), "quenby: invalid show attribute in "},
        {longLine, realloc, 8191, SysCall::alloc, 1, 8192},
        {longLine, realloc, 16383, SysCall::alloc, 2, 16384},
        {pdr(std::string(5000, 'p')), realloc, std::string::npos, SysCall::alloc, 1},
        {pdr("s", 1, kShowFields + " " + std::string(300, 'f')), realloc, std::string::npos, SysCall::alloc, 1},
        {longLine, "", 0, SysCall::fseek, 1, 16384}, // returns the positioning call's result
    };
    for (const auto& row : rows) {
        testutil::GlobalsGuard guard;
        Reader r(row.line);
        if (row.nth > 0)
            sysFailOn(row.fault, row.nth, EIO);
        testing::internal::CaptureStderr();
        EXPECT_EQ(r.read(), -1) << row.line.substr(0, 60);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  row.message.empty() ? "" : row.message + row.line.substr(0, row.shown) + "\n");
        EXPECT_EQ(r.rec.line.size, row.lineSize) << row.line.substr(0, 60);
    }
}

// Not literals: the compiler's format check rejects the "0" in "%016llx",
// which the library reads as part of the width.
const std::string kHeadFormat = "%*x:%*llx:%016llx:%llx:%*llx:%*x:%*x:%x:%d!%*s";
const std::string kLengthFormat = "%d!%*s";

// The scanners against the C library's sscanf; the length pattern from the
// start and from the path length on.
void compareScans(const std::string& text)
{
    unsigned long long ino[2] = {0x1111, 0x1111}, gen[2] = {0x2222, 0x2222};
    unsigned int flag[2] = {0x3333, 0x3333};
    int len[2] = {0x4444, 0x4444};
    int lib = std::sscanf(text.c_str(), kHeadFormat.c_str(), &ino[0], &gen[0], &flag[0], &len[0]);
    uint64_t ownIno = ino[1], ownGen = gen[1];
    int own = scanRecordHead(text.c_str(), &ownIno, &ownGen, &flag[1], &len[1]);
    ASSERT_EQ(std::make_tuple(own, ownIno, ownGen, flag[1], len[1]),
              std::make_tuple(lib, ino[0], gen[0], flag[0], len[0])) << "input [" << text << "]";
    for (const char* from : {text.c_str(), text.c_str() + text.rfind(':') + 1}) {
        int libLen = 0x5555, ownLen = 0x5555;
        int libCount = std::sscanf(from, kLengthFormat.c_str(), &libLen);
        ASSERT_EQ(std::make_pair(scanLengthField(from, &ownLen), ownLen), std::make_pair(libCount, libLen))
            << "input [" << from << "]";
    }
}

TEST(RecordScan, MatchesSscanf)
{
    for (const char* text : {"", "   ", "0x", "0x!", "-!x", "1:2:3:4:5:6:7:8:-", "1:2:0x:0x:5:6:7:0x:5!a",
                             "1:2:  0000000000000000001:4:5:6:7:8:9!a", "1:2:3:4:5:6:7:8:2147483648!a",
                             "1:2:3:4:5:6:7:8:-9223372036854775809!a", "1:2:3:4:5:6:7:8:4294967297!a"})
        ASSERT_NO_FATAL_FAILURE(compareScans(text));

    // Blanks, signs, prefixes, digit runs past any width, stray characters, cut-off lines.
    std::mt19937 rng(20240611);
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    const std::string alphabet = "0123456789abcdefxX+- \t:!\n", digits = "0123456789abcdefABCDEF";
    const char* const prefixes[] = {"0x", "0X", "0", "", "", ""};
    auto any = [&] { return alphabet[pick(alphabet.size())]; };
    auto number = [&](bool decimal) {
        std::string s = std::string(pick(8) == 0, " \t\n"[pick(3)]) + std::string(pick(6) == 0, "+-"[pick(2)]);
        if (!decimal || pick(4) == 0)
            s += prefixes[pick(6)];
        for (size_t i = 0, n = pick(4) == 0 ? pick(24) : pick(6); i < n; ++i)
            s += digits[decimal && pick(5) != 0 ? pick(10) : pick(digits.size())];
        return pick(15) == 0 ? s + any() : s;
    };
    for (int round = 0; round < 30000; ++round) {
        std::string text;
        for (size_t i = 0, n = round % 5 == 4 ? pick(40) : 0; i < n; ++i)
            text += any();
        if (round % 5 != 4) {
            for (int field = 0; field < 8; ++field)
                text += number(false) + (pick(25) == 0 ? any() : ':');
            text += number(true) + (pick(10) == 0 ? any() : '!') + "p/a";
            text.resize(pick(3) == 0 ? pick(text.size() + 1) : text.size());
        }
        ASSERT_NO_FATAL_FAILURE(compareScans(text)) << "round " << round;
    }
}

} // namespace
