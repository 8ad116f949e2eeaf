#include "records/policy_record.h"

#include "test_util.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <random>
#include <string>

using testutil::GlobalsGuard;
using testutil::ScratchDir;
using testutil::writeFile;

namespace {

const std::string kShow = "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 root resdnt";
const std::string kShowFields = "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42";
const std::string kHeader = std::string("%%mshadow0%%:00_BACKUP_FILES_41:1400:/gpfs:kestrel:1:")
                            + "Mon Jan  1 00:00:00 2024\n" + SHADOW_COMMENT_LINES;

// A record line as the policy scan writes it.
std::string pdr(const std::string& path, int pathLen, const std::string& show = kShow,
                const std::string& flag = "0", const std::string& ino = "000000000000abcd")
{
    return "0:0:" + ino + ":1f:0:0:0:" + flag + ":" + std::to_string(pathLen) + "!" + path + ":6!system;"
           + std::to_string(show.size()) + "!" + show + "\n";
}
std::string pdr(const std::string& path) { return pdr(path, static_cast<int>(path.size())); }

// A scratch file of records and a reader over it.
struct Reader {
    ScratchDir dir;
    FILE* stream = nullptr;
    PolicyRecord rec;

    explicit Reader(const std::string& content)
    {
        writeFile(dir.file("in"), content);
        stream = std::fopen(dir.file("in").c_str(), "r");
        EXPECT_NE(stream, nullptr);
        EXPECT_TRUE(rec.allocate());
    }
    ~Reader() { std::fclose(stream); }
    int read() { return rec.read(stream); }
    std::string line() const { return std::string(rec.line.ptr, rec.lineLength); }
};

// Reads once, capturing standard error.
int readCapturing(Reader& reader, std::string& err)
{
    testing::internal::CaptureStderr();
    int rc = reader.read();
    err = testing::internal::GetCapturedStderr();
    return rc;
}

TEST(ReadPolicyRecord, HeaderOnlyOrEmptyInputIsEnd)
{
    for (const std::string& content : {kHeader, std::string()}) {
        Reader r(content);
        r.rec.endOfFile = 7;
        EXPECT_EQ(r.read(), 0);
        EXPECT_EQ(r.rec.endOfFile, 1u);
    }
}

TEST(ReadPolicyRecord, FillsEveryOutputAndSkipsHeaderLinesAnywhere)
{
    const std::string first = pdr("dir/file one", 12, kShow, "0000000b", "00000000000000ff");
    const std::string second = pdr("x", 1, kShow, "e", "0000000000000100");
    Reader r(kHeader + first + "%%shadow%%:03_COMMENT::1:\n" + kHeader + second);

    ASSERT_EQ(r.read(), 0);
    EXPECT_EQ(r.rec.endOfFile, 0u);
    EXPECT_EQ(r.line(), first);
    EXPECT_STREQ(r.rec.line.ptr, first.c_str()); // the line is left as read
    EXPECT_EQ(r.rec.ino, 0xffu);
    EXPECT_EQ(r.rec.gen, 0x1fu);
    EXPECT_EQ(r.rec.state, PDR_BACKUP);
    EXPECT_EQ(r.rec.escapedPath, 0);
    EXPECT_STREQ(r.rec.path.ptr, "dir/file one");
    EXPECT_EQ(r.rec.show.ptr, kShowFields);
    EXPECT_STREQ(r.rec.filesetName, "root");
    EXPECT_STREQ(r.rec.hsmState, "resdnt");

    ASSERT_EQ(r.read(), 0);
    EXPECT_EQ(r.line(), second);
    EXPECT_EQ(r.rec.ino, 0x100u);
    EXPECT_EQ(r.rec.state, PDR_EXPIRE);
    ASSERT_EQ(r.read(), 0);
    EXPECT_EQ(r.rec.endOfFile, 1u);
}

TEST(ReadPolicyRecord, ClassifiesPaths)
{
    const struct {
        const char* name;
        std::string path;
        bool escaped;
        int migDiff;
        int rc;
    } rows[] = {
        {"plain", "a/b", false, 0, 0},
        {"escaped, 12 chars", "a\\ b\\tc/d\\ e", true, 0, 0},
        {"separators in path", "a:b!c;d e:f", false, 0, 0},
        {"0x18", "a\x18" "b", false, 0, 2},
        {"0x19", "a\x19", false, 0, 2},
        {"0x18 under migDiff", "a\x18" "b", false, 1, 0},
        {"internal with 0x18", ".kestrel\x18", false, 0, 2},
        {"internal with 0x18 under migDiff", ".kestrel\x18", false, 1, 3},
        {"escaped newline", "a\\nb", true, 0, 2},
        {"escaped newline under migDiff", "a\\nb", true, 1, 0},
        {"unescaped backslash-n", "a\\nb", false, 0, 0},
        {"dot", ".", false, 0, 3},
        {"shadow file", ".kestrelShadow.x", false, 0, 3},
        {"bare prefix", ".kestrel", false, 0, 3},
        {"exec script", ".execScript/run", false, 0, 3},
        {"dot-slash", "./a", false, 0, 0},
        {"dotdot", "..", false, 0, 0},
        {"nested", "a/.kestrel", false, 0, 0},
        {"near miss", ".execScrip", false, 0, 0},
    };
    for (const auto& row : rows) {
        GlobalsGuard guard;
        migDiff = row.migDiff;
        int len = static_cast<int>(row.path.size());
        Reader r(pdr(row.path, row.escaped ? -len : len));
        EXPECT_EQ(r.read(), row.rc) << row.name;
        EXPECT_EQ(r.rec.escapedPath, row.escaped ? 1 : 0) << row.name;
        EXPECT_EQ(std::string(r.rec.path.ptr), row.path) << row.name;
        EXPECT_STREQ(r.rec.hsmState, "resdnt") << row.name;
    }
}

TEST(ReadPolicyRecord, NoClassificationWithoutFilesetOrHsmOutput)
{
    for (const std::string path : {".kestrelX", "a\x18", "."}) {
        for (int which = 0; which < 2; ++which) {
            ScratchDir dir;
            writeFile(dir.file("in"), pdr(path));
            FILE* stream = std::fopen(dir.file("in").c_str(), "r");
            ASSERT_NE(stream, nullptr);
            PolicyRecord rec;
            ASSERT_TRUE(rec.allocate());
            char* fileset = reinterpret_cast<char*>(0x1);
            char* hsm = reinterpret_cast<char*>(0x1);
            int rc = readPolicyRecord(stream, &rec.line.ptr, &rec.line.size, &rec.ino, &rec.gen, &rec.path.ptr,
                                      &rec.path.size, &rec.show.ptr, &rec.show.size,
                                      which == 0 ? nullptr : &fileset, which == 1 ? nullptr : &hsm,
                                      &rec.endOfFile, nullptr, nullptr);
            std::fclose(stream);
            EXPECT_EQ(rc, 0) << path << " " << which;
            EXPECT_EQ(rec.path.ptr, path);
            EXPECT_EQ(rec.show.ptr, kShowFields);
            EXPECT_EQ(which == 0 ? hsm : fileset, nullptr) << "reset on entry";
        }
    }
}

TEST(ReadPolicyRecord, ShowFieldSplitting)
{
    {
        Reader r(pdr("a", 1, "2010-01-01 10:00:00.000000 2010-01-02 11:30:00.000000 42 root"));
        ASSERT_EQ(r.read(), 0);
        EXPECT_EQ(r.rec.show.ptr, kShowFields);
        EXPECT_STREQ(r.rec.filesetName, "root");
        EXPECT_EQ(r.rec.hsmState, nullptr);
    }
    {
        Reader r(pdr("a", 1, kShow + " extra"));
        ASSERT_EQ(r.read(), 0);
        EXPECT_STREQ(r.rec.hsmState, "resdnt extra");
    }
}

TEST(ReadPolicyRecord, MalformedLinesPrintTheStepMessageWithTheLine)
{
    const std::string head = "0:0:000000000000abcd:1:0:0:0:0:";
    const struct {
        std::string line;
        std::string message;
    } rows[] = {
        {"garbage\n", "quenby: failed to parse shadow line [1]"},
        {"0:0:1:1:0:0:0\n", "quenby: failed to parse shadow line [1]"},
        {pdr(std::string(4097, 'p'), -4097), "quenby: failed to parse shadow line [1]"},
        {head + "5\n", "quenby: failed to find file path in "},
        {head + "9000!a/b/c:6!system;68!" + kShow + "\n", "quenby: invalid file path length 9000 in "},
        {head + "500!a/b/c:6!system;68!" + kShow + "\n", "quenby: file path length 500 larger than "},
        {head + "5!a/b/c:x!system;68!" + kShow + "\n", "quenby: failed to parse shadow line [2]"},
        {head + "5!a/b/c:6\n", "quenby: failed to find storage pool in "},
        {head + "5!a/b/c:99!system;5!x\n", "quenby: invalid storage pool length 99 in "},
        {head + "5!a/b/c:6!system;x!" + kShow + "\n", "quenby: failed to parse shadow line [3]"},
        {head + "5!a/b/c:6!system;68\n", "quenby: failed to find show attribute in "},
        {head + "5!a/b/c:6!system;99!" + kShow + "\n", "quenby: invalid show attribute length 99 in "},
        {pdr("a", 1, kShowFields), "quenby: invalid show attribute in "},
    };
    for (const auto& row : rows) {
        Reader r(row.line);
        std::string err;
        EXPECT_EQ(readCapturing(r, err), -1) << row.line;
        EXPECT_EQ(err, row.message + row.line + "\n");
    }
}

TEST(ReadPolicyRecord, NegativeLengthsCountAsAbsoluteValues)
{
    const std::string head = "0:0:000000000000abcd:1:0:0:0:0:";
    Reader r(head + "-4!a:b;:-6!system;-68!" + kShow + "\n" + pdr(std::string(4096, 'q'), -4096));
    ASSERT_EQ(r.read(), 0);
    EXPECT_STREQ(r.rec.path.ptr, "a:b;");
    EXPECT_EQ(r.rec.show.ptr, kShowFields);
    EXPECT_STREQ(r.rec.hsmState, "resdnt");
    ASSERT_EQ(r.read(), 0);
    EXPECT_EQ(std::string(r.rec.path.ptr), std::string(4096, 'q'));
    EXPECT_EQ(r.rec.path.size, 8192); // doubled from 4096: 4097 needed
}

TEST(ReadPolicyRecord, LongLinesGrowTheBuffersAndAreReadWhole)
{
    const std::string longPath(20000, 'L');
    const std::string longShow = kShowFields + " " + std::string(300, 'f') + " migrat";
    // Records of exactly the given size, line feed included.
    auto sized = [](size_t size, char c) {
        size_t n = size - pdr("").size();
        while (pdr(std::string(n, c)).size() > size)
            --n;
        return pdr(std::string(n, c));
    };
    const std::string fits = sized(8191, 'a');
    const std::string oneMore = sized(8192, 'b');
    ASSERT_EQ(fits.size(), 8191u);
    ASSERT_EQ(oneMore.size(), 8192u);
    Reader r(fits + oneMore + pdr(longPath) + pdr("s", 1, longShow) + pdr("tail"));

    ASSERT_EQ(r.read(), 0);
    EXPECT_EQ(r.rec.line.size, 8192);
    EXPECT_EQ(r.line(), fits);
    ASSERT_EQ(r.read(), 0);
    EXPECT_EQ(r.rec.line.size, 16384);
    EXPECT_EQ(r.line(), oneMore);
    ASSERT_EQ(r.read(), 0);
    EXPECT_EQ(r.rec.line.size, 32768);
    EXPECT_EQ(r.line(), pdr(longPath));
    EXPECT_EQ(std::string(r.rec.path.ptr), longPath);
    EXPECT_EQ(r.rec.path.size, 20001);
    EXPECT_STREQ(r.rec.hsmState, "resdnt");
    ASSERT_EQ(r.read(), 0);
    EXPECT_EQ(r.rec.show.size, 510);
    EXPECT_EQ(std::string(r.rec.filesetName), std::string(300, 'f'));
    EXPECT_STREQ(r.rec.hsmState, "migrat");
    ASSERT_EQ(r.read(), 0);
    EXPECT_STREQ(r.rec.path.ptr, "tail");
    ASSERT_EQ(r.read(), 0);
    EXPECT_EQ(r.rec.endOfFile, 1u);
}

TEST(ReadPolicyRecord, LastLineWithoutLineFeedIsNotReturned)
{
    std::string unterminated = pdr("last");
    unterminated.pop_back();
    for (const std::string& tail : {unterminated, pdr(std::string(9000, 'u')).substr(0, 9050)}) {
        Reader r(pdr("first") + tail);
        ASSERT_EQ(r.read(), 0);
        EXPECT_STREQ(r.rec.path.ptr, "first");
        EXPECT_EQ(r.rec.endOfFile, 0u);
        EXPECT_EQ(r.read(), 0);
        EXPECT_EQ(r.rec.endOfFile, 1u);
    }
}

TEST(ReadPolicyRecord, AllocationFailuresWhileGrowing)
{
    const std::string longLine = pdr(std::string(20000, 'L'));
    const struct {
        const char* name;
        std::string line;
        int nth;
        int lineSize;
        std::string shown; // the line as far as it was read
    } rows[] = {
        {"line, first doubling", longLine, 1, 8192, longLine.substr(0, 8191)},
        {"line, second doubling", longLine, 2, 16384, longLine.substr(0, 16383)},
        {"path", pdr(std::string(5000, 'p')), 1, 8192, pdr(std::string(5000, 'p'))},
        {"show", pdr("s", 1, kShowFields + " " + std::string(300, 'f')), 1, 8192,
         pdr("s", 1, kShowFields + " " + std::string(300, 'f'))},
    };
    for (const auto& row : rows) {
        GlobalsGuard guard;
        Reader r(row.line);
        sysFailOn(SysCall::alloc, row.nth, ENOMEM);
        std::string err;
        EXPECT_EQ(readCapturing(r, err), -1) << row.name;
        EXPECT_EQ(r.rec.line.size, row.lineSize) << row.name;
        EXPECT_EQ(err, "quenby: failed to realloc memory for line " + row.shown + "\n") << row.name;
    }
}

TEST(ReadPolicyRecord, FailedRepositioningReturnsItsResult)
{
    GlobalsGuard guard;
    Reader r(pdr(std::string(20000, 'L')));
    sysFailOn(SysCall::fseek, 1, EIO);
    EXPECT_EQ(r.read(), -1);
    EXPECT_EQ(r.rec.line.size, 16384);
}

// scanRecordHead and scanLengthField against the C library's sscanf.

struct Head {
    int count;
    unsigned long long ino, gen;
    unsigned int flag;
    int len;
    bool operator==(const Head&) const = default;
};

std::ostream& operator<<(std::ostream& os, const Head& h)
{
    return os << "{count " << h.count << std::hex << " ino " << h.ino << " gen " << h.gen << " flag "
              << h.flag << std::dec << " len " << h.len << "}";
}

constexpr Head kUntouched{0, 0x1111, 0x2222, 0x3333, 0x4444};

// Format passed through a parameter: the compiler's format check rejects the
// "0" in "%016llx", which the library reads as part of the width.
template <typename... Out>
int libScan(const char* text, const char* format, Out*... out)
{
    int n = std::sscanf(text, format, out...);
    return n == EOF ? -1 : n;
}

void compareHead(const std::string& text)
{
    Head lib = kUntouched;
    lib.count = libScan(text.c_str(), "%*x:%*llx:%016llx:%llx:%*llx:%*x:%*x:%x:%d!%*s", &lib.ino, &lib.gen,
                        &lib.flag, &lib.len);
    Head own = kUntouched;
    uint64_t ino = own.ino, gen = own.gen;
    own.count = scanRecordHead(text.c_str(), &ino, &gen, &own.flag, &own.len);
    own.ino = ino;
    own.gen = gen;
    ASSERT_EQ(own, lib) << "input [" << text << "]";

    int libLen = 0x5555, ownLen = 0x5555;
    int libCount = libScan(text.c_str(), "%d!%*s", &libLen);
    ASSERT_EQ(scanLengthField(text.c_str(), &ownLen), libCount) << "input [" << text << "]";
    ASSERT_EQ(ownLen, libLen) << "input [" << text << "]";
}

TEST(RecordScan, HandPickedInputsMatchSscanf)
{
    const char* inputs[] = {
        "", "   ", "\t\n", "x", ":", "1", "1:", "1:2:", "1:2:3", "1:2:3:", "+", "-", "0x", "0X", "0x!",
        "1:2:3:4:5:6:7:8:9!p", "1:2:3:4:5:6:7:8:9", "1:2:3:4:5:6:7:8:", "1:2:3:4:5:6:7:8:+",
        "1:2:3:4:5:6:7:8:-", "1:2:3:4:5:6:7:8:-!", "0x:0x:0x:0x:0x:0x:0x:0x:0x!",
        "0X1:0x2:0x3:0x4:0x5:0x6:0x7:0x8:0x9!", "1:2:0x:0x:5:6:7:0x:5!a",
        "1:2:0x1234567890abcdef:4:5:6:7:8:9!a", "1:2:1234567890abcdef:4:5:6:7:8:9!a",
        "1:2:12345678901234567:4:5:6:7:8:9!a", "1:2:-123456789abcdef:4:5:6:7:8:9!a",
        "1:2:+123456789abcdef0:4:5:6:7:8:9!a", "1:2:-0x12345678901234:4:5:6:7:8:9!a",
        "1:2:ffffffffffffffff:fffffffffffffffffff:5:6:7:8:9!a", "1:2:3:-1:5:6:7:-1:-1!a",
        "1:2:3:4:5:6:7:123456789:5!a", "1:2:3:4:5:6:7:fffffffffffffffff:5!a", "1:2:3:4:5:6:7:-0:5!a",
        "1:2:3:4:5:6:7:8:-4097!a", "1:2:3:4:5:6:7:8:4294967297!a", "1:2:3:4:5:6:7:8:2147483648!a",
        "1:2:3:4:5:6:7:8:-2147483649!a", "1:2:3:4:5:6:7:8:99999999999999999999!a",
        "1:2:3:4:5:6:7:8:-99999999999999999999!a", "1:2:3:4:5:6:7:8:9223372036854775808!a",
        "1:2:3:4:5:6:7:8:-9223372036854775808!a", "1:2:3:4:5:6:7:8:0x10!a", "1:2:3:4:5:6:7:8:010!a",
        " \t1: 2:\n3: 4: 5: 6: 7: 8: 9!a", "1 :2:3:4:5:6:7:8:9!a", "1:2:3:4:5:6:7:8 :9!a",
        "1:2:  0000000000000000001:4:5:6:7:8:9!a", "1:2:- 5:4:5:6:7:8:9!a", "1:2:+-5:4:5:6:7:8:9!a",
        "1:2:0xg:4:5:6:7:8:9!a", "g:2:3:4:5:6:7:8:9!a", "1:2:3:4:5:6:7:8:9!", "5!x", "-4097!x",
        "4294967297!x", "-!x", "+5!x", " \t\n42!x", "0x5!x", "2147483647", "-2147483648", "abc",
    };
    for (const char* text : inputs)
        compareHead(text);
}

TEST(RecordScan, RandomInputsMatchSscanf)
{
    std::mt19937 rng(20240611);
    auto pick = [&](int n) { return static_cast<int>(rng() % static_cast<unsigned>(n)); };
    const std::string alphabet = "0123456789abcdefxX+- \t:!\n";
    const std::string digits = "0123456789abcdefABCDEF";

    auto number = [&](bool decimal) {
        std::string s;
        if (pick(8) == 0)
            s += " \t\n"[pick(3)];
        if (pick(6) == 0)
            s += "+-"[pick(2)];
        if (!decimal || pick(4) == 0) {
            int prefix = pick(6);
            if (prefix == 0)
                s += "0x";
            else if (prefix == 1)
                s += "0X";
            else if (prefix == 2)
                s += "0";
        }
        int n = pick(4) == 0 ? pick(24) : pick(6);
        for (int i = 0; i < n; ++i)
            s += decimal && pick(5) != 0 ? digits[pick(10)] : digits[pick(digits.size())];
        if (pick(15) == 0)
            s += alphabet[pick(alphabet.size())];
        return s;
    };

    for (int round = 0; round < 30000; ++round) {
        std::string text;
        if (round % 5 == 4) {
            int n = pick(40);
            for (int i = 0; i < n; ++i)
                text += alphabet[pick(alphabet.size())];
        } else {
            for (int field = 0; field < 8; ++field)
                text += number(false) + (pick(25) == 0 ? alphabet[pick(alphabet.size())] : ':');
            text += number(true) + (pick(10) == 0 ? alphabet[pick(alphabet.size())] : '!') + "p/a";
            if (pick(3) == 0)
                text.resize(pick(text.size() + 1));
        }
        ASSERT_NO_FATAL_FAILURE(compareHead(text)) << "round " << round;
    }
}

} // namespace
