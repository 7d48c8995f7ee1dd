#include "fault/fault.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <new>
#include <utility>

namespace {

// Shared with child processes, so that a test can look into a daemon that it forked.
struct shared_plan {
    std::atomic<bool> armed{false};
    std::atomic<const char*> name{nullptr};  // null: every one, and it kills
    std::atomic<long> fail_at{0};
    std::atomic<long> count{0};
};

shared_plan& plan() {
    static shared_plan* const only = new (mmap(nullptr, sizeof(shared_plan), PROT_READ | PROT_WRITE,
                                               MAP_SHARED | MAP_ANONYMOUS, -1, 0)) shared_plan;
    return *only;
}

// What the failing call says: the disk is full, memory is out, or descriptors are.
bool fails(const char* call, int error) {
    shared_plan& p = plan();
    if (!p.armed) return false;
    if (!p.name) {
        if (error != ENOMEM && ++p.count == p.fail_at) raise(SIGKILL);
        return false;
    }
    if (strcmp(p.name, call) != 0 || ++p.count != p.fail_at) return false;
    errno = error;
    return true;
}

// The kernel's own files are read all the time and fail in tests of their own; what is under /dev
// here stands for the platform's log and properties.
bool is_kernel_file(const char* path) {
    return strncmp(path, "/proc", 5) == 0 || strncmp(path, "/sys", 4) == 0 ||
           strncmp(path, "/dev", 4) == 0;
}

std::string path_of(int fd) {
    char link[64], path[PATH_MAX] = "";
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    return readlink(link, path, sizeof path - 1) > 0 ? path : "";
}

bool is_kernel_fd(int fd) {
    return is_kernel_file(path_of(fd).c_str());
}

std::string* g_trace = nullptr;  // none: nothing is noted

void note(const char* call, const std::string& path) {
    if (g_trace) *g_trace += std::string(call) + " " + path.substr(path.rfind('/') + 1) + "\n";
}

mode_t mode_of(int flags, va_list args) {
    return flags & O_CREAT ? va_arg(args, mode_t) : 0;
}

}  // namespace

const std::vector<const char*>& fault_calls() {
    static const std::vector<const char*> names = {FAULT_CALL_NAMES};
    return names;
}

void fault_arm(const char* name, long n) {
    shared_plan& p = plan();
    p.name = name;
    p.fail_at = n;
    p.count = 0;
    p.armed = true;
}

void fault_arm_kill(long n) {
    fault_arm(nullptr, n);
}

long fault_count() {
    return plan().count;
}

void fault_trace_begin() {
    g_trace = new std::string;
}

std::string fault_trace_end() {
    const std::unique_ptr<std::string> trace(std::exchange(g_trace, nullptr));
    return *trace;
}

bool fault_disarm() {
    shared_plan& p = plan();
    p.armed = false;
    return p.count >= p.fail_at;
}

extern "C" {

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
    if (!is_kernel_file(path) && fails("open", ENOSPC)) return -1;
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_of(flags, args);
    va_end(args);
    return __real_open(path, flags, mode);
}

int __real_openat(int dir, const char* path, int flags, ...);
int __wrap_openat(int dir, const char* path, int flags, ...) {
    if (dir == AT_FDCWD && !is_kernel_file(path) && fails("openat", ENOSPC)) return -1;
    va_list args;
    va_start(args, flags);
    const mode_t mode = mode_of(flags, args);
    va_end(args);
    return __real_openat(dir, path, flags, mode);
}

FILE* __real_fopen(const char* path, const char* mode);
FILE* __wrap_fopen(const char* path, const char* mode) {
    return !is_kernel_file(path) && fails("fopen", ENOSPC) ? nullptr : __real_fopen(path, mode);
}

// Falls short in the middle, as on a full disk.
size_t __real_fwrite(const void* data, size_t size, size_t count, FILE* stream);
size_t __wrap_fwrite(const void* data, size_t size, size_t count, FILE* stream) {
    if (!fails("fwrite", ENOSPC)) return __real_fwrite(data, size, count, stream);
    const size_t part = __real_fwrite(data, size, count / 2, stream);
    errno = ENOSPC;
    return part;
}

ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    return !is_kernel_fd(fd) && fails("write", ENOSPC) ? -1 : __real_write(fd, data, size);
}

int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
    note("rename", to);
    return !is_kernel_file(to) && fails("rename", ENOSPC) ? -1 : __real_rename(from, to);
}

int __real_inotify_add_watch(int fd, const char* path, uint32_t mask);
int __wrap_inotify_add_watch(int fd, const char* path, uint32_t mask) {
    if (!is_kernel_file(path) && fails("inotify_add_watch", ENOSPC)) return -1;
    return __real_inotify_add_watch(fd, path, mask);
}

int __real_fclose(FILE* stream);
int __wrap_fclose(FILE* stream) {
    const bool fail = fails("fclose", ENOSPC);
    const int result = __real_fclose(stream);
    if (fail) errno = ENOSPC;
    return fail ? EOF : result;
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    if (g_trace) note("fsync", path_of(fd));
    return fails("fsync", EIO) ? -1 : __real_fsync(fd);
}

int __real_remove(const char* path);
int __wrap_remove(const char* path) {
    note("remove", path);
    return fails("remove", EIO) ? -1 : __real_remove(path);
}

#define WRAP(result, name, error, failure, parameters, ...)                \
    result __real_##name parameters;                                       \
    result __wrap_##name parameters {                                      \
        return fails(#name, error) ? failure : __real_##name(__VA_ARGS__); \
    }

WRAP(int, fflush, ENOSPC, EOF, (FILE * stream), stream)
WRAP(int, ftruncate, EIO, -1, (int fd, off_t length), fd, length)
WRAP(int, fseeko, EIO, -1, (FILE * stream, off_t offset, int whence), stream, offset, whence)
WRAP(int, mkdir, ENOSPC, -1, (const char* path, mode_t mode), path, mode)
WRAP(int, setvbuf, ENOMEM, -1, (FILE * stream, char* buf, int mode, size_t size), stream, buf, mode,
     size)
WRAP(int, inotify_init1, EMFILE, -1, (int flags), flags)
WRAP(int, eventfd, EMFILE, -1, (unsigned initial, int flags), initial, flags)
WRAP(int, signalfd, EMFILE, -1, (int fd, const sigset_t* mask, int flags), fd, mask, flags)
WRAP(int, sigaction, EINVAL, -1, (int signo, const struct sigaction* action, struct sigaction* old),
     signo, action, old)
WRAP(int, pthread_create, EAGAIN, EAGAIN,
     (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* arg),
     thread, attributes, body, arg)
WRAP(void*, malloc, ENOMEM, nullptr, (size_t size), size)
WRAP(void*, calloc, ENOMEM, nullptr, (size_t count, size_t size), count, size)
WRAP(void*, realloc, ENOMEM, nullptr, (void* memory, size_t size), memory, size)
WRAP(char*, strdup, ENOMEM, nullptr, (const char* text), text)
// operator new(size_t, std::nothrow_t const&) and its array form
WRAP(void*, _ZnwmRKSt9nothrow_t, ENOMEM, nullptr, (size_t size, const std::nothrow_t& tag), size,
     tag)
WRAP(void*, _ZnamRKSt9nothrow_t, ENOMEM, nullptr, (size_t size, const std::nothrow_t& tag), size,
     tag)

}  // extern "C"
