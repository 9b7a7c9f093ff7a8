// spool/HeaderScanner.cpp: the top headers of a spool file, read line by line
// through the job's stream from where the envelope ended: the secure-hash
// gate and the From/To fallback for an incomplete envelope.
//
// Lines come in chunks of at most 8191 bytes, each judged as a line of its
// own. A line with a NUL byte in it is judged by its bytes before the NUL
// (the C string that fgets leaves); the removal of a hash header line still
// takes out every byte that was read for it.
#include "spool/HeaderScanner.h"

#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>

#include "frame/FilterSettings.h"
#include "platform/log/LogClass.h"
#include "platform/receiver/Descriptor.h"
#include "platform/receiver/Mail.h"
#include "platform/receiver/RfUtils.h"
#include "platform/receiver/VxFile.h"
#include "spool/SpoolRegions.h"

namespace
{

const char HashHeaderName[] = "X-Vorex-Hash";

// White space as the C locale classifies it, independent of the locale set.
bool IsCSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

struct HeaderLine {
    std::string name;
    std::string value;
};

// Splits "name: value\n" at the first colon. The value starts two bytes after
// the colon, whatever the byte after the colon is, and loses its last byte
// (the line end of a complete line); a line too short for that has an empty
// value. False when the line has no colon.
bool SplitHeader(const char* line, HeaderLine& header)
{
    const char* colon = std::strchr(line, ':');
    if (colon == nullptr)
        return false;
    const std::size_t length = std::strlen(line);
    const std::size_t nameLength = static_cast<std::size_t>(colon - line);
    const std::size_t valueStart = nameLength + 2;
    header.name.assign(line, nameLength);
    if (valueStart < length)
        header.value.assign(line + valueStart, length - valueStart - 1);
    else
        header.value.clear();
    return true;
}

// Equal when value has hash's length and bytes. Every byte of the configured
// hash is compared whatever the value holds, so the time taken tells nothing
// about where a guessed value first goes wrong.
bool MatchesHash(const std::string& value, const std::string& hash)
{
    volatile unsigned char difference = value.size() == hash.size() ? 0 : 1;
    for (std::size_t i = 0; i < hash.size(); ++i) {
        const unsigned char offered = i < value.size() ? static_cast<unsigned char>(value[i]) : 0;
        difference = difference | (offered ^ static_cast<unsigned char>(hash[i]));
    }
    return difference == 0;
}

int64_t StreamPosition(FILE* stream, const char* spoolPath)
{
    const long position = std::ftell(stream);
    if (position < 0) {
        const int error = errno;
        throw std::domain_error(std::string("ftell error:") + std::strerror(error) + " on file " +
                                spoolPath);
    }
    return position;
}

// Cuts the line [lineStart, current stream position) out of the spool file in
// place: the rest of the file moves up over it through a second descriptor,
// then the file is truncated by the line's length. ZMailer holds the inode,
// so there is no temporary file and no rename.
void RemoveHeaderLine(FILE* stream, const char* spoolPath, int64_t lineStart)
{
    const int64_t position = StreamPosition(stream, spoolPath);
    const int64_t lineLength = position - lineStart;
    const int streamFd = ::fileno(stream);

    if (::lseek(streamFd, lineStart, SEEK_SET) < 0) {
        const int error = errno;
        throw std::domain_error(std::string("lseek (1) error:") + std::strerror(error) +
                                " on file " + spoolPath);
    }
    Descriptor rest(::open(spoolPath, O_RDONLY | O_CLOEXEC));
    if (!rest.IsValid())
        throw std::domain_error(std::string("can not open file ") + spoolPath + " for readig");
    if (::lseek(rest.Get(), position, SEEK_SET) < 0) {
        const int error = errno;
        throw std::domain_error(std::string("lseek (2) error:") + std::strerror(error) +
                                " on file " + spoolPath);
    }
    const int64_t restSize = GetRemainingSize(rest.Get(), position);
    // Same file, read offset ahead of the write offset by the line's length.
    if (!VxFile::CopyDescr(rest.Get(), streamFd, restSize, nullptr, nullptr))
        throw std::domain_error("can not copy body for delete our header");
    if (::truncate(spoolPath, position + restSize - lineLength) != 0) {
        const int error = errno;
        throw std::domain_error(std::string("truncate error:") + std::strerror(error));
    }
    // The message is answered as passed either way; a failed flush leaves the
    // rewritten bytes in the page cache, where ZMailer reads them.
    (void)::fsync(streamFd);
    // Read-only: its close cannot lose data.
    (void)rest.Close();
}

// The fallback state of one scan: the To header being collected over its
// continuation lines.
class AddressFallback
{
public:
    AddressFallback(Mail& mail, bool& senderFound, bool& recipientFound)
        : mail(mail), senderFound(senderFound), recipientFound(recipientFound)
    {
    }

    bool CollectingTo() const { return collectingTo; }

    // A continuation line of a To header, line end dropped, joins the To text
    // behind a comma, its leading white space kept.
    void Continue(const char* line)
    {
        toText += ',';
        toText.append(line, std::strlen(line) - 1);
    }

    // Hands the collected To text to the record, one item per comma.
    void CloseTo()
    {
        std::vector<std::string> items;
        boost::algorithm::split(items, toText, boost::algorithm::is_any_of(","),
                                boost::algorithm::token_compress_off);
        for (std::string& item : items)
            boost::algorithm::trim_if(item, boost::algorithm::is_space());
        mail.SetToField(items);
        recipientFound = true;
        toText.clear();
        collectingTo = false;
    }

    // Takes a header that is not the hash header: the first From when the
    // envelope had no sender, the first To when no recipient is known yet.
    void Take(const HeaderLine& header)
    {
        collectingTo = false;
        if (!senderFound && ::strcasecmp(header.name.c_str(), "From") == 0) {
            std::string from = header.value;
            boost::algorithm::trim_if(from, boost::algorithm::is_space());
            mail.sender = from;
            Mail::AddRushechkiToAddress(mail.sender);
            senderFound = true;
            return;
        }
        if (recipientFound)
            return;
        if (::strcasecmp(header.name.c_str(), "To") == 0) {
            toText = header.value;
            collectingTo = true;
        }
    }

    // The header part has ended: closes a pending To, gives a missing sender
    // the null address. False as the scan's result; throws without recipients.
    bool Finish()
    {
        if (collectingTo)
            CloseTo();
        if (!senderFound)
            mail.sender = "<>";
        if (!recipientFound)
            throw std::logic_error("can not find rcpt(s) in envelope and msg");
        return false;
    }

private:
    Mail& mail;
    bool& senderFound;
    bool& recipientFound;
    bool collectingTo = false;
    std::string toText;
};

} // namespace

bool ScanHeaders(FILE* stream, const char* spoolPath, Mail& mail, bool& senderFound,
                 bool& recipientFound)
{
    if (Log.isDebugEnabled())
        Log.forcedLog(LogClass::Debug, "Start seach secure header...");

    AddressFallback fallback(mail, senderFound, recipientFound);
    char line[8192] = {};
    for (;;) {
        const int64_t lineStart = StreamPosition(stream, spoolPath);
        if (std::fgets(line, sizeof line, stream) == nullptr)
            break; // end of file or read error: the header part has ended
        line[sizeof line - 1] = '\0';
        if (RfUtils::IsJustEol(line))
            break;

        if (IsCSpace(line[0])) {
            if (fallback.CollectingTo())
                fallback.Continue(line);
            continue;
        }
        if (fallback.CollectingTo())
            fallback.CloseTo();

        HeaderLine header;
        if (!SplitHeader(line, header)) {
            if (Log.isWarnEnabled())
                Log.forcedLog(LogClass::Warn, std::string("Unrecognize header: '") + line + "'");
            continue;
        }
        if (Log.isDebugEnabled())
            Log.forcedLog(LogClass::Debug,
                          "Parse header: '" + header.name + "': '" + header.value + "'");

        if (header.name == HashHeaderName) {
            if (MatchesHash(header.value, filterSettings.hash)) {
                if (Log.isInfoEnabled())
                    Log.forcedLog(LogClass::Info, "Find hash header: pass msg without check!");
                RemoveHeaderLine(stream, spoolPath, lineStart);
                return true;
            }
            if (Log.isWarnEnabled())
                Log.forcedLog(LogClass::Warn,
                              "ALERT: someone tries pass message with incorrect hash:'" +
                                  header.name + "': '" + header.value + "'");
            continue;
        }
        fallback.Take(header);
    }
    return fallback.Finish();
}
