// spool/SpoolUpdate.cpp: the daemon's changed message back into the spool
// file, in one pass over the copy: reserve the blocks of the new size, copy
// over the message part, cut off what is left of a longer original, flush.
#include "spool/SpoolUpdate.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/log/LogClass.h"
#include "platform/receiver/Descriptor.h"
#include "platform/receiver/EntryFiles.h"
#include "platform/receiver/VxFile.h"

namespace
{

// What the daemon may add to a message: its header lines.
constexpr int64_t HeaderAllowance = 1024 * 1024;

// True when the copy open as fd, of copySize bytes, is at most HeaderAllowance
// larger than the received message and has no hole; its offset is at 0 again.
// Otherwise false with the cause.
bool IsBoundedAndDense(int fd, int64_t copySize, int64_t receivedSize, std::string& cause)
{
    if (copySize > receivedSize + HeaderAllowance) {
        cause = "daemon's copy has " + std::to_string(copySize) + " bytes, more than the " +
                std::to_string(receivedSize) + " received plus " + std::to_string(HeaderAllowance) +
                "; refused";
        return false;
    }
    if (copySize == 0)
        return true; // nothing to look in (SEEK_HOLE at the end fails)
    const off_t hole = ::lseek(fd, 0, SEEK_HOLE);
    if (hole < 0 || ::lseek(fd, 0, SEEK_SET) != 0) {
        cause = std::string("can not look for holes in the daemon's copy:") + std::strerror(errno);
        return false;
    }
    if (hole < copySize) {
        cause = "daemon's copy has a hole at byte " + std::to_string(hole) + "; refused";
        return false;
    }
    return true;
}

// Makes the blocks of the spool file's first finalSize bytes certain, so
// that the rewrite cannot meet a full disk half way (the file system would
// take the bytes up to the end of the last page it had, then refuse the
// rest). The file's bytes and length stay as they are: the blocks past the
// end are reserved without moving it. A file system that cannot reserve
// that way gets zeros written past the end, which the rewrite then
// overwrites; when that fails, the file is cut back to oldSize. False with
// the cause when the space is not there.
bool ReserveSpace(int spoolFd, int64_t finalSize, int64_t oldSize, std::string& cause)
{
    if (finalSize <= 0)
        return true; // nothing to hold (and a length of 0 is refused)
    int result;
    do
        result = ::fallocate(spoolFd, FALLOC_FL_KEEP_SIZE, 0, finalSize);
    while (result != 0 && errno == EINTR);
    int error = result == 0 ? 0 : errno;
    std::string leftOver;
    if (error == EOPNOTSUPP) {
        error = ::posix_fallocate(spoolFd, 0, finalSize);
        if (error != 0 && finalSize > oldSize && ::ftruncate(spoolFd, oldSize) != 0)
            leftOver = std::string(", and the zeros past its end stay:") + std::strerror(errno);
    }
    if (error == 0)
        return true;
    cause = "can not reserve " + std::to_string(finalSize) +
            " bytes for the spool file:" + std::strerror(error) + leftOver;
    return false;
}

} // namespace

int UpdateSpoolFile(const std::string& copyPath, int spoolFd, int64_t receivedSize,
                    const char* spoolPath, int64_t envelopeSize)
{
    // The copy lies in the daemon's entry: whatever the daemon's account put
    // there (a link, a FIFO, a directory, a second name of another file) is
    // refused, not read.
    // The account may also make the copy huge, or sparse so that it costs
    // the account nothing and the spool's disk everything: the copy may be at
    // most the received size plus HeaderAllowance, with no hole.
    struct stat st;
    std::string cause;
    Descriptor copy(OpenEntryFileForReading(copyPath, st, cause));
    if (copy.IsValid() && !IsBoundedAndDense(copy.Get(), st.st_size, receivedSize, cause))
        copy.Reset(-1);
    if (!copy.IsValid()) {
        if (Log.isErrorEnabled())
            Log.forcedLog(LogClass::Error, cause);
        throw std::domain_error("can not open file " + copyPath + " for readig");
    }
    const int64_t copySize = st.st_size;

    // Before the first byte of the message part changes.
    if (!ReserveSpace(spoolFd, envelopeSize + copySize, envelopeSize + receivedSize, cause)) {
        if (Log.isErrorEnabled())
            Log.forcedLog(LogClass::Error, cause);
        throw std::domain_error("can not copy new body");
    }
    if (!VxFile::CopyDescr(copy.Get(), spoolFd, copySize, nullptr, nullptr))
        throw std::domain_error("can not copy new body");
    // Read-only: its close cannot lose data.
    (void)copy.Close();

    if (Log.isDebugEnabled())
        Log.forcedLog(LogClass::Debug, "orig_size = " + std::to_string(receivedSize) +
                                           " st.st_size=" + std::to_string(copySize) +
                                           " env_size=" + std::to_string(envelopeSize));

    if (copySize < receivedSize && ::truncate(spoolPath, copySize + envelopeSize) != 0) {
        const int error = errno;
        throw std::domain_error(std::string("truncate error:") + std::strerror(error));
    }
    return ::fsync(spoolFd);
}
