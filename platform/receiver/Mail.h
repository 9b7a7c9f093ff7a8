// platform/receiver/Mail.h: the envelope record of one message: sender and
// recipients, each in the address form "<address>" ("<>" for the null
// sender), and the two operations that carry it to the daemon.
#pragma once

#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>

template <class String> class MailBase
{
public:
    virtual ~MailBase() = default;

    String sender;
    std::vector<String> recipients;
    String comment;        // the library's own; this program never sets it
    bool deferred = false; // the library's own; this program never sets it

    // Logs sender and recipients in one line at info level.
    void LogMail() const;
    // Writes the envelope file ".envelope" into dir: "from " + sender, then
    // "to " + recipient per recipient, each line ended by "\n", mode 0660 less
    // the umask. False on any failure, with no partial file left behind.
    bool SaveEnvelope(const boost::filesystem::path& dir) const;
};

class Mail : public MailBase<std::string>
{
public:
    // Turns a From header value (trimmed) into the address form.
    static void AddRushechkiToAddress(std::string& text);
    // Makes recipients the addresses named by the To items, one per
    // recipient; items that name none are skipped.
    void SetToField(const std::vector<std::string>& items);
};

extern template class MailBase<std::string>;
