// The progress line through a pipe: drawn with the count and the share read,
// erased by finish, and never a byte when disabled or not at a terminal.
#include "support/progress.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <stdlib.h>
#include <string>
#include <thread>
#include <unistd.h>

namespace {

struct Pipe {
    int fd[2];
    Pipe()
    {
        EXPECT_EQ(0, pipe2(fd, O_NONBLOCK));
    }
    ~Pipe()
    {
        close(fd[0]);
        close(fd[1]);
    }
    std::string drain()
    {
        std::string text;
        char buf[512];
        for (ssize_t n; (n = read(fd[0], buf, sizeof buf)) > 0;)
            text.append(buf, n);
        return text;
    }
};

// Ticks for at least `seconds`, as a run would between its records; the
// seconds it took.
double tickFor(ProgressLine& progress, double seconds)
{
    auto start = std::chrono::steady_clock::now();
    std::chrono::duration<double> took{};
    while ((took = std::chrono::steady_clock::now() - start).count() < seconds) {
        for (int i = 0; i < 5000; i++)
            progress.tick(12345, 500);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(ProgressLine, DrawsCountAndShareThenErasesItself)
{
    Pipe out;
    {
        ProgressLine progress("updateshadow", 1000, true, out.fd[1]);
        double seconds = tickFor(progress, 0.6);
        std::string drawn = out.drain();
        ASSERT_EQ('\r', drawn.front());
        EXPECT_NE(std::string::npos, drawn.find("quenby updateshadow: 12345 records, "));
        EXPECT_NE(std::string::npos, drawn.find(" MB/s, 50% read"));
        EXPECT_EQ(std::string::npos, drawn.find('\n'));
        // At most four draws a second.
        size_t draws = 0;
        for (char c : drawn)
            draws += c == '\r';
        EXPECT_GE(draws, 1u);
        EXPECT_LE(draws, static_cast<size_t>(seconds * 4));

        progress.finish();
        std::string erased = out.drain();
        ASSERT_GE(erased.size(), 2u);
        std::string blanks(erased.size(), ' ');
        blanks.front() = blanks.back() = '\r';
        EXPECT_EQ(blanks, erased);
        EXPECT_EQ(drawn.size() - drawn.rfind('\r') - 1, erased.size() - 2) << "the blanks cover the whole line";
    }
    EXPECT_EQ("", out.drain()) << "nothing left to erase at the end";
}

TEST(ProgressLine, DisabledOrNotATerminalPrintsNothing)
{
    Pipe out;
    {
        ProgressLine progress("verifyshadow", 1000, false, out.fd[1]);
        tickFor(progress, 0.4);
        progress.finish();
    }
    EXPECT_EQ("", out.drain());

    EXPECT_FALSE(ProgressLine::wanted(nullptr, out.fd[1]));
    int terminal = posix_openpt(O_RDWR | O_NOCTTY);
    if (terminal < 0)
        GTEST_SKIP() << "no pseudo-terminal";
    EXPECT_TRUE(ProgressLine::wanted(nullptr, terminal));
    EXPECT_TRUE(ProgressLine::wanted("1", terminal));
    EXPECT_FALSE(ProgressLine::wanted("0", terminal));
    close(terminal);
}

} // namespace
