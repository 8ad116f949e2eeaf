#include "support/progress.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

constexpr double REDRAW_SECONDS = 0.25;

timespec now()
{
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t;
}

double secondsBetween(const timespec& from, const timespec& to)
{
    return static_cast<double>(to.tv_sec - from.tv_sec) + static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e9;
}

} // namespace

ProgressLine::ProgressLine(const char* label, uint64_t totalBytes, bool enabled, int fd)
    : label_(label), total_(totalBytes), enabled_(enabled), fd_(fd)
{
    if (enabled_)
        start_ = lastDraw_ = now();
}

ProgressLine::~ProgressLine()
{
    finish();
}

bool ProgressLine::wanted(const char* progressEnv, int fd)
{
    return isatty(fd) == 1 && (progressEnv == nullptr || std::strcmp(progressEnv, "0") != 0);
}

void ProgressLine::check(uint64_t records, uint64_t bytesRead)
{
    calls_ = 0;
    timespec t = now();
    if (secondsBetween(lastDraw_, t) < REDRAW_SECONDS)
        return;
    lastDraw_ = t;
    double seconds = std::max(secondsBetween(start_, t), 1e-3);
    char line[160];
    int n = std::snprintf(line, sizeof line, "\rquenby %s: %llu records, %.1f MB/s", label_,
                          static_cast<unsigned long long>(records), static_cast<double>(bytesRead) / 1e6 / seconds);
    if (total_ > 0 && n > 0 && n < static_cast<int>(sizeof line))
        n += std::snprintf(line + n, sizeof line - n, ", %llu%% read",
                           static_cast<unsigned long long>(std::min<uint64_t>(bytesRead, total_) * 100 / total_));
    n = std::min(n, static_cast<int>(sizeof line) - 1);
    // Blanks over what is left of a longer line before.
    int length = n - 1;
    int pad = std::clamp(shownLength_ - length, 0, static_cast<int>(sizeof line) - 1 - n);
    std::memset(line + n, ' ', pad);
    put(line, n + pad);
    shownLength_ = length;
}

void ProgressLine::finish()
{
    if (shownLength_ == 0)
        return;
    char blank[160];
    int n = std::min(shownLength_, static_cast<int>(sizeof blank) - 2);
    blank[0] = '\r';
    std::memset(blank + 1, ' ', n);
    blank[n + 1] = '\r';
    put(blank, n + 2);
    shownLength_ = 0;
}

void ProgressLine::put(const char* text, int length)
{
    // A line that cannot be shown is no reason to stop the run.
    while (length > 0) {
        ssize_t written = write(fd_, text, static_cast<size_t>(length));
        if (written <= 0)
            return;
        text += written;
        length -= static_cast<int>(written);
    }
}
