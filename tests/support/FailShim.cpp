// Makes chosen system calls fail, for tests of what the store and the settings editor do when the disk
// or the system does. Loaded with LD_PRELOAD into a dynamically linked hook (rule in $SKELDRIN_FAIL) or
// linked into a test ahead of the C library (rule set with skeldrin_fail). A rule is
// "call:error[:skip[:times]]": the named call fails with that error number after `skip` calls succeed,
// `times` times (default: always). Only calls that write are counted: open with O_CREAT, write to a
// descriptor above 2, fsync, rename, link, unlink, mkdir, flock.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Rule {
    std::string call;
    int error = 0;
    long skip = 0, times = -1;
};

std::mutex mutex;
Rule rule;
bool loaded = false;

void parse(const char* text)
{
    rule = Rule{};
    char call[32] = "";
    if (text) std::sscanf(text, "%31[^:]:%d:%ld:%ld", call, &rule.error, &rule.skip, &rule.times);
    rule.call = call;
}

// Whether this call of `call` is to fail; sets errno when it is.
bool fails(const char* call)
{
    std::lock_guard lock(mutex);
    if (!loaded) {
        parse(std::getenv("SKELDRIN_FAIL"));
        loaded = true;
    }
    if (rule.call != call || rule.times == 0) return false;
    if (rule.skip > 0) return --rule.skip, false;
    if (rule.times > 0) --rule.times;
    errno = rule.error;
    return true;
}

template <typename F> F real(const char* name)
{
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

void skeldrin_fail(const char* text)
{
    std::lock_guard lock(mutex);
    parse(text);
    loaded = true;
}

int open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if (flags & (O_CREAT | O_TMPFILE)) {
        va_list args;
        va_start(args, flags);
        mode = static_cast<mode_t>(va_arg(args, unsigned));
        va_end(args);
        if (fails("open")) return -1;
    }
    static const auto next = real<int (*)(const char*, int, ...)>("open");
    return next(path, flags, mode);
}

ssize_t write(int fd, const void* data, size_t size)
{
    if (fd > 2 && fails("write")) return -1;
    static const auto next = real<ssize_t (*)(int, const void*, size_t)>("write");
    return next(fd, data, size);
}

// These fail by the rule, or go on to the C library's.
#define SKELDRIN_FAILING(call, params, args)                                                                 \
    int call params                                                                                          \
    {                                                                                                        \
        if (fails(#call)) return -1;                                                                         \
        static const auto next = real<int(*) params>(#call);                                                 \
        return next args;                                                                                    \
    }
SKELDRIN_FAILING(fsync, (int fd), (fd))
SKELDRIN_FAILING(rename, (const char* from, const char* to), (from, to))
SKELDRIN_FAILING(link, (const char* from, const char* to), (from, to))
SKELDRIN_FAILING(unlink, (const char* path), (path))
SKELDRIN_FAILING(mkdir, (const char* path, mode_t mode), (path, mode))

int flock(int fd, int operation)
{
    if ((operation & LOCK_EX) && fails("flock")) return -1;
    static const auto next = real<int (*)(int, int)>("flock");
    return next(fd, operation);
}
}
