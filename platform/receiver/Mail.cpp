// platform/receiver/Mail.cpp: the envelope record's log line, its envelope
// file for the daemon, and the header-side address operations, which use the
// one normaliser of RfUtils.
#include "platform/receiver/Mail.h"

#include <cstdint>

#include "platform/ipc/Connection.h"
#include "platform/log/LogClass.h"
#include "platform/receiver/Descriptor.h"
#include "platform/receiver/EntryFiles.h"
#include "platform/receiver/RfUtils.h"

namespace
{

const char EnvelopeFilename[] = ".envelope";

} // namespace

template <class String> void MailBase<String>::LogMail() const
{
    if (!Log.isInfoEnabled())
        return;
    std::string line = "from " + sender + " to ";
    for (std::size_t i = 0; i < recipients.size(); ++i) {
        if (i > 0)
            line += ", ";
        line += recipients[i];
    }
    Log.forcedLog(LogClass::Info, line);
}

template <class String>
bool MailBase<String>::SaveEnvelope(const boost::filesystem::path& dir) const
{
    std::string content = "from " + sender + "\n";
    for (const String& recipient : recipients)
        content += "to " + recipient + "\n";
    if (content.size() > static_cast<std::size_t>(INT32_MAX))
        return false; // beyond what one write-all call reports

    const std::string path = (dir / EnvelopeFilename).string();
    // A new file only: one that was there before is not ours to overwrite or
    // to remove on failure.
    std::string cause;
    Descriptor file(CreateEntryFile(path, 0660, cause));
    if (!file.IsValid()) {
        if (Log.isErrorEnabled())
            Log.forcedLog(LogClass::Error, cause);
        return false;
    }
    const bool written = Connection::Write(file.Get(), content.data(), content.size(), nullptr,
                                           nullptr) == static_cast<int32_t>(content.size());
    // A close error can mean lost data on some file systems, so it counts.
    if (file.Close() == 0 && written)
        return true;
    // The false result is the report; a file that cannot even be removed is
    // left for the daemon's clean-up of the entry.
    (void)RemoveEntryFile(path, cause);
    return false;
}

template class MailBase<std::string>;

void Mail::AddRushechkiToAddress(std::string& text)
{
    RfUtils::MakeAddress(text);
}

void Mail::SetToField(const std::vector<std::string>& items)
{
    recipients = RfUtils::MakeAddressItems(items);
}
