// Thin wrappers over the system and stdio calls that can fail.
//
// Production code calls these instead of the library directly so that a test
// can make any one of them fail on demand (sysFailOn) and every failure path
// runs, not just compiles. When nothing is armed the cost is one predictable
// branch.
#pragma once

#include <cstddef>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/types.h>

enum class SysCall {
    fopen,
    fcntl,
    fclose,
    fwrite,
    fflush,
    fseek,
    ftell,
    alloc,
    unlink,
    popen,
    pclose,
    pread,
    pwrite,
    lock,
    system,
    fsync,
    rename,
    create,
    read,
    write,
    fork,
    pipe,
    poll,
    kill,
    mmap,
    msync,
    munmap,
    count_
};

// The nth call of `call` from now on (1 for the next one) fails with errno
// `err`; `repeat` keeps every later call failing too.
void sysFailOn(SysCall call, int nth, int err, bool repeat = false);
// Disarms every fault.
void sysFaultsClear();
// True when this call of `call` is to fail; sets errno. Exposed for wrappers.
bool sysFaultHit(SysCall call);

extern bool sysFaultsArmed;

inline bool sysShouldFail(SysCall call)
{
    return sysFaultsArmed && sysFaultHit(call);
}

FILE* sysFopen(const char* path, const char* mode);
// open(2) in the `fopen` slot: the opens it stands for.
int sysOpen(const char* path, int flags, mode_t mode);
int sysFcntl(int fd, int cmd, int arg);
int sysFclose(FILE* stream);
size_t sysFwrite(const void* data, size_t size, FILE* stream);
int sysFflush(FILE* stream);
int sysFseeko(FILE* stream, off_t offset, int whence);
off_t sysFtello(FILE* stream);
void* sysRealloc(void* ptr, size_t size);
int sysUnlink(const char* path);
FILE* sysPopen(const char* command, const char* mode);
int sysPclose(FILE* pipe);
ssize_t sysPread(int fd, void* buf, size_t count, off_t offset);
ssize_t sysPwrite(int fd, const void* buf, size_t count, off_t offset);
int sysSystem(const char* command);
int sysFsync(int fd);
int sysFdatasync(int fd);
int sysRename(const char* from, const char* to);
// mkstemp in the `create` slot: the temporary files of whole-file outputs.
int sysMkstemp(char* pattern);
ssize_t sysRead(int fd, void* buf, size_t count);
ssize_t sysWrite(int fd, const void* buf, size_t count);
// fcntl with a record lock request (F_SETLK, F_SETLKW, F_GETLK).
int sysFcntlLock(int fd, int cmd, struct flock* lock);
// A client started by hand, in its own process group: pipe2 with O_CLOEXEC
// and the read stream over its read end share the `pipe` slot; waitpid
// waits for a client as pclose does and shares its slot.
int sysPipe(int fds[2]);
FILE* sysFopencookie(void* cookie, const char* mode, cookie_io_functions_t functions);
pid_t sysFork();
int sysPoll(struct pollfd* fds, nfds_t count, int timeoutMs);
pid_t sysWaitpid(pid_t pid, int* status, int options);
int sysKill(pid_t pid, int signal);
// A shared mapping of a file (MAP_FAILED on failure), and fstat for the
// size it is made for, share the `mmap` slot.
void* sysMmap(size_t length, int prot, int flags, int fd, off_t offset);
int sysFstat(int fd, struct stat* st);
int sysMsync(void* addr, size_t length, int flags);
int sysMunmap(void* addr, size_t length);
// madvise, a partial unmapping of sorts, in the `munmap` slot.
int sysMadvise(void* addr, size_t length, int advice);
