// shared/conversation/Conversation.h: the names and numbers the filter and
// quelt-refd share: the base directory's socket and entries folder, the
// request verb, and the verdict bits of the answer line. Both programs
// include this header and nothing else of each other's; it links to nothing.
#pragma once

#include <cstdint>

namespace conversation
{

// The daemon's listening socket in the base directory.
inline constexpr const char* SocketName = "quelt.sock";
// The folder of the base directory that holds the entry directories.
inline constexpr const char* EntriesFolderName = "msgs";
inline constexpr const char* EntriesFolder = "msgs/";
// A request is this verb, the entry directory's path and "\n".
inline constexpr const char* RequestVerb = "CHECK ";
// The filter's report that the flush after it rewrote a spool file failed:
// this verb, the entry directory's path and "\n". The daemon logs and
// counts it and answers nothing.
inline constexpr const char* FsyncFailedVerb = "FSYNC-FAILED ";

} // namespace conversation

// The bits of an answer line's flags (decimal on the wire), also what
// Receiver::ProcessMsg returns for a message. Several may be set at once;
// callers test them in their own order.
typedef uint32_t VerdictFlags;

enum : VerdictFlags {
    VerdictPass = 0x1,
    VerdictReject = 0x2,
    VerdictTempfail = 0x4,
    VerdictDiscard = 0x8,
    VerdictDaemonError = 0x20,
    VerdictTakenOver = 0x40,
    VerdictHeadersChanged = 0x200,
    VerdictEnvelopeChanged = 0x400,
    VerdictBodyChanged = 0x800,
    ContentChangedMask = VerdictHeadersChanged | VerdictBodyChanged,
};

// Whether the filter keeps the entry after this answer: it removes the entry
// of a message that passed (unless another took it over) and of a failure.
// What the filter keeps is all the quarantine ever sees.
inline bool FilterKeepsEntry(VerdictFlags flags)
{
    if (flags & VerdictDaemonError)
        return false;
    return (flags & VerdictTakenOver) != 0 || (flags & VerdictPass) == 0;
}
