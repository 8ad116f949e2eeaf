#include "bunch/client_monitor.h"

#include "bunch/bunch_list.h"
#include "bunch/path_index.h"
#include "bunch/record_update.h"
#include "cli/dispatch.h"
#include "support/file_stream.h"
#include "support/line_read.h"
#include "support/sys_call.h"

#include <cstring>

namespace {

constexpr int kClientLineSize = 8192;
// A client line longer than this is cut; the rest of it is read over, so
// that its tail is never taken for a line of its own.
constexpr int kClientLineMax = 1 << 20;
constexpr int kSummaryLines = 15;

inline constexpr char kSummaryStart[] = "Total number of ";
inline constexpr char kSummaryEncrypted[] = "Total number of objects encrypted:";

bool startsWith(const char* text, const char* prefix)
{
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}


// Reads the next whole line of the client's output, line feed included, as
// it arrives; false when the output has ended. A line longer than
// kClientLineMax keeps its head and loses the rest, so that its tail is
// never taken for a line of its own.
bool readClientLine(FILE* in, HeapBuf& buf)
{
    size_t len = 0;
    for (;;) {
        long got = fgetsLength(buf.ptr + len, buf.size - static_cast<int>(len), in);
        if (got < 0)
            break;
        len += static_cast<size_t>(got);
        if (buf.ptr[len - 1] == '\n' || len + 1 < static_cast<size_t>(buf.size))
            break;
        if (buf.size >= kClientLineMax || !buf.grow(buf.size * 2)) {
            int c;
            while ((c = getc_unlocked(in)) != EOF && c != '\n') {
            }
            buf.ptr[len - 1] = '\n';
            break;
        }
    }
    buf.ptr[len] = '\0';
    return len > 0;
}

struct FileReport {
    const char* start;     // start pattern
    int skip;              // characters of it before the path
    const char* end;       // end pattern
    int state;             // state reported
};

class Monitor {
public:
    Monitor(FILE* shadow, const char* label, int successState, offset_t firstOffset, offset_t lastOffset)
        : shadow_(shadow), label_(label), successState_(successState), first_(firstOffset), last_(lastOffset)
    {
    }

    void line(char* text);
    void arrowReport(char* text);
    int updated = 0;
    int failed = 0;

private:
    void fileReport(char* text, const FileReport& report);

    FILE* shadow_;
    const char* label_;
    int successState_;
    offset_t first_;
    offset_t last_;
};

void Monitor::fileReport(char* text, const FileReport& report)
{
    char* at = std::strstr(text, report.start);
    if (at == nullptr) {
        if (quenby_debug > 1)
            std::fprintf(stderr, "quenby:missing startPattern [%s]\n", report.start);
        return;
    }
    char* path = at + report.skip;
    int state = report.state;
    char* end = std::strstr(path, report.end);
    if (end == nullptr)
        end = std::strstr(path, " [Unchanged]");
    if (end == nullptr && (end = std::strstr(path, "  ** Unsuccessful **")) != nullptr)
        state = PDR_BACKUP;
    if (end == nullptr) {
        std::printf("quenby:QBS output unrecognized:%s", text);
        return;
    }
    *end = '\0';
    if (expireOldFormat == 1)
        return;

    uint32_t slot = 0;
    offset_t offset = gsi_findIndex(path, &slot);
    if (offset == 0) {
        std::printf("quenby:execAndMonitor() unrequested %s path:%s\n", label_, path);
        return;
    }
    if (offset < first_ || offset > last_)
        std::printf("quenby:execAndMonitor()%s %s outside range [%llx - %llx]\n", label_, path,
                    static_cast<unsigned long long>(first_), static_cast<unsigned long long>(last_));
    ++updated;
    updateShadowPDR(shadow_, offset, state, slot);
}

void Monitor::line(char* text)
{
    if (startsWith(text, "ANS1345E")) {
        if (quenby_debug > 1)
            std::fprintf(stderr, "quenby: QBS expired already:%s", text);
        fileReport(text, {" '", 2, "'\n", successState_});
    } else if (startsWith(text, "ANS1228E")) {
        ++failed;
        fileReport(text, {"object '", 8, "' failed.", PDR_BACKUP});
    } else if (startsWith(text, "ANS")) {
        std::fputs(text, stdout);
    } else {
        arrowReport(text);
    }
}

void Monitor::arrowReport(char* text)
{
    if (std::strstr(text, "-->") != nullptr)
        fileReport(text, {" /", 1, " [Sent]", successState_});
}

} // namespace

void monitorClientOutput(FILE* output, FILE* shadow, const char* label, int successState, offset_t firstOffset,
                         offset_t lastOffset, HeapBuf& buf, MonitorCounts& counts)
{
    Monitor monitor(shadow, label, successState, firstOffset, lastOffset);
    RecordReadWindow window(shadow);
    while (readClientLine(output, buf)) {
        if (quenby_debug > 3)
            std::fprintf(stderr, "quenby:QBS:%s", buf.ptr);
        if (!startsWith(buf.ptr, kSummaryStart)) {
            monitor.line(buf.ptr);
            continue;
        }
        // A summary block goes to the driver as it stands; its last line
        // may still report a file.
        std::fputs(buf.ptr, stdout);
        bool ended = false;
        for (int left = kSummaryLines - 1; left > 0; --left) {
            if (!readClientLine(output, buf)) {
                ended = true;
                break;
            }
            if (quenby_debug > 3)
                std::fprintf(stderr, "quenby:QBS:%s", buf.ptr);
            std::fputs(buf.ptr, stdout);
            if (startsWith(buf.ptr, kSummaryEncrypted))
                ++left;
        }
        if (ended)
            break;
        monitor.arrowReport(buf.ptr);
    }
    counts.updated = monitor.updated;
    counts.failed = monitor.failed;
}

int execAndMonitor(const char* command, FILE* shadow, const char* label, int successState, offset_t firstOffset,
                   offset_t lastOffset)
{
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:execAndMonitor(%s for %s between %lld and %lld)\n",
                     command != nullptr ? command : "(null)", label, static_cast<long long>(firstOffset),
                     static_cast<long long>(lastOffset));
    auto resultLine = [](int updated, int failed, int status) {
        std::printf("::EXECANDMONITOR::%d::%d::%d::\n", updated, failed, status);
        std::fflush(stdout);
        return status;
    };
    if (command == nullptr) {
        std::fputs("quenby:execAndMonitor() null exec cmd\n", stdout);
        return resultLine(0, 0, -1);
    }
    HeapBuf buf;
    if (!buf.allocate(kClientLineSize)) {
        std::fputs("quenby:execAndMonitor() error allocating buffer1\n", stdout);
        return resultLine(0, 0, -1);
    }
    // What was printed before must not be repeated by a child's copy.
    std::fflush(stdout);
    std::fflush(stderr);
    FILE* pipe = sysPopen(command, "r");
    if (pipe == nullptr) {
        std::printf("quenby: execAndMonitor() %s command %s could not be run\n", label, command);
        return resultLine(0, 0, -1);
    }
    PipeStream client(pipe);
    MonitorCounts counts;
    monitorClientOutput(client.get(), shadow, label, successState, firstOffset, lastOffset, buf, counts);

    int status = client.close();
    if (status != 0)
        std::printf("quenby: execAndMonitor() %s command close returned %d\n", label, status);
    return resultLine(counts.updated, counts.failed, status);
}
