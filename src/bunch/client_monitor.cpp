#include "bunch/client_monitor.h"

#include "bunch/path_index.h"
#include "bunch/record_update.h"
#include "support/debug_level.h"
#include "support/file_stream.h"
#include "support/line_source.h"
#include "support/sys_call.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace {

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


// The client's output as the monitor reads it: whole lines as they arrive.
// A line longer than kClientLineMax keeps its head and loses the rest, so
// that its tail is never taken for a line of its own; a last line without
// its line feed still counts.
LineSource::Options clientOutputOptions()
{
    return {.blockSize = 64 * 1024, .keepUnterminatedLine = true, .maxLine = kClientLineMax};
}

struct FileReport {
    const char* start;     // start pattern
    int skip;              // characters of it before the path
    const char* end;       // end pattern
    int state;             // state reported
};

class Monitor {
public:
    Monitor(PathIndex& index, RecordUpdater& updater, FILE* shadow, const char* label, int successState,
            offset_t firstOffset, offset_t lastOffset)
        : index_(index), updater_(updater), shadow_(shadow), label_(label), successState_(successState),
          first_(firstOffset), last_(lastOffset)
    {
    }

    void line(char* text);
    void arrowReport(char* text);
    int updated = 0;
    int failed = 0;

private:
    void fileReport(char* text, const FileReport& report);

    PathIndex& index_;
    RecordUpdater& updater_;
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
    if (updater_.oldFormatExpiry())
        return;

    UpdateMark* mark = nullptr;
    offset_t offset = index_.find(path, nullptr, &mark);
    if (offset == 0) {
        std::printf("quenby:execAndMonitor() unrequested %s path:%s\n", label_, path);
        return;
    }
    if (offset < first_ || offset > last_)
        std::printf("quenby:execAndMonitor()%s %s outside range [%llx - %llx]\n", label_, path,
                    static_cast<unsigned long long>(first_), static_cast<unsigned long long>(last_));
    ++updated;
    updater_.update(shadow_, offset, state, mark);
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

// A client started in its own process group, so that a run past its
// deadline is ended together with whatever it left running; its output is
// read through a stream that ends at the deadline, also when a background
// process still holds the pipe open.
class TimedClient {
public:
    explicit TimedClient(int seconds) : deadline_(Clock::now() + std::chrono::seconds(seconds)) {}
    TimedClient(const TimedClient&) = delete;
    TimedClient& operator=(const TimedClient&) = delete;
    ~TimedClient() { close(); }

    // false when the client could not be started.
    bool start(const char* command);
    // Reads the output through `output`: its end comes at the deadline too.
    void attachOutput(LineSource& output) { output.attachReader(&TimedClient::readOutput, this); }
    bool timedOut() const { return timedOut_; }
    // Closes the output and waits for the shell, ending its whole group at
    // the deadline; the shell's wait status, or -1 when waiting failed.
    int close();

private:
    using Clock = std::chrono::steady_clock;

    static ssize_t readOutput(void* self, char* buf, size_t size);
    int msLeft() const;
    void endGroup(pid_t pid);

    Clock::time_point deadline_;
    pid_t pid_ = -1;
    int fd_ = -1;
    bool timedOut_ = false;
};

// The child's side of the start, as popen does it: the shell with its
// standard output on the pipe. Only calls that are safe after fork.
[[noreturn]] void runShell(const char* command, int out)
{
    setpgid(0, 0);
    // A pipe end that is already descriptor 1 must only lose close-on-exec.
    int ready = out == STDOUT_FILENO ? fcntl(out, F_SETFD, 0) : dup2(out, STDOUT_FILENO);
    if (ready >= 0)
        execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
}

bool TimedClient::start(const char* command)
{
    int fds[2];
    if (sysPipe(fds) != 0)
        return false;
    fd_ = fds[0];
    pid_t pid = sysFork();
    if (pid == 0)
        runShell(command, fds[1]);
    ::close(fds[1]);
    if (pid < 0)
        return false;
    // Also here, so that the group exists whichever side runs first.
    setpgid(pid, pid);
    pid_ = pid;
    return true;
}

int TimedClient::msLeft() const
{
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
    return left <= 0 ? 0 : left >= INT_MAX ? INT_MAX : static_cast<int>(left);
}

ssize_t TimedClient::readOutput(void* self, char* buf, size_t size)
{
    auto* client = static_cast<TimedClient*>(self);
    for (;;) {
        int left = client->msLeft();
        if (left == 0) {
            client->timedOut_ = true;
            return 0; // the monitor sees the end of the output
        }
        struct pollfd output {client->fd_, POLLIN, 0};
        int ready = sysPoll(&output, 1, left);
        if (ready == 0 || (ready < 0 && errno == EINTR))
            continue;
        if (ready < 0)
            return -1;
        ssize_t got = sysRead(client->fd_, buf, size);
        if (got >= 0 || errno != EINTR)
            return got;
    }
}

void TimedClient::endGroup(pid_t pid)
{
    if (sysKill(-pid, SIGKILL) != 0)
        sysKill(pid, SIGKILL); // the shell had no group of its own yet
}

int TimedClient::close()
{
    if (fd_ >= 0)
        ::close(std::exchange(fd_, -1));
    if (pid_ < 0)
        return 0;
    const pid_t pid = std::exchange(pid_, -1);
    // Past the deadline the group goes even when the shell has ended: what
    // it left running holds the output open. The unreaped shell keeps the
    // group's number from being reused.
    if (timedOut_)
        endGroup(pid);
    int status = 0;
    for (long nap = 1;; nap = nap < 64 ? nap * 2 : nap) {
        pid_t got = sysWaitpid(pid, &status, timedOut_ ? 0 : WNOHANG);
        if (got == pid)
            return status;
        if (got < 0 && errno != EINTR) {
            endGroup(pid); // nothing may run on that cannot be waited for
            return -1;
        }
        int left = msLeft();
        if (got == 0 && left == 0) {
            timedOut_ = true;
            endGroup(pid);
            continue;
        }
        struct timespec pause {0, (nap < left ? nap : left) * 1000000L};
        nanosleep(&pause, nullptr);
    }
}

// Starts the client and hands its output to `monitor` to the end; false
// when it could not be started, else its wait status through `status`.
template <class MonitorOutput>
bool runClient(const char* command, const char* label, int timeoutSeconds, MonitorOutput& monitor, int& status)
{
    if (timeoutSeconds > 0) {
        TimedClient client(timeoutSeconds);
        if (!client.start(command))
            return false;
        LineSource output(clientOutputOptions());
        client.attachOutput(output);
        monitor(output);
        status = client.close();
        if (client.timedOut()) {
            std::printf("quenby: execAndMonitor() %s command timed out after %d seconds\n", label, timeoutSeconds);
            // A shell that had ended well left behind a process that was
            // killed: the run fails as a killed one does.
            if (status == 0)
                status = SIGKILL;
        }
        return true;
    }
    FILE* pipe = sysPopen(command, "r");
    if (pipe == nullptr)
        return false;
    PipeStream client(pipe);
    LineSource output(clientOutputOptions());
    output.attach(fileno(pipe));
    monitor(output);
    status = client.close();
    return true;
}

} // namespace

int clientTimeoutSetting(const char* text)
{
    if (text == nullptr || *text < '0' || *text > '9')
        return 0;
    errno = 0;
    char* end = nullptr;
    long seconds = std::strtol(text, &end, 10);
    return *end == '\0' && errno == 0 && seconds > 0 && seconds <= INT_MAX ? static_cast<int>(seconds) : 0;
}

void monitorClientOutput(LineSource& output, PathIndex& index, RecordUpdater& updater, FILE* shadow,
                         const char* label, int successState, offset_t firstOffset, offset_t lastOffset,
                         MonitorCounts& counts)
{
    Monitor monitor(index, updater, shadow, label, successState, firstOffset, lastOffset);
    RecordReadWindow window(updater);
    LineView line;
    // A failed read ends the output as its end does.
    while (output.next(line) > 0) {
        if (quenby_debug > 3)
            std::fprintf(stderr, "quenby:QBS:%s", line.text);
        if (!startsWith(line.text, kSummaryStart)) {
            monitor.line(line.text);
            continue;
        }
        // A summary block goes to the driver as it stands; its last line
        // may still report a file.
        std::fputs(line.text, stdout);
        bool ended = false;
        for (int left = kSummaryLines - 1; left > 0; --left) {
            if (output.next(line) <= 0) {
                ended = true;
                break;
            }
            if (quenby_debug > 3)
                std::fprintf(stderr, "quenby:QBS:%s", line.text);
            std::fputs(line.text, stdout);
            if (startsWith(line.text, kSummaryEncrypted))
                ++left;
        }
        if (ended)
            break;
        monitor.arrowReport(line.text);
    }
    counts.updated = monitor.updated;
    counts.failed = monitor.failed;
}

int execAndMonitor(const char* command, PathIndex& index, RecordUpdater& updater, FILE* shadow, const char* label,
                   int successState, offset_t firstOffset, offset_t lastOffset, int timeoutSeconds)
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
    // What was printed before must not be repeated by a child's copy.
    std::fflush(stdout);
    std::fflush(stderr);
    const long long writtenBefore = updater.linesWritten();
    MonitorCounts counts;
    auto monitor = [&](LineSource& output) {
        monitorClientOutput(output, index, updater, shadow, label, successState, firstOffset, lastOffset, counts);
    };
    int status = 0;
    if (!runClient(command, label, timeoutSeconds, monitor, status)) {
        std::printf("quenby: execAndMonitor() %s command %s could not be run\n", label, command);
        return resultLine(0, 0, -1);
    }
    if (status != 0)
        std::printf("quenby: execAndMonitor() %s command close returned %d\n", label, status);
    // The driver takes the result line as done: the records it counts must
    // survive a crash of the machine.
    if (shadow != nullptr && updater.linesWritten() != writtenBefore && updater.makeDurable(fileno(shadow)) != 0) {
        std::printf("quenby: execAndMonitor() sync of the shadow database failed (err=%d)\n", portableErrnoNonZero());
        status = -1;
    }
    return resultLine(counts.updated, counts.failed, status);
}
