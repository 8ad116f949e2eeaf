// The line source against a plain line split: every access, block size and
// read pattern must give the same lines, offsets and ends.
#include "support/line_source.h"

#include "test_util.h"

#include <cstring>

namespace {

// Reads of at most `chunk` bytes from `data`, read number `failAt` failing with EIO.
struct Chunks {
    std::string data;
    size_t chunk, pos = 0;
    int failAt, reads = 0;
    static ssize_t read(void* self, char* out, size_t size)
    {
        auto* c = static_cast<Chunks*>(self);
        if (++c->reads == c->failAt) {
            errno = EIO;
            return -1;
        }
        size_t n = std::min({size, c->chunk, c->data.size() - c->pos});
        std::memcpy(out, c->data.data() + c->pos, n);
        c->pos += n;
        return static_cast<ssize_t>(n);
    }
};

// What a source must hand out: every line with its line feed, a last one
// without only when kept, a line longer than `maxLine` cut to its head.
std::vector<std::pair<std::string, int64_t>> expectedLines(const std::string& data, bool keepLast, size_t maxLine)
{
    std::vector<std::pair<std::string, int64_t>> lines;
    size_t at = 0;
    while (at < data.size()) {
        size_t lf = data.find('\n', at);
        if (lf == std::string::npos && !keepLast)
            break;
        size_t end = lf == std::string::npos ? data.size() : lf + 1;
        std::string line = data.substr(at, end - at);
        if (maxLine != 0 && line.size() > maxLine - 1 && (lf != std::string::npos || end - at >= maxLine - 1))
            line = line.substr(0, maxLine - 2) + "\n";
        lines.emplace_back(line.substr(0, std::strlen(line.c_str())), static_cast<int64_t>(at));
        at = end;
    }
    return lines;
}

TEST(LineSource, HandsOutEveryLineInPlace)
{
    const std::string inputs[] = {"", "\n", "one line\n", "no line feed", std::string("a\0b\n\0\n", 6),
                                  std::string(5000, 'x') + "\nshort\n" + std::string(300, 'y'),
                                  "a\nbb\nccc\n" + std::string(40, 'z') + "\nlast"};
    for (const std::string& data : inputs)
        for (size_t block : {2, 3, 17, 1 << 20})
            for (size_t chunk : {1, 7, 4096})
                for (auto [keepLast, maxLine] : {std::pair<bool, size_t>{false, 0}, {true, 0}, {true, 24}}) {
                    SCOPED_TRACE(testing::Message() << "block " << block << " chunk " << chunk << " keep "
                                                    << keepLast << " max " << maxLine << " data "
                                                    << testing::PrintToString(data.substr(0, 40)));
                    Chunks input{data, chunk, 0, 0};
                    LineSource source({.blockSize = block, .keepUnterminatedLine = keepLast, .maxLine = maxLine});
                    source.attachReader(&Chunks::read, &input);
                    std::vector<std::pair<std::string, int64_t>> got;
                    LineView line;
                    while (source.next(line) == 1) {
                        ASSERT_EQ(line.text[line.span], '\0');
                        got.emplace_back(std::string(line.text, line.length), line.offset);
                    }
                    EXPECT_EQ(got, expectedLines(data, keepLast, maxLine));
                    EXPECT_EQ(source.next(line), 0); // the end stays the end
                }
}

TEST(LineSource, ReadErrorsAndPositionedLines)
{
    Chunks failing{"first\nsecond\n", 3, 0, 2};
    LineSource source({.blockSize = 4});
    source.attachReader(&Chunks::read, &failing);
    LineView line;
    EXPECT_EQ(source.next(line), -1);
    EXPECT_EQ(errno, EIO);

    testutil::ScratchDir dir;
    const std::string data = "%%head\nrecord one\n" + std::string(9000, 'r') + "\nlast\nno end";
    testutil::writeFile(dir.file("f"), data);
    LineSource at({.access = LineSource::Access::positioned, .blockSize = 16});
    ASSERT_EQ(at.open(dir.file("f").c_str()), 0);
    // Backwards, forwards, inside the window and far from it.
    for (int64_t offset : {int64_t(7), int64_t(18), int64_t(0), int64_t(9019), int64_t(18), int64_t(7)}) {
        ASSERT_EQ(at.lineAt(offset, line), 1) << offset;
        size_t lf = data.find('\n', static_cast<size_t>(offset));
        EXPECT_EQ(std::string(line.text, line.span), data.substr(static_cast<size_t>(offset), lf + 1 - offset));
        EXPECT_EQ(line.offset, offset);
    }
    EXPECT_EQ(at.lineAt(9024, line), 0); // no whole line left
    EXPECT_EQ(at.open((dir.file("missing")).c_str()), 2);
}

} // namespace
