#include "support/sys_call.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

bool sysFaultsArmed = false;

namespace {

struct Fault {
    int countdown = 0; // calls left before the failing one; 0 = disarmed
    int err = 0;
    bool repeat = false;
};

Fault faults[static_cast<int>(SysCall::count_)];

} // namespace

void sysFailOn(SysCall call, int nth, int err, bool repeat)
{
    Fault& f = faults[static_cast<int>(call)];
    f.countdown = nth;
    f.err = err;
    f.repeat = repeat;
    sysFaultsArmed = true;
}

void sysFaultsClear()
{
    for (Fault& f : faults)
        f = Fault{};
    sysFaultsArmed = false;
}

bool sysFaultHit(SysCall call)
{
    Fault& f = faults[static_cast<int>(call)];
    if (f.countdown <= 0)
        return false;
    if (f.countdown > 1) {
        --f.countdown;
        return false;
    }
    if (!f.repeat)
        f.countdown = 0;
    errno = f.err;
    return true;
}

FILE* sysFopen(const char* path, const char* mode)
{
    if (sysShouldFail(SysCall::fopen))
        return nullptr;
    return std::fopen(path, mode);
}

int sysOpen(const char* path, int flags, mode_t mode)
{
    if (sysShouldFail(SysCall::fopen))
        return -1;
    return ::open(path, flags, mode);
}

int sysFcntl(int fd, int cmd, int arg)
{
    if (sysShouldFail(SysCall::fcntl))
        return -1;
    return ::fcntl(fd, cmd, arg);
}

int sysFclose(FILE* stream)
{
    if (sysShouldFail(SysCall::fclose)) {
        int saved = errno;
        std::fclose(stream); // the stream is gone either way, as with a real failure
        errno = saved;
        return EOF;
    }
    return std::fclose(stream);
}

size_t sysFwrite(const void* data, size_t size, FILE* stream)
{
    if (sysShouldFail(SysCall::fwrite))
        return 0;
    return fwrite_unlocked(data, 1, size, stream);
}

int sysFflush(FILE* stream)
{
    if (sysShouldFail(SysCall::fflush))
        return EOF;
    return std::fflush(stream);
}

int sysFseeko(FILE* stream, off_t offset, int whence)
{
    if (sysShouldFail(SysCall::fseek))
        return -1;
    return ::fseeko(stream, offset, whence);
}

off_t sysFtello(FILE* stream)
{
    if (sysShouldFail(SysCall::ftell))
        return -1;
    return ::ftello(stream);
}

void* sysRealloc(void* ptr, size_t size)
{
    if (sysShouldFail(SysCall::alloc))
        return nullptr;
    return std::realloc(ptr, size);
}

int sysUnlink(const char* path)
{
    if (sysShouldFail(SysCall::unlink))
        return -1;
    return ::unlink(path);
}

FILE* sysPopen(const char* command, const char* mode)
{
    if (sysShouldFail(SysCall::popen))
        return nullptr;
    return ::popen(command, mode);
}

int sysPclose(FILE* pipe)
{
    if (sysShouldFail(SysCall::pclose)) {
        int saved = errno;
        ::pclose(pipe);
        errno = saved;
        return -1;
    }
    return ::pclose(pipe);
}

ssize_t sysPread(int fd, void* buf, size_t count, off_t offset)
{
    if (sysShouldFail(SysCall::pread))
        return -1;
    return ::pread(fd, buf, count, offset);
}

ssize_t sysPwrite(int fd, const void* buf, size_t count, off_t offset)
{
    if (sysShouldFail(SysCall::pwrite))
        return -1;
    return ::pwrite(fd, buf, count, offset);
}

int sysFcntlLock(int fd, int cmd, struct flock* lock)
{
    if (sysShouldFail(SysCall::lock))
        return -1;
    return ::fcntl(fd, cmd, lock);
}

int sysSystem(const char* command)
{
    if (sysShouldFail(SysCall::system))
        return -1;
    return std::system(command);
}

int sysFsync(int fd)
{
    if (sysShouldFail(SysCall::fsync))
        return -1;
    return ::fsync(fd);
}

int sysFdatasync(int fd)
{
    if (sysShouldFail(SysCall::fsync))
        return -1;
    return ::fdatasync(fd);
}

int sysRename(const char* from, const char* to)
{
    if (sysShouldFail(SysCall::rename))
        return -1;
    return ::rename(from, to);
}

int sysMkstemp(char* pattern)
{
    if (sysShouldFail(SysCall::create))
        return -1;
    return ::mkostemp(pattern, O_CLOEXEC);
}

ssize_t sysRead(int fd, void* buf, size_t count)
{
    if (sysShouldFail(SysCall::read))
        return -1;
    return ::read(fd, buf, count);
}

ssize_t sysWrite(int fd, const void* buf, size_t count)
{
    if (sysShouldFail(SysCall::write))
        return -1;
    return ::write(fd, buf, count);
}

int sysPipe(int fds[2])
{
    if (sysShouldFail(SysCall::pipe))
        return -1;
    return ::pipe2(fds, O_CLOEXEC);
}

FILE* sysFopencookie(void* cookie, const char* mode, cookie_io_functions_t functions)
{
    if (sysShouldFail(SysCall::pipe))
        return nullptr;
    return ::fopencookie(cookie, mode, functions);
}

pid_t sysFork()
{
    if (sysShouldFail(SysCall::fork))
        return -1;
    return ::fork();
}

int sysPoll(struct pollfd* fds, nfds_t count, int timeoutMs)
{
    if (sysShouldFail(SysCall::poll))
        return -1;
    return ::poll(fds, count, timeoutMs);
}

pid_t sysWaitpid(pid_t pid, int* status, int options)
{
    if (sysShouldFail(SysCall::pclose))
        return -1;
    return ::waitpid(pid, status, options);
}

int sysKill(pid_t pid, int signal)
{
    if (sysShouldFail(SysCall::kill))
        return -1;
    return ::kill(pid, signal);
}

void* sysMmap(size_t length, int prot, int flags, int fd, off_t offset)
{
    if (sysShouldFail(SysCall::mmap))
        return MAP_FAILED;
    return ::mmap(nullptr, length, prot, flags, fd, offset);
}

int sysFstat(int fd, struct stat* st)
{
    if (sysShouldFail(SysCall::mmap))
        return -1;
    return ::fstat(fd, st);
}

int sysMsync(void* addr, size_t length, int flags)
{
    if (sysShouldFail(SysCall::msync))
        return -1;
    return ::msync(addr, length, flags);
}

int sysMunmap(void* addr, size_t length)
{
    if (sysShouldFail(SysCall::munmap)) {
        int saved = errno;
        ::munmap(addr, length); // nothing is left mapped by a test's fault
        errno = saved;
        return -1;
    }
    return ::munmap(addr, length);
}

int sysMadvise(void* addr, size_t length, int advice)
{
    if (sysShouldFail(SysCall::munmap))
        return -1;
    return ::madvise(addr, length, advice);
}
