// One line on standard error that tells how far a long run has got: records so
// far, MB/s and the share of the input read. Only for a person at a terminal:
// the driver reads standard error through a pipe and must see nothing of it.
#pragma once

#include <cstdint>
#include <ctime>

class ProgressLine {
public:
    // `label` is the sub-command's word; `totalBytes` the size of the input the
    // run reads (0: unknown, no share is shown). Disabled, it prints nothing.
    ProgressLine(const char* label, uint64_t totalBytes, bool enabled, int fd = 2);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // Whether to show progress: `fd` is a terminal and the value of
    // QUENBY_PROGRESS (null when unset) is not "0".
    static bool wanted(const char* progressEnv, int fd = 2);

    // Called per record or per block; looks at the clock only once every
    // CHECK_EVERY calls and redraws at most four times a second.
    void tick(uint64_t records, uint64_t bytesRead)
    {
        if (enabled_ && ++calls_ >= CHECK_EVERY)
            check(records, bytesRead);
    }

    // The size of the input, once it is known.
    void setTotal(uint64_t totalBytes) { total_ = totalBytes; }

    // Erases the line if it is shown; a later tick may draw it again.
    void finish();

private:
    static constexpr uint32_t CHECK_EVERY = 2048;

    void check(uint64_t records, uint64_t bytesRead);
    void put(const char* text, int length);

    const char* label_;
    uint64_t total_;
    bool enabled_;
    int fd_;
    uint32_t calls_ = 0;
    int shownLength_ = 0; // 0: nothing on the terminal
    timespec start_{};
    timespec lastDraw_{};
};
