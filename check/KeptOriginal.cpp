// check/KeptOriginal.cpp: the record is created through the entry's pinned
// directory descriptor (never through a link), filled by the in-kernel copy
// from the spool file, which the account never had, and removed again on
// any failure.
#include "check/KeptOriginal.h"

#include <unistd.h>

#include <string>

#include <boost/filesystem/path.hpp>

#include "platform/ipc/Connection.h"
#include "platform/log/LogClass.h"
#include "platform/receiver/Descriptor.h"
#include "platform/receiver/EntryFiles.h"
#include "platform/receiver/Mail.h"
#include "platform/receiver/VxFile.h"

namespace
{

const char* const RecordName = ".original";

bool Failed(const std::string& path, const std::string& cause)
{
    std::string ignored;
    (void)RemoveEntryFile(path, ignored); // what was made of it, if anything
    if (Log.isErrorEnabled())
        Log.forcedLog(LogClass::Error, "can not keep the original message in " + path + ": " + cause);
    return false;
}

} // namespace

bool SaveKeptOriginal(const std::string& entryDir, const char* entryId, const Mail& mail,
                      int spoolFd, int64_t envelopeSize, int64_t messageSize)
{
    const std::string path = (boost::filesystem::path(entryDir) / RecordName).string();
    std::string head = std::string("entry ") + entryId + "\nsize " + std::to_string(messageSize) +
                       "\nfrom " + mail.sender + "\n";
    for (const std::string& recipient : mail.recipients)
        head += "to " + recipient + "\n";
    head += "env-end\n";

    std::string cause;
    Descriptor record(CreateEntryFile(path, 0600, cause));
    if (!record.IsValid())
        return Failed(path, cause);
    if (Connection::Write(record.Get(), head.data(), head.size(), nullptr, nullptr) !=
        static_cast<int32_t>(head.size()))
        return Failed(path, "write failed");
    if (messageSize > 0 && (::lseek(spoolFd, envelopeSize, SEEK_SET) < 0 ||
                            !VxFile::CopyDescr(spoolFd, record.Get(), messageSize, nullptr, nullptr)))
        return Failed(path, "copy failed");
    if (record.Close() != 0)
        return Failed(path, "close failed");
    return true;
}
