// fgetsLength read side by side with fgets: two streams over the same bytes
// must give the same line, count and stream flags at every call.
#include "support/line_read.h"

#include "test_util.h"

#include <algorithm>
#include <cstring>

namespace {

// A stream over `data`: a plain file (`chunk` 0) or reads of at most `chunk` bytes, read number
// `failAt` failing with EIO; a stdio buffer of `vbuf` bytes (0: the default one, 1: unbuffered).
struct Reader {
    std::string data;
    size_t chunk, pos = 0;
    int failAt, reads = 0;
    std::vector<char> buf;
    FILE* f;
    Reader(const std::string& path, const std::string& text, size_t chunkSize, int fail, size_t vbuf)
        : data(text), chunk(chunkSize), failAt(fail), buf(vbuf)
    {
        testutil::writeFile(path, data);
        f = chunk == 0 ? std::fopen(path.c_str(), "r") : fopencookie(this, "r", {read, nullptr, nullptr, nullptr});
        if (vbuf > 0)
            setvbuf(f, vbuf > 1 ? buf.data() : nullptr, vbuf > 1 ? _IOFBF : _IONBF, vbuf);
    }
    ~Reader() { std::fclose(f); }
    static ssize_t read(void* cookie, char* out, size_t size)
    {
        auto* s = static_cast<Reader*>(cookie);
        if (++s->reads == s->failAt) {
            errno = EIO;
            return -1;
        }
        size_t n = std::min({size, s->chunk, s->data.size() - s->pos});
        std::memcpy(out, s->data.data() + s->pos, n);
        s->pos += n;
        return static_cast<ssize_t>(n);
    }
};

void compareReads(const std::string& data, int size, size_t chunk, int failAt, size_t vbuf)
{
    SCOPED_TRACE(testing::Message() << "size " << size << " chunk " << chunk << " failAt " << failAt << " vbuf " << vbuf
                                    << " data " << testing::PrintToString(data));
    static const testutil::ScratchDir dir;
    Reader plain(dir.file("a"), data, chunk, failAt, vbuf), ours(dir.file("b"), data, chunk, failAt, vbuf);
    std::vector<char> want(static_cast<size_t>(size)), got(static_cast<size_t>(size));
    size_t counted = 0;
    for (size_t call = 0; call < data.size() + 3; ++call) {
        // Same filler on both sides: a byte stored by only one of them shows.
        std::fill(want.begin(), want.end(), '\x7f');
        std::fill(got.begin(), got.end(), '\x7f');
        const char* line = std::fgets(want.data(), size, plain.f);
        const long n = fgetsLength(got.data(), size, ours.f);
        ASSERT_EQ(line == nullptr, n < 0) << "call " << call;
        if (line != nullptr) {
            // The count ends right at the NUL, and the counts add up to the input.
            ASSERT_LT(n, size);
            EXPECT_EQ(got[static_cast<size_t>(n)], '\0') << "call " << call;
            counted += static_cast<size_t>(n);
            EXPECT_EQ(textLength(got.data(), static_cast<size_t>(n)), std::strlen(want.data())) << "call " << call;
            EXPECT_EQ(want, got) << "call " << call;
        }
        EXPECT_EQ(std::feof(plain.f) != 0, std::feof(ours.f) != 0) << "call " << call;
        EXPECT_EQ(std::ferror(plain.f) != 0, std::ferror(ours.f) != 0) << "call " << call;
        if (line == nullptr && std::feof(plain.f) != 0)
            break;
    }
    EXPECT_TRUE(failAt != 0 || size < 2 || counted == data.size());
}

TEST(LineRead, MatchesFgets)
{
    const std::string inputs[] = {"", "\n", "one line\n", "no line feed", std::string("a\0b\n\0\n", 6),
                                  std::string(5000, 'x') + "\nshort\n" + std::string(300, 'y')};
    for (const std::string& data : inputs)
        for (int size : {1, 2, 3, 17, 8192})
            for (auto [chunk, vbuf] : {std::pair<size_t, size_t>{0, 0}, {0, 1}, {0, 5}, {1, 0}, {7, 3}, {64, 0}})
                compareReads(data, size, chunk, 0, vbuf);
    // Read errors mid-stream; after one, a last line without a line feed is still returned.
    for (int failAt : {1, 2, 4})
        for (int size : {2, 5, 64})
            compareReads("first line\n\nthird, longer line\nlast\n", size, 3, failAt, 0);
    compareReads("ab\ncd", 8, 4, 1, 0);
}

} // namespace
