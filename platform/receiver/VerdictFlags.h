// platform/receiver/VerdictFlags.h: the bits that Receiver::ProcessMsg returns
// for a message. Several may be set at once; callers test them in their own
// order.
#pragma once

#include <cstdint>

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
