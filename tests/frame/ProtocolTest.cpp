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

struct ReplyRow {
    const char* name;
    int32_t actionCode;
    const char* note;
    const char* expected;
};

const ReplyRow replyRows[] = {
    {"pass", 0, nullptr, "0 250 2.6.0 Okey. Go ahead!\n"},
    {"reject", 1, nullptr, "-1 550 5.7.1 Rejected by Vorex Quelt!\n"},
    {"discard", 6, nullptr, "-1 250 2.7.1 Discarded by Vorex Quelt!\n"},
    {"tempfail", 8, nullptr, "1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later.\n"},
    {"tempfailEmptyNote", 8, "", "1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later.\n"},
    {"rejectWithNote", 1, "infected: EICAR-Test-File",
     "-1 550 5.7.1 Rejected by Vorex Quelt! infected: EICAR-Test-File\n"},
    {"quarantineIsUnknown", 4, nullptr, "-1 550 5.7.1 Unknown action code 4 in Vorex Quelt!\n"},
    {"minimum", INT32_MIN, nullptr,
     "-1 550 5.7.1 Unknown action code -2147483648 in Vorex Quelt!\n"},
    {"unknownWithNote", 64, "x", "-1 550 5.7.1 Unknown action code 64 in Vorex Quelt! x\n"},
};

TEST(ReplyLines, EachActionCodeWritesItsExactLine)
{
    for (const ReplyRow& row : replyRows) {
        StdoutCapture capture;
        WriteReply(row.actionCode, row.note);
        EXPECT_EQ(capture.Take(), row.expected) << row.name;
    }
}

struct VerdictRow {
    const char* name;
    VerdictFlags flags;
    const char* expected;
};

// The four low bits are tested pass, reject, tempfail, discard; the first set
// one wins (each pair of neighbours is a row), and without any of them the
// whole value is the action code.
const VerdictRow verdictRows[] = {
    {"zeroIsPass", 0, "0 250 2.6.0 Okey. Go ahead!\n"},
    {"passAndReject", 3, "0 250 2.6.0 Okey. Go ahead!\n"},
    {"rejectOverTempfail", 6, "-1 550 5.7.1 Rejected by Vorex Quelt!\n"},
    {"tempfailOverDiscard", 12, "1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later.\n"},
    {"discard", 8, "-1 250 2.7.1 Discarded by Vorex Quelt!\n"},
    {"passWithHeadersChanged", 0x201, "0 250 2.6.0 Okey. Go ahead!\n"},
    {"noLowBit16", 16, "-1 550 5.7.1 Unknown action code 16 in Vorex Quelt!\n"},
    {"highBitIsNegativeCode", 0x80000000u,
     "-1 550 5.7.1 Unknown action code -2147483648 in Vorex Quelt!\n"},
};

TEST(ReplyLines, VerdictFlagsChooseTheReplyInBitOrder)
{
    for (const VerdictRow& row : verdictRows) {
        StdoutCapture capture;
        WriteVerdictReply(row.flags);
        EXPECT_EQ(capture.Take(), row.expected) << row.name;
    }
}

TEST(ReplyLines, VerdictReplyCarriesTheNote)
{
    StdoutCapture capture;
    WriteVerdictReply(0x201, "clean");
    EXPECT_EQ(capture.Take(), "0 250 2.6.0 Okey. Go ahead! clean\n");
}

TEST(HungryMarker, WrittenOnlyFromInterfaceOne)
{
    const struct {
        int32_t interface;
        const char* expected;
    } rows[] = {{0, ""}, {1, "#hungry\n"}};
    for (const auto& row : rows) {
        StdoutCapture capture;
        WriteHungry(row.interface);
        EXPECT_EQ(capture.Take(), row.expected) << "interface " << row.interface;
    }
}

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
