// tests/faults/FaultInjection.cpp: a preload library for fault walks. With
// VOREX_FAULT="<call>:<N>:<errno name>" the Nth call of that family (counted
// from process start, over all its entry points) fails with that errno and
// does nothing else, except fclose, which still releases the stream as a real
// failing fclose does. When the fault fires, one line describing the call
// (family, N, errno, entry point, descriptor target or path, first bytes of a
// write, calling object) is appended to the file named by
// VOREX_FAULT_MARKER; no marker means N was past the last call.
// VOREX_FAULT_TRACE names a file that gets such a line for every call seen.
//
// Families: open (open, open64), openat (openat, openat64), read, write,
// lseek (lseek, lseek64), fstat (fstat, fstat64), copy_file_range, truncate
// (truncate, truncate64), fsync, mkdir (mkdir, mkdirat), connect,
// send, recv, fclose, fopen (fopen, fopen64). Only calls that go through the
// dynamic symbol table are seen: glibc's calls into itself (fgets reading
// through the stream, ftell's seek, getpwnam's files, opendir, syslog) and
// system calls made directly are out of reach.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace
{

struct FaultPlan {
    bool parsed = false;
    bool armed = false;
    char family[32] = {};
    long nth = 0;
    int error = 0;
    const char* errorName = "";
    long seen = 0;
    const char* marker = nullptr;
    const char* trace = nullptr;
};

FaultPlan plan;

int ErrnoByName(const char* name)
{
    if (std::strcmp(name, "ENOSPC") == 0)
        return ENOSPC;
    if (std::strcmp(name, "EIO") == 0)
        return EIO;
    if (std::strcmp(name, "EINTR") == 0)
        return EINTR;
    return 0;
}

// Reads the plan once, on the first intercepted call. A malformed
// VOREX_FAULT disarms the library rather than guessing.
void ParsePlan()
{
    if (plan.parsed)
        return;
    plan.parsed = true;
    plan.marker = std::getenv("VOREX_FAULT_MARKER");
    plan.trace = std::getenv("VOREX_FAULT_TRACE");
    const char* faultText = std::getenv("VOREX_FAULT");
    if (faultText == nullptr)
        return;
    const char* firstColon = std::strchr(faultText, ':');
    if (firstColon == nullptr ||
        static_cast<std::size_t>(firstColon - faultText) >= sizeof plan.family)
        return;
    std::memcpy(plan.family, faultText, static_cast<std::size_t>(firstColon - faultText));
    char* end = nullptr;
    plan.nth = std::strtol(firstColon + 1, &end, 10);
    if (end == nullptr || *end != ':' || plan.nth < 1)
        return;
    plan.errorName = end + 1;
    plan.error = ErrnoByName(plan.errorName);
    plan.armed = plan.error != 0;
}

template <class Function> Function Real(const char* name)
{
    return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

// What a call touched, for the marker: the descriptor's target or a path.
struct Site {
    int fd = -1;
    int fd2 = -1;
    const char* path = nullptr;
    const void* bytes = nullptr;
    std::size_t length = 0;
};

std::string DescribeFd(int fd)
{
    char target[512];
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t got = ::readlink(link.c_str(), target, sizeof target);
    return " fd=" + std::to_string(fd) +
           " target=" + (got < 0 ? std::string("?") : std::string(target, std::size_t(got)));
}

// Appends one line to path with the real open and write: the library's own
// output is never counted or faulted.
void AppendLine(const char* path, const char* family, long number, const char* errorName,
                const char* function, const Site& site, void* caller)
{
    static auto realOpen = Real<int (*)(const char*, int, ...)>("open");
    static auto realWrite = Real<ssize_t (*)(int, const void*, std::size_t)>("write");

    std::string line =
        std::string(family) + " " + std::to_string(number) + " " + errorName + " " + function;
    if (site.fd >= 0)
        line += DescribeFd(site.fd);
    if (site.fd2 >= 0)
        line += DescribeFd(site.fd2);
    if (site.path != nullptr)
        line += std::string(" path=") + site.path;
    if (site.bytes != nullptr) {
        // The first bytes of a write, printable ones as they are, others as \xNN.
        line += " bytes=";
        const unsigned char* data = static_cast<const unsigned char*>(site.bytes);
        for (std::size_t i = 0; i < site.length && i < 24; ++i) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", data[i]);
            const bool plain = data[i] >= 0x21 && data[i] < 0x7f && data[i] != '\\';
            line += plain ? std::string(1, static_cast<char>(data[i])) : std::string(escaped);
        }
        line += " length=" + std::to_string(site.length);
    }
    Dl_info info;
    if (::dladdr(caller, &info) != 0 && info.dli_fname != nullptr) {
        const char* object = std::strrchr(info.dli_fname, '/');
        line += std::string(" caller=") + (object != nullptr ? object + 1 : info.dli_fname);
    }
    line += "\n";
    const int fd = realOpen(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return;
    // A marker that cannot be written shows as a fault that never fired,
    // which the walk reports; nothing better can be done from inside a call.
    (void)realWrite(fd, line.data(), line.size());
    (void)::close(fd);
}

// Counts one call of family; true when this is the call to fail, with errno
// set. The marker records it.
bool Fire(const char* family, const char* function, const Site& site, void* caller)
{
    const int savedErrno = errno;
    ParsePlan();
    const bool counted = plan.armed && std::strcmp(plan.family, family) == 0;
    if (counted)
        ++plan.seen;
    const bool fire = counted && plan.seen == plan.nth;
    if (plan.trace != nullptr)
        AppendLine(plan.trace, family, counted ? plan.seen : 0, fire ? plan.errorName : "-",
                   function, site, caller);
    if (fire && plan.marker != nullptr)
        AppendLine(plan.marker, family, plan.seen, plan.errorName, function, site, caller);
    errno = fire ? plan.error : savedErrno;
    return fire;
}

Site PathSite(const char* path)
{
    Site site;
    site.path = path;
    return site;
}

Site FdSite(int fd, int fd2 = -1, const void* bytes = nullptr, std::size_t length = 0)
{
    Site site;
    site.fd = fd;
    site.fd2 = fd2;
    site.bytes = bytes;
    site.length = length;
    return site;
}

bool HasMode(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

} // namespace

#define CALLER __builtin_return_address(0)

// The interposer of `name` (Params, called on with the names that follow):
// fails with `failed` when the fault fires for family, passes the call on to
// the real function otherwise.
#define INTERPOSE(Ret, name, family, failed, site, Params, ...)                                    \
    Ret name Params                                                                                \
    {                                                                                              \
        static auto real = Real<Ret(*) Params>(#name);                                             \
        return Fire(family, #name, site, CALLER) ? failed : real(__VA_ARGS__);                     \
    }

// The same for the open calls, whose mode argument is there only with
// O_CREAT or O_TMPFILE.
#define INTERPOSE_OPEN(name, family, Params, ...)                                                  \
    int name Params                                                                                \
    {                                                                                              \
        mode_t mode = 0;                                                                           \
        if (HasMode(flags)) {                                                                      \
            va_list args;                                                                          \
            va_start(args, flags);                                                                 \
            mode = static_cast<mode_t>(va_arg(args, int));                                         \
            va_end(args);                                                                          \
        }                                                                                          \
        static auto real = Real<int(*) Params>(#name);                                             \
        return Fire(family, #name, PathSite(path), CALLER) ? -1 : real(__VA_ARGS__, mode);         \
    }

extern "C" {

INTERPOSE_OPEN(open, "open", (const char* path, int flags, ...), path, flags)
INTERPOSE_OPEN(open64, "open", (const char* path, int flags, ...), path, flags)
INTERPOSE_OPEN(openat, "openat", (int dirFd, const char* path, int flags, ...), dirFd, path, flags)
INTERPOSE_OPEN(openat64, "openat", (int dirFd, const char* path, int flags, ...), dirFd, path,
               flags)
INTERPOSE(ssize_t, read, "read", -1, FdSite(fd), (int fd, void* buffer, size_t count), fd, buffer,
          count)
INTERPOSE(ssize_t, write, "write", -1, FdSite(fd, -1, buffer, count),
          (int fd, const void* buffer, size_t count), fd, buffer, count)
INTERPOSE(off_t, lseek, "lseek", -1, FdSite(fd), (int fd, off_t offset, int whence), fd, offset,
          whence)
INTERPOSE(off64_t, lseek64, "lseek", -1, FdSite(fd), (int fd, off64_t offset, int whence), fd,
          offset, whence)
INTERPOSE(int, fstat, "fstat", -1, FdSite(fd), (int fd, struct stat* status), fd, status)
INTERPOSE(int, fstat64, "fstat", -1, FdSite(fd), (int fd, struct stat64* status), fd, status)
INTERPOSE(ssize_t, copy_file_range, "copy_file_range", -1, FdSite(fdIn, fdOut),
          (int fdIn, off64_t* offIn, int fdOut, off64_t* offOut, size_t length, unsigned flags),
          fdIn, offIn, fdOut, offOut, length, flags)
INTERPOSE(int, truncate, "truncate", -1, PathSite(path), (const char* path, off_t length), path,
          length)
INTERPOSE(int, truncate64, "truncate", -1, PathSite(path), (const char* path, off64_t length), path,
          length)
INTERPOSE(int, fsync, "fsync", -1, FdSite(fd), (int fd), fd)
INTERPOSE(int, mkdir, "mkdir", -1, PathSite(path), (const char* path, mode_t mode), path, mode)
INTERPOSE(int, mkdirat, "mkdir", -1, PathSite(path), (int dirFd, const char* path, mode_t mode),
          dirFd, path, mode)
INTERPOSE(int, connect, "connect", -1, FdSite(fd),
          (int fd, const struct sockaddr* address, socklen_t length), fd, address, length)
INTERPOSE(ssize_t, send, "send", -1, FdSite(fd, -1, buffer, length),
          (int fd, const void* buffer, size_t length, int flags), fd, buffer, length, flags)
INTERPOSE(ssize_t, recv, "recv", -1, FdSite(fd), (int fd, void* buffer, size_t length, int flags),
          fd, buffer, length, flags)
INTERPOSE(FILE*, fopen, "fopen", nullptr, PathSite(path), (const char* path, const char* mode),
          path, mode)
INTERPOSE(FILE*, fopen64, "fopen", nullptr, PathSite(path), (const char* path, const char* mode),
          path, mode)

int fclose(FILE* stream)
{
    static auto real = Real<int (*)(FILE*)>("fclose");
    if (Fire("fclose", "fclose", FdSite(::fileno(stream)), CALLER)) {
        const int error = errno;
        // The stream is released as by a real failing fclose; only the
        // result is the injected failure.
        (void)real(stream);
        errno = error;
        return EOF;
    }
    return real(stream);
}

} // extern "C"
