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

int UpdateSpoolFile(const std::string& copyPath, int spoolFd, int64_t receivedSize,
                    const char* spoolPath, int64_t envelopeSize)
{
    // The copy lies in the daemon's entry: whatever the daemon's account put
    // there (a link, a FIFO, a directory, a second name of another file) is
    // refused, not read.
    struct stat st;
    std::string cause;
    Descriptor copy(OpenEntryFileForReading(copyPath, st, cause));
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
