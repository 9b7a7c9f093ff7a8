// spool/SpoolRegions.cpp: the size of the spool file from a position on.
#include "spool/SpoolRegions.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "platform/log/LogClass.h"

int64_t GetRemainingSize(int fd, int64_t pos)
{
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        const int error = errno;
        throw std::domain_error(std::string("fstat error:") + std::strerror(error) +
                                " for file with desc " + std::to_string(fd));
    }
    const int64_t size = st.st_size;
    // A negative position is no offset at all (a failed ftell); it would make
    // the region look larger than the file.
    if (pos < 0)
        throw std::logic_error("pos(" + std::to_string(pos) + ")<0");
    if (size < pos)
        throw std::logic_error("st.st_size(" + std::to_string(size) + ")<pos(" +
                               std::to_string(pos) + ")");
    if (Log.isDebugEnabled())
        Log.forcedLog(LogClass::Debug, "pos=" + std::to_string(pos) +
                                           " size=" + std::to_string(size) + " -> need read " +
                                           std::to_string(size - pos) + " bytes");
    return size - pos;
}
