// A library to be loaded before all others (LD_PRELOAD) that lets one call of a kind fail.
//   TVX_FAULT=kind:n   kind open, read, write, rename, fsync, alloc, thread or flock: the n-th call fails; kill,
//                      term: the process gets SIGKILL or SIGTERM at its n-th write; n = 0: none fails
//   TVX_FAULT_COUNT    file that gets the number of calls of the kind when the process ends by itself
// Only files count: the first three descriptors never fail. Allocations
// count from the start of the main program.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

enum kind { none, reading, writing, renaming, syncing, allocating, killing, ending, locking, opening, starting };
kind wanted = none;
long target = 0;
std::atomic<long> calls{0};
bool ready = false;

template <class F> F next(const char* name) { return reinterpret_cast<F>(dlsym(RTLD_NEXT, name)); }

__attribute__((constructor)) void start() {
    const char* fault = std::getenv("TVX_FAULT");
    if (!fault) return;
    const char* kinds[] = {"none", "read", "write", "rename", "fsync", "alloc",
                           "kill", "term", "flock", "open",   "thread"};
    for (int k = 1; k < 11; ++k)
        if (std::strncmp(fault, kinds[k], std::strlen(kinds[k])) == 0) wanted = static_cast<kind>(k);
    if (const char* colon = std::strchr(fault, ':')) target = std::atol(colon + 1);
    ready = true;
}

__attribute__((destructor)) void finish() {
    ready = false;
    const char* name = std::getenv("TVX_FAULT_COUNT");
    if (!name) return;
    const int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    char text[32];
    const int n = std::snprintf(text, sizeof text, "%ld\n", calls.load());
    if (fd >= 0 && ::write(fd, text, static_cast<std::size_t>(n)) < 0) std::abort();
    if (fd >= 0) close(fd);
}

// True if this call is the one to fail.
bool strikes(kind k) {
    const bool signals = wanted == killing || wanted == ending;
    if (!ready || (wanted != k && !(signals && k == writing))) return false;
    if (++calls != target) return false;
    if (signals) kill(getpid(), wanted == killing ? SIGKILL : SIGTERM);
    return !signals;
}

// What a call gives back that would need one more descriptor.
template <class T> T too_many(T what) {
    errno = EMFILE;
    return what;
}

constexpr int stream_error = 0x20; // flag of a failed stream in this C library

} // namespace

extern "C" {

ssize_t read(int fd, void* p, std::size_t n) {
    static const auto real = next<ssize_t (*)(int, void*, std::size_t)>("read");
    if (fd > 2 && strikes(reading)) {
        errno = EIO;
        return -1;
    }
    return real(fd, p, n);
}

std::size_t fread(void* p, std::size_t size, std::size_t n, FILE* f) {
    static const auto real = next<std::size_t (*)(void*, std::size_t, std::size_t, FILE*)>("fread");
    if (strikes(reading)) {
        errno = EIO;
        f->_flags |= stream_error;
        return 0;
    }
    return real(p, size, n, f);
}

ssize_t write(int fd, const void* p, std::size_t n) {
    static const auto real = next<ssize_t (*)(int, const void*, std::size_t)>("write");
    if (fd > 2 && strikes(writing)) {
        errno = ENOSPC;
        return -1;
    }
    return real(fd, p, n);
}

ssize_t writev(int fd, const struct iovec* v, int n) {
    static const auto real = next<ssize_t (*)(int, const struct iovec*, int)>("writev");
    if (fd > 2 && strikes(writing)) {
        errno = ENOSPC;
        return -1;
    }
    return real(fd, v, n);
}

std::size_t fwrite(const void* p, std::size_t size, std::size_t n, FILE* f) {
    static const auto real = next<std::size_t (*)(const void*, std::size_t, std::size_t, FILE*)>("fwrite");
    if (fileno(f) > 2 && strikes(writing)) {
        errno = ENOSPC;
        f->_flags |= stream_error;
        return n > 0 ? n / 2 : 0;
    }
    return real(p, size, n, f);
}

int rename(const char* from, const char* to) {
    static const auto real = next<int (*)(const char*, const char*)>("rename");
    if (strikes(renaming)) {
        errno = EIO;
        return -1;
    }
    return real(from, to);
}

int fsync(int fd) {
    static const auto real = next<int (*)(int)>("fsync");
    if (strikes(syncing)) {
        errno = EIO;
        return -1;
    }
    return real(fd);
}

int open(const char* name, int flags, ...) {
    static const auto real = next<int (*)(const char*, int, ...)>("open");
    if (strikes(opening)) return too_many(-1);
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return real(name, flags, mode);
}

int openat(int folder, const char* name, int flags, ...) {
    static const auto real = next<int (*)(int, const char*, int, ...)>("openat");
    if (strikes(opening)) return too_many(-1);
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    return real(folder, name, flags, mode);
}

FILE* fopen(const char* name, const char* mode) {
    static const auto real = next<FILE* (*)(const char*, const char*)>("fopen");
    return strikes(opening) ? too_many<FILE*>(nullptr) : real(name, mode);
}

FILE* fopen64(const char* name, const char* mode) {
    static const auto real = next<FILE* (*)(const char*, const char*)>("fopen64");
    return strikes(opening) ? too_many<FILE*>(nullptr) : real(name, mode);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument) {
    static const auto real =
        next<int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>("pthread_create");
    return strikes(starting) ? EAGAIN : real(thread, attributes, run, argument);
}

int flock(int fd, int operation) {
    static const auto real = next<int (*)(int, int)>("flock");
    if (strikes(locking)) {
        errno = ENOLCK;
        return -1;
    }
    return real(fd, operation);
}

void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);

static bool no_memory() {
    if (!ready || wanted != allocating || !strikes(allocating)) return false;
    errno = ENOMEM;
    return true;
}

void* malloc(std::size_t n) { return no_memory() ? nullptr : __libc_malloc(n); }
void* calloc(std::size_t n, std::size_t size) { return no_memory() ? nullptr : __libc_calloc(n, size); }
void* realloc(void* p, std::size_t n) { return no_memory() ? nullptr : __libc_realloc(p, n); }
void* aligned_alloc(std::size_t at, std::size_t n) { return no_memory() ? nullptr : __libc_memalign(at, n); }
int posix_memalign(void** p, std::size_t at, std::size_t n) {
    void* got = no_memory() ? nullptr : __libc_memalign(at, n);
    if (!got) return ENOMEM;
    *p = got;
    return 0;
}
}
