// The index and server query readers: what one call takes from a stream,
// the lines it passes over, how the caller's buffers grow, and refusals.
#include "rebuild/index_query.h"

#include "support/file_stream.h"
#include "test_util.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr SysCall kNone = SysCall::count_;

// `text` in a stream, buffers whose path still holds "prev", the fault armed, stderr captured.
struct Input {
    std::unique_ptr<FILE, int (*)(FILE*)> f{std::tmpfile(), std::fclose};
    HeapBuf line, path;
    Input(const std::string& text, int lineBytes, SysCall fault)
    {
        std::fputs(text.c_str(), f.get());
        std::rewind(f.get());
        EXPECT_TRUE(line.allocate(lineBytes) && path.allocate(4096));
        std::strcpy(path.ptr, "prev");
        if (fault != kNone)
            sysFailOn(fault, 1, ENOMEM);
        testing::internal::CaptureStderr();
    }
};

TEST(ReadIndexFile, ReadsSkipsOrRefusesALine)
{
    testutil::GlobalsGuard guard;
    const std::string p5000(5000, 'p'), fits(8173, 'f'), over(8174, 'o'), head = "0000000000000001 ";
    const struct {
        std::string text, path, err;
        int rc, size;
        long long offset;
        unsigned eof = 0;
        SysCall fault = kNone;
    } rows[] = {
        {"00000000000001f0 dir/a b\n", "dir/a b", "", 0, 4096, 496},
        {"0000000000000001 .\n0000000000000002 .kestrelX\nffffffffffffffff .kestre\n", ".kestre", "", 0, 4096, -1},
        {"0000000000000001 .\n0000000000000002 .kestrel.x\n", "prev", "", 0, 4096, 2, 1},
        {head + fits + "\n", fits, "", 0, 8192, 1},
        {head + over + "\n", "prev", "quenby: readIndexFile: sorted Index line is too long. [" + head + over + "]\n",
         -1, 4096, -7},
        {"zz dir\n", "prev", "quenby: readIndexFile: sscanf(zz dir\n) return 0\n", -1, 4096, -7},
        {head + "a", "prev", "", 0, 4096, -7, 1},
        {head + p5000 + "\n", "prev", "quenby: readIndexFile: failed to realloc(size=8192) memory for line " + p5000 + "\n",
         12, 4096, 1, 0, SysCall::alloc},
    };
    for (const auto& row : rows) {
        Input in(row.text, 8192, row.fault);
        long long offset = -7;
        unsigned eof = 0;
        EXPECT_EQ(readIndexFile(in.f.get(), &in.path.ptr, &in.path.size, &offset, &eof), row.rc) << row.text;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.err);
        sysFaultsClear();
        EXPECT_EQ(eof, row.eof);
        EXPECT_EQ(offset, row.offset);
        EXPECT_EQ(in.path.ptr, row.path);
        EXPECT_EQ(in.path.size, row.size);
    }
}

TEST(ReadQueryRecord, ReadsOneLineIntoTheRecord)
{
    testutil::GlobalsGuard guard;
    const std::string x4096(4096, 'x'), at4096 = "1 2024-01-01X 10:00:00 d t 7 4096!" + x4096 + "\n";
    const std::string y150(150, 'y'), long150 = "0 d t d t 7 150!" + y150 + "\n";
    enum { quiet, parse, realloc };
    // Refused lines leave the path and pathLen of the previous record.
    const struct {
        std::string text, fields, path;
        int rc, pathLen, lineSizeAfter, pathSizeAfter, message;
        unsigned eof = 0;
        int lineSize = 8192;
        SysCall fault = kNone;
    } rows[] = {
        {"1 d1 t1 d2 t2 -1 9!dir/a!b c\n", "1 d1 t1 d2 t2 -1", "dir/a!b c", 0, 9, 8192, 4096, quiet},
        {at4096, "1 2024-01-01X 10:00:00 d t 7", x4096, 0, 4096, 8192, 8192, quiet},
        {long150, "0 d t d t 7", y150, 0, 150, 256, 4096, quiet, 0, 64},
        {"1 d t d t 7 5000!" + std::string(5000, 'x') + "\n", "", "prev", 22, 77, 8192, 4096, quiet},
        {"1 2024-01-01XY t d t 1 1!a\n", "", "prev", -1, 77, 8192, 4096, parse},
        {"1 d1 t1 d2 t2 5 3 abc\n", "", "prev", -1, 77, 8192, 4096, parse},
        {"1 d1 t1 d2 t2 5 10!abc\n", "", "prev", -1, 77, 8192, 4096, parse},
        {"1 d1 t1 d2 t2\n", "", "prev", -1, 77, 8192, 4096, parse},
        {"1 d1 t1 d2 t2 5 3!abc", "", "prev", 0, 77, 8192, 4096, quiet, 1},
        {long150, "", "prev", 12, 77, 64, 4096, quiet, 0, 64, SysCall::alloc},
        {long150, "", "prev", -1, 77, 128, 4096, quiet, 0, 64, SysCall::fseek},
        {at4096, "", "prev", 12, 77, 8192, 4096, realloc, 0, 8192, SysCall::alloc},
    };
    for (const auto& row : rows) {
        Input in(row.text, row.lineSize, row.fault);
        queryRecord rec{};
        rec.pathLen = 77;
        unsigned eof = 1;
        EXPECT_EQ(readQueryRecord(in.f.get(), &in.line.ptr, &in.line.size, &in.path.ptr, &in.path.size, &rec, &eof),
                  row.rc)
            << row.text.substr(0, 60);
        const std::string messages[] = {
            "", "quenby: readQueryRecord: failed to parse query record line [" + row.text + "]\n",
            "quenby: readQueryRecord: failed to realloc(size=8192) memory for line " + row.text + "\n"};
        EXPECT_EQ(testing::internal::GetCapturedStderr(), messages[row.message]);
        sysFaultsClear();
        EXPECT_EQ(eof, row.eof);
        const std::string fields = std::to_string(rec.attrFlag) + " " + rec.mtimeDate + " " + rec.mtimeTime + " "
                                   + rec.ctimeDate + " " + rec.ctimeTime + " " + std::to_string(rec.fileSize);
        EXPECT_EQ(row.fields.empty() ? "" : fields, row.fields);
        EXPECT_EQ(in.path.ptr, row.path);
        EXPECT_EQ(rec.pathLen, row.pathLen);
        EXPECT_EQ(in.line.size, row.lineSizeAfter);
        EXPECT_EQ(in.path.size, row.pathSizeAfter);
    }
}

} // namespace
