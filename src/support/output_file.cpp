#include "support/output_file.h"

#include "support/file_open.h"
#include "support/sys_call.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <new>

namespace {

// What makes two names one file: device and inode when it exists, the
// resolved path when it does not exist yet.
struct Identity {
    bool known = false;
    dev_t dev = 0;
    ino_t ino = 0;
    PathText resolved;

    bool operator==(const Identity& other) const
    {
        if (!known || !other.known)
            return false;
        if (resolved.empty() != other.resolved.empty())
            return false;
        return resolved.empty() ? dev == other.dev && ino == other.ino
                                : std::strcmp(resolved.c_str(), other.resolved.c_str()) == 0;
    }
};

// The directory part of `path` ("." when it has none) into `out`.
bool directoryOf(const char* path, PathText& out)
{
    const char* slash = std::strrchr(path, '/');
    out.clear();
    if (slash == nullptr)
        return out.append(".");
    return slash == path ? out.append("/") : out.append(path, static_cast<size_t>(slash - path));
}

const char* baseOf(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

// "<directory>/.<name>.quenby-XXXXXX" beside `path`, for mkstemp.
bool tempPatternBeside(const char* path, PathText& out)
{
    return directoryOf(path, out) && out.append("/.") && out.append(baseOf(path)) && out.append(".quenby-XXXXXX");
}

void identify(const char* path, Identity& id)
{
    struct stat st;
    if (stat(path, &st) == 0) {
        // Devices and pipes may be named more than once (/dev/null).
        if (S_ISREG(st.st_mode)) {
            id.known = true;
            id.dev = st.st_dev;
            id.ino = st.st_ino;
        }
        return;
    }
    if (errno != ENOENT)
        return;
    PathText directory;
    char dir[PATH_MAX];
    if (!directoryOf(path, directory) || realpath(directory.c_str(), dir) == nullptr)
        return;
    id.known = id.resolved.assign(dir) && id.resolved.append("/") && id.resolved.append(baseOf(path));
}

int currentUmask()
{
    mode_t mask = umask(0);
    umask(mask);
    return static_cast<int>(mask);
}

} // namespace

int refuseSharedOutputs(FILE* messages, const char* prefix, std::initializer_list<const char*> inputs,
                        std::initializer_list<const char*> outputs)
{
    struct Seen {
        const char* name;
        Identity id;
    };
    // Every sub-command names a handful of files.
    static constexpr size_t kMaxFiles = 8;
    if (inputs.size() > kMaxFiles || outputs.size() > kMaxFiles) {
        std::fprintf(messages, "%stoo many files to compare the outputs with the inputs\n", prefix);
        return -1;
    }
    Seen seenInputs[kMaxFiles], seenOutputs[kMaxFiles];
    size_t inputCount = 0, outputCount = 0;
    for (const char* input : inputs)
        if (input != nullptr) {
            seenInputs[inputCount].name = input;
            identify(input, seenInputs[inputCount++].id);
        }
    for (const char* output : outputs) {
        if (output == nullptr)
            continue;
        Seen& seen = seenOutputs[outputCount];
        seen.name = output;
        identify(output, seen.id);
        for (size_t i = 0; i < inputCount; ++i)
            if (seen.id == seenInputs[i].id) {
                std::fprintf(messages, "%soutput %s is the input %s\n", prefix, output, seenInputs[i].name);
                return -1;
            }
        for (size_t i = 0; i < outputCount; ++i)
            if (seen.id == seenOutputs[i].id) {
                std::fprintf(messages, "%soutput %s is also the output %s\n", prefix, output, seenOutputs[i].name);
                return -1;
            }
        ++outputCount;
    }
    return 0;
}

bool sameFile(const char* a, const char* b)
{
    if (a == nullptr || b == nullptr)
        return false;
    Identity ia, ib;
    identify(a, ia);
    identify(b, ib);
    return ia.resolved.empty() && ia == ib;
}

int fileMode(const char* path)
{
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0)
        return -1;
    return static_cast<int>(st.st_mode & 07777);
}

int syncDirectoryOf(const char* path)
{
    PathText directory;
    if (!directoryOf(path, directory))
        return -1;
    int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    int rc = sysFsync(fd);
    int saved = errno;
    ::close(fd);
    errno = saved;
    return rc;
}

int OutputFile::open(const char* path, Mode mode, int newMode)
{
    discard();
    if (path == nullptr)
        return 22;
    return mode == Mode::replace ? openReplace(path, newMode) : openAppend(path);
}

int OutputFile::openReplace(const char* path, int newMode)
{
    struct stat st;
    bool exists = stat(path, &st) == 0;
    bool dangling = !exists && lstat(path, &st) == 0;
    if ((exists && !S_ISREG(st.st_mode)) || dangling)
        return openDirect(path, "w");
    int mode = newMode >= 0 ? newMode : 0666 & ~currentUmask();
    if (exists) {
        // The file is replaced where a link points, and only when it could
        // have been written in place.
        char resolved[PATH_MAX];
        if (realpath(path, resolved) == nullptr)
            return portableErrnoNonZero();
        int probe = ::open(resolved, O_WRONLY | O_CLOEXEC);
        if (probe < 0)
            return portableErrnoNonZero();
        ::close(probe);
        finalPath_.assign(resolved);
        mode = static_cast<int>(st.st_mode & 07777);
    } else if (!finalPath_.assign(path)) {
        return 36; // a name longer than any path
    }
    if (!tempPatternBeside(finalPath_.c_str(), tempPath_))
        return 36;
    int fd = sysMkstemp(tempPath_.data());
    // A file that can be written where no file can be made beside it is
    // written in place, as it always was.
    if (fd < 0) {
        int err = portableErrnoNonZero();
        tempPath_.clear();
        if (exists && (errno == EACCES || errno == EPERM))
            return openDirect(path, "w");
        return err;
    }
    FILE* stream = fchmod(fd, static_cast<mode_t>(mode)) == 0 ? fdopen(fd, "w") : nullptr;
    if (stream == nullptr) {
        int err = portableErrnoNonZero();
        ::close(fd);
        discard();
        return err;
    }
    file_ = StdioFile(stream);
    file_.setBuffer(SEQUENTIAL_BUFFER_SIZE);
    return 0;
}

int OutputFile::openAppend(const char* path)
{
    FILE* stream = nullptr;
    if (int err = openFile(path, "a", &stream))
        return err;
    struct stat st;
    char resolved[PATH_MAX];
    if (fstat(fileno(stream), &st) != 0 || !S_ISREG(st.st_mode) || realpath(path, resolved) == nullptr)
        return adopt(StdioFile(stream));
    // The lines wait in a file without a name, so that a killed run leaves
    // nothing behind; at the end the list is rewritten with them and
    // renamed over itself, so that it never holds half a run's lines.
    PathText pattern;
    if (!tempPatternBeside(resolved, pattern)) {
        std::fclose(stream);
        return 36;
    }
    int fd = sysMkstemp(pattern.data());
    if (fd < 0 && (errno == EACCES || errno == EPERM))
        return adopt(StdioFile(stream)); // no room beside it: appended in place
    int err = portableErrnoNonZero();
    std::fclose(stream); // it only had to exist
    if (fd < 0)
        return err;
    ::unlink(pattern.c_str());
    FILE* staging = fdopen(fd, "w+");
    if (staging == nullptr) {
        err = portableErrnoNonZero();
        ::close(fd);
        return err;
    }
    finalPath_.assign(resolved);
    file_ = StdioFile(staging);
    file_.setBuffer(SEQUENTIAL_BUFFER_SIZE);
    staged_ = true;
    return 0;
}

int OutputFile::openDirect(const char* path, const char* mode)
{
    FILE* stream = nullptr;
    if (int err = openFile(path, mode, &stream))
        return err;
    return adopt(StdioFile(stream));
}

int OutputFile::adopt(StdioFile stream)
{
    file_ = std::move(stream);
    file_.setBuffer(SEQUENTIAL_BUFFER_SIZE);
    return 0;
}

namespace {

int copyAll(int from, int to)
{
    char block[1 << 16];
    for (;;) {
        ssize_t got = sysRead(from, block, sizeof block);
        if (got <= 0)
            return static_cast<int>(got);
        for (ssize_t done = 0; done < got;) {
            ssize_t put = sysWrite(to, block + done, static_cast<size_t>(got - done));
            if (put <= 0)
                return -1;
            done += put;
        }
    }
}

} // namespace

int OutputFile::appendStaged()
{
    FILE* staging = file_.get();
    if (sysFflush(staging) != 0 || lseek(fileno(staging), 0, SEEK_SET) != 0)
        return EOF;
    int list = ::open(finalPath_.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (list < 0 || fstat(list, &st) != 0) {
        if (list >= 0)
            ::close(list);
        return EOF;
    }
    int out = tempPatternBeside(finalPath_.c_str(), tempPath_) ? sysMkstemp(tempPath_.data()) : -1;
    if (out < 0) {
        tempPath_.clear();
        ::close(list);
        return EOF;
    }
    // The list keeps its mode, and its owner where the caller may give it
    // away; otherwise the caller owns the new file.
    int owned = fchown(out, st.st_uid, st.st_gid);
    (void)owned;
    bool written = fchmod(out, st.st_mode & 07777) == 0 && copyAll(list, out) == 0
                   && copyAll(fileno(staging), out) == 0 && sysFsync(out) == 0;
    ::close(list);
    if (::close(out) != 0 || !written || sysRename(tempPath_.c_str(), finalPath_.c_str()) != 0)
        return EOF;
    tempPath_.clear();
    return syncDirectoryOf(finalPath_.c_str()) == 0 ? 0 : EOF;
}

int OutputFile::commit()
{
    if (!file_)
        return 0;
    if (staged_) {
        int rc = appendStaged();
        return discard() != 0 ? EOF : rc;
    }
    if (tempPath_.empty())
        return file_.close();
    FILE* stream = file_.get();
    if (sysFflush(stream) != 0 || sysFsync(fileno(stream)) != 0 || file_.close() != 0
        || sysRename(tempPath_.c_str(), finalPath_.c_str()) != 0) {
        int saved = errno;
        discard();
        errno = saved;
        return EOF;
    }
    tempPath_.clear();
    return syncDirectoryOf(finalPath_.c_str()) == 0 ? 0 : EOF;
}

int OutputFile::discard()
{
    int rc = file_.close();
    if (!tempPath_.empty()) {
        int saved = errno;
        ::unlink(tempPath_.c_str());
        errno = saved;
        tempPath_.clear();
    }
    staged_ = false;
    return rc;
}
