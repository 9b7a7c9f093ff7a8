// spool/SpoolUpdate.cpp: the daemon's changed message back into the spool
// file, in one pass over the copy: copy over the message part, cut off what
// is left of a longer original, flush.
#include "spool/SpoolUpdate.h"

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
