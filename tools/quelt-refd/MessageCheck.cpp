// tools/quelt-refd/MessageCheck.cpp: streaming scan and header insertion for
// the reference daemon. Neither holds more than one block of a message.
#include "MessageCheck.h"

#include <cstring>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <vector>

#include "Fd.h"

namespace
{

const char TestString[] = "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
constexpr std::size_t TestStringLength = sizeof TestString - 1;
static_assert(TestStringLength == 68, "the test string is 68 bytes");
// Bytes kept from one block for the next, so that a string cut by a block
// boundary is still seen whole.
constexpr std::size_t Overlap = TestStringLength - 1;
constexpr std::size_t BlockSize = 64 * 1024;

std::string SystemReason(int error, const char* what, const std::string& path)
{
    return std::string(what) + " " + path + ": " + std::strerror(error);
}

// Reads up to length bytes, retrying interruptions; -1 on failure.
ssize_t ReadSome(int fd, char* buffer, std::size_t length)
{
    for (;;) {
        ssize_t count = ::read(fd, buffer, length);
        if (count >= 0 || errno != EINTR)
            return count;
    }
}

} // namespace

bool ContainsTestString(const std::string& path, bool& found, std::string& reason)
{
    found = false;
    Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsValid()) {
        int error = errno;
        reason = SystemReason(error, "can not open", path);
        return false;
    }
    std::vector<char> buffer(Overlap + BlockSize);
    std::size_t kept = 0;
    for (;;) {
        ssize_t count = ReadSome(file.Get(), buffer.data() + kept, BlockSize);
        if (count < 0) {
            int error = errno;
            reason = SystemReason(error, "can not read", path);
            return false;
        }
        if (count == 0)
            return true;
        std::size_t held = kept + static_cast<std::size_t>(count);
        if (::memmem(buffer.data(), held, TestString, TestStringLength) != nullptr) {
            found = true;
            return true;
        }
        kept = held < Overlap ? held : Overlap;
        std::memmove(buffer.data(), buffer.data() + held - kept, kept);
    }
}

bool InsertHeaderLine(const std::string& path, const std::string& header, std::string& reason)
{
    Fd source(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!source.IsValid()) {
        int error = errno;
        reason = SystemReason(error, "can not open", path);
        return false;
    }
    struct stat status;
    if (::fstat(source.Get(), &status) != 0) {
        int error = errno;
        reason = SystemReason(error, "can not stat", path);
        return false;
    }
    const std::string newPath = path + ".refd-new";
    Fd target(::open(newPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!target.IsValid()) {
        int error = errno;
        reason = SystemReason(error, "can not create", newPath);
        return false;
    }
    // Sets the reason from errno before the clean-up call can change it.
    auto fail = [&](const char* what, const std::string& failedPath) {
        int error = errno;
        reason = SystemReason(error, what, failedPath);
        (void)::unlink(newPath.c_str()); // the old file stays as it was
        return false;
    };
    const std::string line = header + "\n";
    if (::fchmod(target.Get(), status.st_mode & 07777) != 0 ||
        !WriteAll(target.Get(), line.data(), line.size()))
        return fail("can not write", newPath);
    std::vector<char> block(BlockSize);
    for (;;) {
        ssize_t count = ReadSome(source.Get(), block.data(), block.size());
        if (count < 0)
            return fail("can not read", path);
        if (count == 0)
            break;
        if (!WriteAll(target.Get(), block.data(), static_cast<std::size_t>(count)))
            return fail("can not write", newPath);
    }
    if (::fsync(target.Get()) != 0 || target.Close() != 0)
        return fail("can not write", newPath);
    if (::rename(newPath.c_str(), path.c_str()) != 0)
        return fail("can not rename over", path);
    return true;
}
