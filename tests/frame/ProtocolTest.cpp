// Reply lines and the readiness marker, byte for byte, as ZMailer reads them
// from descriptor 1.
#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "frame/Protocol.h"
#include "support/StdoutCapture.h"

namespace
{

// The four low bits are tested pass, reject, tempfail, discard; the first set
// one wins (each pair of neighbours is a row), and without any of them the
// whole value is the action code. The driver's own replies (the error action
// with " Internal error") are the end-to-end tests'.
TEST(ReplyLines, VerdictFlagsChooseTheReplyInBitOrder)
{
    const struct {
        const char* name;
        VerdictFlags flags;
        const char* note;
        const char* expected;
    } rows[] = {
        {"zeroIsPass", 0, nullptr, "0 250 2.6.0 Okey. Go ahead!\n"},
        {"reject", 2, nullptr, "-1 550 5.7.1 Rejected by Vorex Quelt!\n"},
        {"tempfail", 4, nullptr, "1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later.\n"},
        {"discard", 8, nullptr, "-1 250 2.7.1 Discarded by Vorex Quelt!\n"},
        {"passOverReject", 3, nullptr, "0 250 2.6.0 Okey. Go ahead!\n"},
        {"rejectOverTempfail", 6, nullptr, "-1 550 5.7.1 Rejected by Vorex Quelt!\n"},
        {"tempfailOverDiscard", 12, nullptr,
         "1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later.\n"},
        {"changeBitsIgnored", 0x201, "clean", "0 250 2.6.0 Okey. Go ahead! clean\n"},
        {"rejectWithNote", 2, "infected: EICAR-Test-File",
         "-1 550 5.7.1 Rejected by Vorex Quelt! infected: EICAR-Test-File\n"},
        {"emptyNote", 4, "", "1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later.\n"},
        {"noLowBitIsTheCode", 16, nullptr, "-1 550 5.7.1 Unknown action code 16 in Vorex Quelt!\n"},
        {"unknownWithNote", 64, "x", "-1 550 5.7.1 Unknown action code 64 in Vorex Quelt! x\n"},
        {"highBitIsNegativeCode", 0x80000000u, nullptr,
         "-1 550 5.7.1 Unknown action code -2147483648 in Vorex Quelt!\n"},
    };
    for (const auto& row : rows) {
        StdoutCapture capture;
        WriteVerdictReply(row.flags, row.note);
        EXPECT_EQ(capture.Take(), row.expected) << row.name;
    }
}

// The marker itself, and none at interface 0, are the end-to-end tests'.
TEST(HungryMarker, FailedWriteThrows)
{
    // A closed reader makes the write fail with EPIPE instead of a signal.
    struct sigaction ignore = {}, old = {};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(sigaction(SIGPIPE, &ignore, &old), 0);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    int saved = dup(1);
    ASSERT_GE(dup2(fds[1], 1), 0);
    close(fds[1]);
    close(fds[0]);
    try {
        WriteHungry(1);
        ADD_FAILURE() << "no exception";
    } catch (const std::domain_error& e) {
        EXPECT_STREQ(e.what(), "error in hungry write");
    }
    // A reply to the same broken output is lost without an exception.
    EXPECT_NO_THROW(WriteReply(1, "Internal error"));
    dup2(saved, 1);
    close(saved);
    sigaction(SIGPIPE, &old, nullptr);
}

} // namespace
