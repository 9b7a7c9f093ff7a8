// spool/SpoolUpdate.cpp: the daemon's changed message back into the spool
// file, in one pass over the copy: copy over the message part, cut off what
// is left of a longer original, flush.
#include "spool/SpoolUpdate.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/log/LogClass.h"
#include "platform/receiver/Descriptor.h"
#include "platform/receiver/VxFile.h"

int UpdateSpoolFile(const std::string& copyPath, int spoolFd, int64_t receivedSize,
                    const char* spoolPath, int64_t envelopeSize)
{
    Descriptor copy(::open(copyPath.c_str(), O_RDONLY | O_CLOEXEC));
    if (!copy.IsValid())
        throw std::domain_error("can not open file " + copyPath + " for readig");
    struct stat st;
    if (::fstat(copy.Get(), &st) != 0)
        throw std::domain_error("error in stat for file " + copyPath);
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
