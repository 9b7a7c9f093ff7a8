// frame/Protocol.cpp: the readiness marker and the reply lines.
#include "frame/Protocol.h"

#include <cstring>
#include <stdexcept>

#include "platform/ipc/Connection.h"

namespace
{

const char HungryMarker[] = "#hungry\n";
const std::size_t HungryMarkerLength = sizeof(HungryMarker) - 1;

} // namespace

std::string ReplyLine(int32_t actionCode)
{
    switch (actionCode) {
    case 0: // pass
        return "0 250 2.6.0 Okey. Go ahead!\n";
    case 1: // reject
        return "-1 550 5.7.1 Rejected by Vorex Quelt!\n";
    case 6: // discard
        return "-1 250 2.7.1 Discarded by Vorex Quelt!\n";
    case 8: // tempfail
        return "1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later.\n";
    default:
        return "-1 550 5.7.1 Unknown action code " + std::to_string(actionCode) +
               " in Vorex Quelt!\n";
    }
}

void WriteHungry(int32_t interface)
{
    if (interface < 1)
        return;
    if (Connection::Write(1, HungryMarker, HungryMarkerLength, nullptr, nullptr) !=
        static_cast<int32_t>(HungryMarkerLength))
        throw std::domain_error("error in hungry write");
}

void WriteReply(int32_t actionCode, const char* note)
{
    std::string line = ReplyLine(actionCode);
    if (note != nullptr && note[0] != '\0') {
        line.back() = ' ';
        line.append(note);
        line.push_back('\n');
    }
    // A reply that cannot be written is lost: ZMailer then treats the filter
    // as silent, and there is no one else to tell.
    (void)Connection::Write(1, line.data(), line.size(), nullptr, nullptr);
}

void WriteVerdictReply(VerdictFlags flags, const char* note)
{
    int32_t actionCode;
    if (flags & VerdictPass)
        actionCode = 0;
    else if (flags & VerdictReject)
        actionCode = 1;
    else if (flags & VerdictTempfail)
        actionCode = 8;
    else if (flags & VerdictDiscard)
        actionCode = 6;
    else
        actionCode = static_cast<int32_t>(flags);
    WriteReply(actionCode, note);
}
