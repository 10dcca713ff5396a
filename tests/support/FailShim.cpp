// Makes chosen system calls fail: preloaded into a dynamically linked hook (rule in $SKELDRIN_FAIL) or linked
// into a test ahead of the C library (skeldrin_fail). A rule "call:error[:skip[:times]]" fails that call with
// that error after `skip` calls succeed, `times` times (default: always). Only calls that write count: open
// with O_CREAT, write above descriptor 2, fsync, rename, link, unlink, flock.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/file.h>
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
    if (!loaded) parse(std::getenv("SKELDRIN_FAIL"));
    loaded = true;
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

// These fail when the rule says so, or go on to the C library's.
#define SKELDRIN_FAILING(type, call, params, args, when)                                                     \
    type call params                                                                                         \
    {                                                                                                        \
        if ((when) && fails(#call)) return -1;                                                               \
        static const auto next = real<type(*) params>(#call);                                                \
        return next args;                                                                                    \
    }
SKELDRIN_FAILING(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size), fd > 2)
SKELDRIN_FAILING(int, fsync, (int fd), (fd), true)
SKELDRIN_FAILING(int, rename, (const char* from, const char* to), (from, to), true)
SKELDRIN_FAILING(int, link, (const char* from, const char* to), (from, to), true)
SKELDRIN_FAILING(int, unlink, (const char* path), (path), true)
SKELDRIN_FAILING(int, flock, (int fd, int operation), (fd, operation), (operation & LOCK_EX))
}
