#include "bunch/exec_bunch.h"

#include "bunch/bunch_list.h"
#include "bunch/client_monitor.h"
#include "bunch/path_index.h"
#include "bunch/record_update.h"
#include "support/consistency.h"
#include "support/debug_level.h"
#include "support/file_open.h"
#include "support/file_stream.h"
#include "support/output_file.h"
#include "support/sys_call.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

constexpr offset_t kSingleRecordLockBytes = 64;

struct ClientCommand {
    int bit;
    const char* variable;
    const char* label;
    int successState;
    const char* debugFormat;
};

// Run in this order, each only when its list was written.
const ClientCommand commands[] = {
    {BUNCH_LIST_EXPIRE, "KESTREL_EXPIRE_CMD", "expire", PDR_DELETE, "quenby: Expiring with %s\n"},
    {BUNCH_LIST_BACKUP, "KESTREL_BACKUP_CMD", "backup", PDR_NORMAL, "quenby: Backup with %s\n"},
    {BUNCH_LIST_UPDATE, "KESTREL_UPDATE_CMD", "update", PDR_NORMAL, "quenby: Metadata update with %s\n"},
};

// How the records are rewritten (QUENBY_WRITE): through a shared mapping,
// with pwrite, or by the bunch's density when unset.
enum class WriteChoice { byDensity, mapped, positioned, unknown };

// A bunch sparser than one record in this many bytes of its range is
// rewritten with pwrite: a store into a mapping dirties a whole page-cache
// folio, which is written back whole (tens of kilobytes on current
// kernels), where pwrite dirties the one block.
constexpr offset_t kSparseBytesPerRecord = 64 * 1024;

// The run's whole environment, read once at its start.
struct Settings {
    const char* command[std::size(commands)]; // by the order of `commands`
    bool lockShadow;
    bool quotedPaths;
    int clientTimeout;
    const char* writeText; // QUENBY_WRITE as set
    WriteChoice write;
};

Settings readSettings()
{
    Settings s{};
    for (size_t i = 0; i < std::size(commands); ++i)
        s.command[i] = std::getenv(commands[i].variable);
    s.lockShadow = std::getenv("KESTREL_LOCK_SHADOW") != nullptr;
    s.quotedPaths = std::getenv("KESTREL_NO_QUOTES") == nullptr;
    s.clientTimeout = clientTimeoutSetting(std::getenv("QUENBY_CLIENT_TIMEOUT"));
    // Unset, the bunch's density chooses; a misspelt choice must not pick
    // either path.
    s.writeText = std::getenv("QUENBY_WRITE");
    s.write = s.writeText == nullptr                  ? WriteChoice::byDensity
              : std::strcmp(s.writeText, "mmap") == 0   ? WriteChoice::mapped
              : std::strcmp(s.writeText, "pwrite") == 0 ? WriteChoice::positioned
                                                        : WriteChoice::unknown;
    return s;
}

bool isDevNull(const char* path)
{
    return std::strcmp(path, "/dev/null") == 0;
}

// The write lock on the byte range of the bunch's records; the whole file
// is unlocked when it goes, also on the way out of a failure, once what
// the updater stored in its mapping is in the file system: another node
// that takes the lock next reads it from there.
class ShadowLock {
public:
    explicit ShadowLock(RecordUpdater& updater) : updater_(updater) {}
    ShadowLock(const ShadowLock&) = delete;
    ShadowLock& operator=(const ShadowLock&) = delete;
    ~ShadowLock() { release(); }

    // 0 when held; otherwise the failed waiting request's result.
    int acquire(int fd, offset_t first, offset_t last)
    {
        struct flock range {};
        range.l_type = F_WRLCK;
        range.l_whence = SEEK_SET;
        range.l_start = static_cast<off_t>(first);
        range.l_len = static_cast<off_t>(last - first);
        if (sysFcntlLock(fd, F_SETLK, &range) != 0) {
            std::fputs("quenby: execBunch() shadow DB lock denied. sleeping.\n", stdout);
            std::fflush(stdout);
            int rc = sysFcntlLock(fd, F_SETLKW, &range);
            if (rc != 0)
                return rc;
        }
        fd_ = fd;
        return 0;
    }

    bool held() const { return fd_ >= 0; }

    void release()
    {
        if (fd_ < 0)
            return;
        if (updater_.flushMapped() != 0 && quenby_debug > 0)
            std::fprintf(stderr, "quenby: execBunch() flush of the shadow database failed (err=%d)\n",
                         portableErrnoNonZero());
        struct flock whole {};
        whole.l_type = F_UNLCK;
        whole.l_whence = SEEK_SET;
        whole.l_start = 0;
        whole.l_len = 0;
        sysFcntlLock(fd_, F_SETLKW, &whole);
        fd_ = -1;
    }

private:
    RecordUpdater& updater_;
    int fd_ = -1;
};

// Opens the shadow database for the in-place rewrites; false when it
// cannot be opened.
bool openShadow(const char* shadowDB, StdioFile& shadow)
{
    FILE* stream = nullptr;
    openFile(shadowDB, "r+", &stream);
    if (stream == nullptr) {
        std::printf("quenby:execBunch():could not open shadowDB %s\n", shadowDB);
        return false;
    }
    // Records are read and rewritten with positioned calls on the
    // descriptor; the stream's own buffer is never used.
    std::setvbuf(stream, nullptr, _IONBF, 0);
    shadow = StdioFile(stream);
    return true;
}

// What one run has over its clients: the index of the bunch's paths, the
// updater of its records and the offsets they lie between.
struct BunchRun {
    PathIndex& index;
    RecordUpdater& updater;
    FILE* shadow;
    offset_t firstOffset;
    offset_t lastOffset;
};

// Runs the commands whose lists were written; the status of the last one.
int runCommands(int mask, const BunchRun& run, const Settings& settings)
{
    int result = 0;
    for (size_t i = 0; i < std::size(commands); ++i) {
        const ClientCommand& cmd = commands[i];
        if ((mask & cmd.bit) == 0)
            continue;
        if (cmd.bit != BUNCH_LIST_EXPIRE)
            quenbyCheck(!run.updater.oldFormatExpiry(), "expireOldFormat == 0");
        const char* command = settings.command[i];
        if (command == nullptr) {
            std::printf("quenby: execBunch() %s command not provided in exec\n", cmd.label);
            continue;
        }
        if (quenby_debug > 1)
            std::fprintf(stderr, cmd.debugFormat, command);
        result = execAndMonitor(command, run.index, run.updater, run.shadow, cmd.label, cmd.successState,
                                run.firstOffset, run.lastOffset, settings.clientTimeout);
    }
    return result;
}

// Write-locks the bunch's byte range of the shadow database, widening the
// range of a single record: 0, or the failed request's result.
int lockRange(ShadowLock& lock, BunchRun& run, const char* shadowDB)
{
    quenbyCheck(run.firstOffset <= run.lastOffset, "firstOffset <= lastOffset");
    quenbyCheck(run.firstOffset > 0, "firstOffset > 0");
    quenbyCheck(!run.updater.oldFormatExpiry(), "expireOldFormat == 0");
    if (run.lastOffset == run.firstOffset)
        run.lastOffset =
            run.firstOffset > INT64_MAX - kSingleRecordLockBytes ? INT64_MAX : run.firstOffset + kSingleRecordLockBytes;
    if (int rc = lock.acquire(fileno(run.shadow), run.firstOffset, run.lastOffset)) {
        std::fputs("quenby: execBunch() shadow DB lock failed.\n", stdout);
        return rc;
    }
    if (quenby_debug > 1)
        std::fprintf(stderr, "quenby: acquired shadowDB lock [0x%llx] to [0x%llx] %s\n",
                     static_cast<unsigned long long>(run.firstOffset), static_cast<unsigned long long>(run.lastOffset),
                     shadowDB);
    return 0;
}

// Runs the clients, under the lock when asked for.
int runClients(int mask, BunchRun& run, const char* shadowDB, const Settings& settings, bool locking)
{
    ShadowLock lock(run.updater);
    if (locking)
        if (int rc = lockRange(lock, run, shadowDB))
            return rc;
    int result = runCommands(mask, run, settings);
    if (lock.held()) {
        lock.release();
        if (quenby_debug > 1)
            std::fprintf(stderr, "quenby: released shadowDB lock [0x%llx] %s\n",
                         static_cast<unsigned long long>(run.firstOffset), shadowDB);
    }
    return result;
}

int runBunch(const char* inList, const char* outChange, const char* outExpire, const char* outStateChange,
             const char* shadowDB, int bunchSize, const char* removePath, const Settings& settings,
             StdioFile& shadow)
{
    bool oldFormatExpiry = false;
    if (isDevNull(outChange)) {
        if (!isDevNull(outStateChange) || !isDevNull(shadowDB)) {
            std::fputs("quenby:execBunch(): inconsistent input\n", stdout);
            return -3;
        }
        if (quenby_debug > 0)
            std::fputs("quenby:expiring old format inventory\n", stderr);
        oldFormatExpiry = true;
        outChange = outStateChange = shadowDB = nullptr;
    }
    // An old-format bunch registers no path.
    PathIndex index(oldFormatExpiry ? 0 : static_cast<uint32_t>(bunchSize < 100 ? 100 : bunchSize));
    // execbunch's messages go to standard output, where the driver reads them.
    if (refuseSharedOutputs(stdout, "quenby:execBunch(): ", {inList}, {shadowDB, outChange, outExpire, outStateChange})
        != 0)
        return -1;
    const bool locking = settings.lockShadow && !oldFormatExpiry;

    offset_t first = 0;
    offset_t last = 0;
    int mask = parseBackupRecords(inList, outChange, outExpire, outStateChange, removePath, &first, &last, index,
                                  settings.quotedPaths);
    if (mask <= 0) {
        std::printf("quenby:execBunch() error %d parsing records, skipping exec\n", mask);
        return mask;
    }
    const bool sparse = (last - first) / kSparseBytesPerRecord > static_cast<offset_t>(index.size());
    RecordUpdater updater(oldFormatExpiry, {.positioned = settings.write == WriteChoice::positioned
                                                          || (settings.write == WriteChoice::byDensity && sparse),
                                            .sliceFirst = first,
                                            .sliceLast = last});
    BunchRun run{index, updater, nullptr, first, last};
    if (!oldFormatExpiry && !openShadow(shadowDB, shadow))
        return 101;
    run.shadow = shadow.get();
    return runClients(mask, run, shadowDB, settings, locking);
}

} // namespace

int execBunch(const char* inList, const char* outChange, const char* outExpire, const char* outStateChange,
              const char* shadowDB, int bunchSize, const char* removePath)
{
    const Settings settings = readSettings();
    auto orNull = [](const char* s) { return s != nullptr ? s : "(null)"; };
    if (quenby_debug > 0)
        std::fprintf(stderr, "quenby:execBunch(%s %s %s %s %s %d %s)\n", orNull(inList), orNull(outChange),
                     orNull(outExpire), orNull(outStateChange), orNull(shadowDB), bunchSize,
                     removePath != nullptr ? removePath : "none");
    if (inList == nullptr || outChange == nullptr || outExpire == nullptr || outStateChange == nullptr
        || shadowDB == nullptr || bunchSize < 1) {
        std::fputs("Usage: quenby execBunch <inList> <outChange> <outExpire> <outStateChange> <shadowDB> "
                   "<bunchSize> [<removePath>] \n",
                   stdout);
        return -1;
    }
    if (settings.write == WriteChoice::unknown) {
        std::printf("quenby:execBunch(): QUENBY_WRITE=%s is neither mmap nor pwrite\n", settings.writeText);
        std::fflush(stdout);
        return -1;
    }

    StdioFile shadow;
    int result;
    try {
        result = runBunch(inList, outChange, outExpire, outStateChange, shadowDB, bunchSize, removePath, settings,
                          shadow);
    } catch (const ConsistencyError& broken) {
        // Nothing more is rewritten; the lock and the files go with the unwinding.
        std::fprintf(stderr, "quenby:execBunch() consistency check failed: %s\n", broken.what());
        result = EXECBUNCH_CONSISTENCY_FAILURE;
    }
    std::fflush(stdout);
    if (shadow.close() != 0)
        result = -15;
    if (quenby_debug > 1)
        std::fprintf(stderr, "quenby: execBunch()->%d\n", result);
    return result;
}
