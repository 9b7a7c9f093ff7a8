// spool/EnvelopeReader.cpp: the envelope lines of a spool file, one at a time
// through the job's stream. Lines longer than the buffer arrive in chunks and
// each chunk is judged as a line of its own; a line with a NUL byte in it is
// judged by its bytes before the NUL.
#include "spool/EnvelopeReader.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "platform/log/LogClass.h"
#include "platform/receiver/Mail.h"
#include "platform/receiver/RfUtils.h"

namespace
{

bool BeginsWith(const char* line, const char* keyword)
{
    return std::strncmp(line, keyword, std::strlen(keyword)) == 0;
}

} // namespace

int64_t ReadEnvelope(FILE* stream, Mail& mail, bool& senderFound, bool& recipientFound)
{
    char line[8192] = {};
    while (std::fgets(line, sizeof line, stream) != nullptr) {
        line[sizeof line - 1] = '\0';
        if (Log.isDebugEnabled())
            Log.forcedLog(LogClass::Debug, std::string("Read: '") + line + "'");

        if (BeginsWith(line, "env-end") || BeginsWith(line, "env-eof") || RfUtils::IsJustEol(line))
            break;
        if (BeginsWith(line, "channel error")) {
            mail.sender = "<>";
            senderFound = true;
        } else if (BeginsWith(line, "from ")) {
            mail.sender = line + 5;
            RfUtils::MakeAddress(mail.sender);
            senderFound = true;
        } else if (BeginsWith(line, "to ")) {
            std::string recipient = line + 3;
            RfUtils::MakeAddress(recipient);
            mail.recipients.push_back(recipient);
            recipientFound = true;
        }
    }

    const long position = std::ftell(stream);
    if (position < 0) {
        const int error = errno;
        throw std::domain_error(std::string("ftell error:") + std::strerror(error));
    }
    return position;
}
