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
#include <vector>

namespace {

// What makes two names one file: device and inode when it exists, the
// resolved path when it does not exist yet.
struct Identity {
    bool known = false;
    dev_t dev = 0;
    ino_t ino = 0;
    std::string resolved;

    bool operator==(const Identity& other) const
    {
        if (!known || !other.known)
            return false;
        if (resolved.empty() != other.resolved.empty())
            return false;
        return resolved.empty() ? dev == other.dev && ino == other.ino : resolved == other.resolved;
    }
};

std::string directoryOf(const std::string& path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseOf(const std::string& path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

Identity identify(const char* path)
{
    Identity id;
    struct stat st;
    if (stat(path, &st) == 0) {
        // Devices and pipes may be named more than once (/dev/null).
        if (S_ISREG(st.st_mode)) {
            id.known = true;
            id.dev = st.st_dev;
            id.ino = st.st_ino;
        }
        return id;
    }
    if (errno != ENOENT)
        return id;
    char dir[PATH_MAX];
    if (realpath(directoryOf(path).c_str(), dir) == nullptr)
        return id;
    id.known = true;
    id.resolved = std::string(dir) + "/" + baseOf(path);
    return id;
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
try {
    std::vector<std::pair<const char*, Identity>> seenInputs, seenOutputs;
    for (const char* input : inputs)
        if (input != nullptr)
            seenInputs.emplace_back(input, identify(input));
    for (const char* output : outputs) {
        if (output == nullptr)
            continue;
        Identity id = identify(output);
        for (const auto& [name, other] : seenInputs) {
            if (id == other) {
                std::fprintf(messages, "%soutput %s is the input %s\n", prefix, output, name);
                return -1;
            }
        }
        for (const auto& [name, other] : seenOutputs) {
            if (id == other) {
                std::fprintf(messages, "%soutput %s is also the output %s\n", prefix, output, name);
                return -1;
            }
        }
        seenOutputs.emplace_back(output, id);
    }
    return 0;
} catch (const std::bad_alloc&) {
    std::fprintf(messages, "%sno memory to compare the outputs with the inputs\n", prefix);
    return -1;
}

bool sameFile(const char* a, const char* b)
{
    if (a == nullptr || b == nullptr)
        return false;
    Identity ia = identify(a);
    return ia.resolved.empty() && ia == identify(b);
}

int fileMode(const char* path)
{
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0)
        return -1;
    return static_cast<int>(st.st_mode & 07777);
}

int syncDirectoryOf(const std::string& path)
{
    int fd = ::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
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
    try {
        return mode == Mode::replace ? openReplace(path, newMode) : openAppend(path);
    } catch (const std::bad_alloc&) {
        discard();
        return errnoToPortable(ENOMEM);
    }
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
        finalPath_ = resolved;
        mode = static_cast<int>(st.st_mode & 07777);
    } else {
        finalPath_ = path;
    }
    std::string pattern = directoryOf(finalPath_) + "/." + baseOf(finalPath_) + ".quenby-XXXXXX";
    int fd = sysMkstemp(pattern.data());
    // A file that can be written where no file can be made beside it is
    // written in place, as it always was.
    if (fd < 0 && exists && (errno == EACCES || errno == EPERM))
        return openDirect(path, "w");
    if (fd < 0)
        return portableErrnoNonZero();
    tempPath_ = pattern;
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
    std::string pattern = directoryOf(resolved) + "/." + baseOf(resolved) + ".quenby-XXXXXX";
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
    finalPath_ = resolved;
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
    tempPath_ = directoryOf(finalPath_) + "/." + baseOf(finalPath_) + ".quenby-XXXXXX";
    int out = sysMkstemp(tempPath_.data());
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
    return syncDirectoryOf(finalPath_) == 0 ? 0 : EOF;
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
    return syncDirectoryOf(finalPath_) == 0 ? 0 : EOF;
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
