// tests/faults/FaultInjection.cpp: a preload library for fault walks. With
// VOREX_FAULT="<family>:<N>:<errno number>" the Nth call of that family
// (counted from process start, over all its entry points) fails with that
// errno and does nothing else, except fclose, which still releases the stream
// as a real failing fclose does. Every call seen appends one line to the file
// named by VOREX_FAULT_TRACE: family, N (0 when not counted), the errno it
// failed with or "-", entry point, descriptor or path, first bytes of a
// write, calling object. The walk takes the families from that trace, so the
// table of interposers at the end is the only list of them.
//
// Only calls that go through the dynamic symbol table are seen: glibc's calls
// into itself (fgets reading through the stream, ftell's seek, getpwnam's
// files, opendir, syslog) and system calls made directly are out of reach.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

struct {
    bool parsed = false;
    char family[32] = {};
    long nth = 0, seen = 0;
    int error = 0; // 0: disarmed, also by a malformed VOREX_FAULT
    const char* trace = nullptr;
} plan;

template <class Function> Function Real(const char* name)
{
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

// Counts one call of family and traces it with what it touched (a
// descriptor, a path, the bytes of a write); true, with errno set, when this
// is the call to fail. The plan is read on the first intercepted call. The
// trace is written with the real open and write: the library's own output is
// never counted or faulted. A line that cannot be written shows as a fault
// that never fired, which the walk reports.
bool Fire(const char* family, const char* function, void* caller, int fd,
          const char* path = nullptr, const void* bytes = nullptr, std::size_t length = 0)
{
    const int savedErrno = errno;
    if (!plan.parsed) {
        plan.parsed = true;
        plan.trace = std::getenv("VOREX_FAULT_TRACE");
        const char* text = std::getenv("VOREX_FAULT");
        if (text == nullptr ||
            std::sscanf(text, "%31[^:]:%ld:%d", plan.family, &plan.nth, &plan.error) != 3 ||
            plan.nth < 1)
            plan.error = 0;
    }
    const bool counted = plan.error != 0 && std::strcmp(plan.family, family) == 0;
    const bool fire = counted && ++plan.seen == plan.nth;
    if (plan.trace != nullptr) {
        std::string line = std::string(family) + " " + std::to_string(counted ? plan.seen : 0) +
                           " " + (fire ? std::to_string(plan.error) : "-") + " " + function +
                           (fd >= 0 ? " fd=" + std::to_string(fd) : "") +
                           (path != nullptr ? std::string(" path=") + path : "");
        if (bytes != nullptr) {
            line += " bytes="; // printable bytes as they are, others as '.'
            const char* data = static_cast<const char*>(bytes);
            for (std::size_t i = 0; i < length && i < 24; ++i)
                line += data[i] > 0x20 && data[i] < 0x7f ? data[i] : '.';
        }
        Dl_info info;
        if (::dladdr(caller, &info) != 0 && info.dli_fname != nullptr)
            line += std::string(" caller=") + info.dli_fname;
        line += "\n";
        static auto realOpen = Real<int (*)(const char*, int, ...)>("open");
        static auto realWrite = Real<ssize_t (*)(int, const void*, std::size_t)>("write");
        const int out = realOpen(plan.trace, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        if (out >= 0) {
            (void)realWrite(out, line.data(), line.size());
            (void)::close(out);
        }
    }
    errno = fire ? plan.error : savedErrno;
    return fire;
}

} // namespace

// The interposer of `name` (Params, called on with the names that follow):
// fails with `failed` when the fault fires for family, passes the call on to
// the real function otherwise. site: Fire's arguments after the caller (a
// descriptor, a path, the bytes of a write).
#define SITE(...) __VA_ARGS__
#define INTERPOSE(Ret, name, family, failed, site, Params, ...)                                    \
    Ret name Params                                                                                \
    {                                                                                              \
        static auto real = Real<Ret(*) Params>(#name);                                             \
        return Fire(#family, #name, __builtin_return_address(0), SITE site) ? failed               \
                                                                            : real(__VA_ARGS__);   \
    }

// The open calls, whose mode argument is there only with O_CREAT or O_TMPFILE.
#define INTERPOSE_OPEN(name, family, Params, ...)                                                  \
    int name Params                                                                                \
    {                                                                                              \
        va_list args;                                                                              \
        va_start(args, flags);                                                                     \
        const bool withMode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;          \
        const mode_t mode = withMode ? static_cast<mode_t>(va_arg(args, int)) : 0;                 \
        va_end(args);                                                                              \
        static auto real = Real<int(*) Params>(#name);                                             \
        return Fire(#family, #name, __builtin_return_address(0), -1, path)                         \
                   ? -1                                                                            \
                   : real(__VA_ARGS__, mode);                                                      \
    }

extern "C" {

INTERPOSE_OPEN(open, open, (const char* path, int flags, ...), path, flags)
INTERPOSE_OPEN(open64, open, (const char* path, int flags, ...), path, flags)
INTERPOSE_OPEN(openat, openat, (int dir, const char* path, int flags, ...), dir, path, flags)
INTERPOSE_OPEN(openat64, openat, (int dir, const char* path, int flags, ...), dir, path, flags)
INTERPOSE(ssize_t, read, read, -1, (fd), (int fd, void* b, size_t n), fd, b, n)
INTERPOSE(ssize_t, write, write, -1, (fd, nullptr, b, n), (int fd, const void* b, size_t n), fd, b,
          n)
INTERPOSE(off_t, lseek, lseek, -1, (fd), (int fd, off_t at, int w), fd, at, w)
INTERPOSE(off64_t, lseek64, lseek, -1, (fd), (int fd, off64_t at, int w), fd, at, w)
INTERPOSE(int, fstat, fstat, -1, (fd), (int fd, struct stat* st), fd, st)
INTERPOSE(int, fstat64, fstat, -1, (fd), (int fd, struct stat64* st), fd, st)
INTERPOSE(ssize_t, copy_file_range, copy_file_range, -1, (in),
          (int in, off64_t* inAt, int out, off64_t* outAt, size_t n, unsigned f), in, inAt, out,
          outAt, n, f)
INTERPOSE(int, truncate, truncate, -1, (-1, path), (const char* path, off_t n), path, n)
INTERPOSE(int, truncate64, truncate, -1, (-1, path), (const char* path, off64_t n), path, n)
INTERPOSE(int, fsync, fsync, -1, (fd), (int fd), fd)
INTERPOSE(int, fallocate, fallocate, -1, (fd), (int fd, int m, off_t at, off_t n), fd, m, at, n)
INTERPOSE(int, fallocate64, fallocate, -1, (fd), (int fd, int m, off64_t at, off64_t n), fd, m, at,
          n)
INTERPOSE(int, mkdir, mkdir, -1, (-1, path), (const char* path, mode_t m), path, m)
INTERPOSE(int, mkdirat, mkdir, -1, (-1, path), (int dir, const char* path, mode_t m), dir, path, m)
INTERPOSE(int, connect, connect, -1, (fd), (int fd, const sockaddr* to, socklen_t n), fd, to, n)
INTERPOSE(ssize_t, send, send, -1, (fd, nullptr, b, n), (int fd, const void* b, size_t n, int f),
          fd, b, n, f)
INTERPOSE(ssize_t, recv, recv, -1, (fd), (int fd, void* b, size_t n, int f), fd, b, n, f)
INTERPOSE(FILE*, fopen, fopen, nullptr, (-1, path), (const char* path, const char* m), path, m)
INTERPOSE(FILE*, fopen64, fopen, nullptr, (-1, path), (const char* path, const char* m), path, m)

int fclose(FILE* stream)
{
    static auto real = Real<int (*)(FILE*)>("fclose");
    if (!Fire("fclose", "fclose", __builtin_return_address(0), ::fileno(stream)))
        return real(stream);
    // The stream is released as by a real failing fclose; only the result is
    // the injected failure.
    const int error = errno;
    (void)real(stream);
    errno = error;
    return EOF;
}

} // extern "C"
