// The progress line through a pipe: drawn with the count and the share read,
// erased by finish, and never a byte when disabled or not at a terminal.
#include "support/progress.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

std::string drain(int fd)
{
    std::string text;
    char buf[512];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
        text.append(buf, n);
    return text;
}

// Ticks for at least `seconds`, as a run would between its records; the seconds it took.
double tickFor(ProgressLine& progress, double seconds)
{
    auto start = std::chrono::steady_clock::now();
    auto took = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
    while (took() < seconds) {
        for (int i = 0; i < 5000; i++)
            progress.tick(12345, 500);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return took();
}

TEST(ProgressLine, DrawsAtMostFourTimesASecondAndErasesItself)
{
    int out[2];
    ASSERT_EQ(0, pipe2(out, O_NONBLOCK));
    {
        ProgressLine progress("updateshadow", 1000, true, out[1]);
        double seconds = tickFor(progress, 0.6);
        std::string drawn = drain(out[0]);
        ASSERT_EQ('\r', drawn.front());
        EXPECT_NE(std::string::npos, drawn.find("quenby updateshadow: 12345 records, "));
        EXPECT_NE(std::string::npos, drawn.find(" MB/s, 50% read"));
        size_t draws = std::count(drawn.begin(), drawn.end(), '\r');
        EXPECT_LE(draws, static_cast<size_t>(seconds * 4));

        progress.finish();
        std::string erased = drain(out[0]), blanks(drawn.size() - drawn.rfind('\r') + 1, ' ');
        blanks.front() = blanks.back() = '\r';
        EXPECT_EQ(blanks, erased) << "blanks over the whole line, the cursor back at its start";
    }
    EXPECT_EQ("", drain(out[0])) << "nothing left to erase at the end";

    {
        ProgressLine progress("verifyshadow", 1000, false, out[1]);
        tickFor(progress, 0.4);
    }
    EXPECT_EQ("", drain(out[0])) << "disabled";
    EXPECT_FALSE(ProgressLine::wanted(nullptr, out[1])) << "a pipe is no terminal";
    close(out[0]);
    close(out[1]);

    int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(terminal, 0);
    EXPECT_TRUE(ProgressLine::wanted(nullptr, terminal));
    EXPECT_FALSE(ProgressLine::wanted("0", terminal));
    close(terminal);
}

} // namespace
