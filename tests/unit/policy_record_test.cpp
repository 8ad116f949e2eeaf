// The record reader on well-formed and broken lines, and its head scanners against sscanf.
#include "records/policy_record.h"
#include "records/record_reader.h"

#include "test_util.h"

#include <random>

namespace {

using testutil::kShow;
using testutil::kShowFields;
const std::string kHead = "0:0:000000000000abcd:1:0:0:0:0:";

std::string pdr(const std::string& path, int pathLen = INT_MIN, const std::string& show = kShow)
{
    return testutil::record({.path = path, .show = show, .pathLen = pathLen});
}

struct Reader {
    std::unique_ptr<FILE, int (*)(FILE*)> f{std::tmpfile(), std::fclose};
    LineSource source;
    RecordReader reader;
    Record rec;
    explicit Reader(const std::string& content, ReaderOptions options = {}) : reader(source, options)
    {
        std::fwrite(content.data(), 1, content.size(), f.get());
        std::rewind(f.get());
        source.attach(fileno(f.get()));
    }
    int read() { return reader.next(rec); }
};

TEST(ReadPolicyRecord, ClassifiesPathsAndSplitsShow)
{
    const struct {
        std::string path; int escaped, migDiff, rc; std::string show = kShow; const char* hsm = "resdnt";
    } rows[] = {
        {"a\\ b\\tc/d\\ e", 1, 0, 0}, {"a:b!c;d e:f", 0, 0, 0}, {"a\x18" "b", 0, 1, 0}, {"a\\nb", 1, 1, 0},
        {"a\\nb", 0, 0, 0}, {".kestrel\x18", 0, 0, 2}, {".kestrel\x18", 0, 1, 3}, {".execScrip", 0, 0, 0},
        {".kestre", 0, 0, 0}, {std::string(4096, 'q'), 1, 0, 0}, {"f", 0, 0, 0, kShowFields + " root", nullptr},
        {"g", 0, 0, 0, kShow + " extra", "resdnt extra"}, {".execScript/x", 0, 0, 3},
    };
    for (const auto& row : rows) {
        int len = static_cast<int>(row.path.size());
        Reader r(pdr(row.path, row.escaped ? -len : len, row.show), {.clusterMigration = row.migDiff != 0});
        const int rc = r.read(); // before the outputs are looked at
        EXPECT_EQ(std::make_tuple(rc, int(r.rec.escapedPath), std::string(r.rec.path), std::string(r.rec.show)),
                  std::make_tuple(row.rc, row.escaped, row.path, kShowFields));
        EXPECT_EQ(r.rec.fileset, "root") << row.path;
        EXPECT_EQ(r.rec.hsmState.data() == nullptr, row.hsm == nullptr) << row.path;
        EXPECT_EQ(r.rec.hsmState, row.hsm != nullptr ? std::string_view(row.hsm) : std::string_view()) << row.path;
    }
    // Header lines anywhere are passed over but counted; a last line without its line feed is the end.
    Reader r("%%mshadow0%%:x\n" + pdr("a") + "%%shadow%%:03_COMMENT::1:\n" + pdr("b") + pdr("c").substr(0, 20));
    for (auto [path, line] : {std::pair{"a", 2}, {"b", 4}, {"", 0}}) {
        ASSERT_EQ(r.read(), 0);
        EXPECT_EQ(r.reader.atEnd(), *path == '\0');
        if (!r.reader.atEnd()) {
            EXPECT_EQ(std::make_tuple(std::string(r.rec.path), r.rec.lineNumber), std::make_tuple(path, uint64_t(line)));
        }
    }
}

// The path-sorted index and the server's query file pass over fewer of the tool's paths.
TEST(IsInternalPath, EachReaderKeepsItsRule)
{
    const struct {
        const char* path; const char* all_noScripts_toolOnly;
    } rows[] = {{".", "110"}, {".kestrel", "111"}, {".kestrelSnapshot/x", "111"}, {".execScript/x", "100"},
                {".execScrip", "000"}, {"..", "000"}, {"a/.kestrel", "000"}, {"", "000"}};
    for (const auto& row : rows) {
        std::string got;
        for (InternalPaths rule : {InternalPaths::all, InternalPaths::noScripts, InternalPaths::toolOnly})
            got += isInternalPath(row.path, rule) ? '1' : '0';
        EXPECT_EQ(got, row.all_noScripts_toolOnly) << row.path;
    }
}

TEST(ReadPolicyRecord, FailuresPrintTheStepMessageWithTheLine)
{
    const std::string parse = "failed to parse shadow line [", body = "!a/b/c:6!system;";
    // The message after "quenby: "; `shown`: how much of the line had been read; `fault`: its first call fails.
    const struct {
        std::string line, message; size_t shown = std::string::npos; SysCall fault = SysCall::count_;
    } rows[] = {
        {"garbage\n", parse + "1]"}, {"0:0:1:1:0:0:0\n", parse + "1]"},
        {pdr(std::string(4097, 'p'), -4097), parse + "1]"}, {kHead + "5" + body + "x!" + kShow + "\n", parse + "3]"},
        {kHead + "5\n", "failed to find file path in "}, {kHead + "5!a/b/c:6\n", "failed to find storage pool in "},
        {kHead + "9000" + body + "68!" + kShow + "\n", "invalid file path length 9000 in "},
        {kHead + "500" + body + "68!" + kShow + "\n", "file path length 500 larger than "},
        {kHead + "5!a/b/c:x!system;68!" + kShow + "\n", parse + "2]"},
        {kHead + "5!a/b/c:99!system;5!x\n", "invalid storage pool length 99 in "},
        {kHead + "5" + body + "68\n", "failed to find show attribute in "},
        {kHead + "5" + body + "99!" + kShow + "\n", "invalid show attribute length 99 in "},
        {pdr("a", 1, kShowFields), "invalid show attribute in "},
        {pdr("a"), "failed to realloc memory for line ", 0, SysCall::alloc},
        {pdr("a"), "failed to read records (error=5)", 0, SysCall::read},
    };
    for (const auto& row : rows) {
        testutil::GlobalsGuard guard;
        Reader r(row.line);
        if (row.fault != SysCall::count_)
            sysFailOn(row.fault, 1, EIO);
        EXPECT_EQ(testutil::stderrOf([&] { EXPECT_EQ(r.read(), -1) << row.line.substr(0, 60); }),
                  row.message.empty() ? "" : "quenby: " + row.message + row.line.substr(0, row.shown) + "\n");
    }
}

// Formats not literal: the compiler rejects the "0" in "%016llx", which the library reads as width.
void compareScans(const std::string& text)
{
    static const std::string head = "%*x:%*llx:%016llx:%llx:%*llx:%*x:%*x:%x:%d!%*s", length = "%d!%*s";
    unsigned long long ino[2] = {0x1111, 0x1111}, gen[2] = {0x2222, 0x2222};
    unsigned int flag[2] = {0x3333, 0x3333};
    int len[2] = {0x4444, 0x4444};
    int lib = std::sscanf(text.c_str(), head.c_str(), &ino[0], &gen[0], &flag[0], &len[0]);
    uint64_t ownIno = ino[1], ownGen = gen[1];
    int own = scanRecordHead(text.c_str(), &ownIno, &ownGen, &flag[1], &len[1]);
    ASSERT_EQ(std::make_tuple(own, ownIno, ownGen, flag[1], len[1]),
              std::make_tuple(lib, ino[0], gen[0], flag[0], len[0])) << "input [" << text << "]";
    for (const char* from : {text.c_str(), text.c_str() + text.rfind(':') + 1}) {
        int libLen = 0x5555, ownLen = 0x5555;
        int libCount = std::sscanf(from, length.c_str(), &libLen);
        ASSERT_EQ(std::make_pair(scanLengthField(from, &ownLen), ownLen), std::make_pair(libCount, libLen))
            << "input [" << from << "]";
    }
}

TEST(RecordScan, MatchesSscanf)
{
    for (const char* text : {"", "   ", "0x", "0x!", "-!x", "1:2:3:4:5:6:7:8:-", "1:2:0x:0x:5:6:7:0x:5!a",
                             "1:2:  0000000000000000001:4:5:6:7:8:9!a", "1:2:-123456789abcdef0:4:5:6:7:8:9!a",
                             "1:2:3:4:5:6:7:8:2147483648!a", "1:2:3:4:5:6:7:8:-9223372036854775809!a"})
        ASSERT_NO_FATAL_FAILURE(compareScans(text));
    // Fields of signs, prefixes, blanks, digit runs past any width and stray characters, some cut off.
    std::mt19937 rng(20240611);
    const char* const parts[] = {"0", "7", "f", "A", "0x", "0X", "-", "+", " ", "\t", ":", "!", "x", "\n",
                                 "123456789abcdef0", "99999999999"};
    for (int round = 0; round < 30000; ++round) {
        std::string text;
        for (int field = 0; field < 9; ++field) {
            for (unsigned n = rng() % 4; n > 0; --n)
                text += parts[rng() % std::size(parts)];
            text += rng() % 20 == 0 ? "" : field < 8 ? ":" : "!p/a";
        }
        text.resize(rng() % 3 == 0 ? rng() % (text.size() + 1) : text.size());
        ASSERT_NO_FATAL_FAILURE(compareScans(text)) << "round " << round;
    }
}

} // namespace

// Reading ahead on a thread gives what reading here gives, message for message: across blocks,
// a line longer than a block, header lines, and the malformed record that stops the list.
TEST(ReadPolicyRecord, ReadAheadMatchesReadingHere)
{
    std::string text = testutil::kDbHeader;
    for (unsigned i = 0; i < 20000; ++i)
        text += testutil::record({.ino = i, .path = "/fs/" + std::string(i % 300, 'p')})
                + (i == 7000 ? testutil::kDbHeader + pdr(std::string(3 << 20, 'L')) : "");
    text += "0:0:1:1:0:0:0\n" + pdr("after");
    auto readAll = [&](bool ahead) {
        Reader r(text);
        if (ahead) {
            EXPECT_TRUE(r.reader.readAhead());
        }
        std::string got;
        const std::string err = testutil::stderrOf([&] {
            for (int rc = 0; rc == 0 && !r.reader.atEnd();) {
                rc = r.read();
                got += std::to_string(rc) + " " + std::to_string(r.rec.ino) + " " + std::to_string(r.rec.lineNumber)
                       + " " + std::string(r.rec.path.substr(0, 9)) + " " + std::to_string(r.rec.length) + "\n";
            }
        });
        return got + err;
    };
    const std::string here = readAll(false);
    EXPECT_NE(here.find("failed to parse shadow line [1]0:0:1:1:0:0:0"), std::string::npos);
    EXPECT_EQ(readAll(true), here);
}
