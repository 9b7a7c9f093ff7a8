// Reply lines byte for byte as ZMailer reads them from descriptor 1. The
// plain verdicts, the driver's own replies and the readiness marker are the
// end-to-end tests'; here the bit order, the codes and a broken output.
#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "frame/Protocol.h"

namespace
{

// Descriptor 1 into a pipe while write runs; the bytes written, or with
// closeReader the write's failure text ("" without one).
template <class Write> std::string Stdout(Write write, bool closeReader = false)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return "pipe failed";
    const int saved = ::dup(1);
    (void)::dup2(fds[1], 1);
    (void)::close(fds[1]);
    if (closeReader)
        (void)::close(fds[0]);
    std::string bytes;
    try {
        write();
    } catch (const std::exception& e) {
        bytes = e.what();
    }
    (void)::dup2(saved, 1);
    (void)::close(saved);
    char block[4096];
    for (ssize_t n; !closeReader && (n = ::read(fds[0], block, sizeof block)) > 0;)
        bytes.append(block, static_cast<std::size_t>(n));
    if (!closeReader)
        (void)::close(fds[0]);
    return bytes;
}

// The four low bits are tested pass, reject, tempfail, discard; the first set
// one wins, and without any of them the whole value is the action code.
TEST(ReplyLines, VerdictFlagsChooseTheReplyInBitOrder)
{
    const std::string pass = "0 250 2.6.0 Okey. Go ahead!",
                      reject = "-1 550 5.7.1 Rejected by Vorex Quelt!",
                      tempfail = "1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later.";
    const struct {
        VerdictFlags flags;
        const char* note;
        std::string expected;
    } rows[] = {
        {3, nullptr, pass + "\n"},
        {6, nullptr, reject + "\n"},
        {12, "", tempfail + "\n"},
        {0x201, "clean", pass + " clean\n"},
        {16, nullptr, "-1 550 5.7.1 Unknown action code 16 in Vorex Quelt!\n"},
        {64, "x", "-1 550 5.7.1 Unknown action code 64 in Vorex Quelt! x\n"},
        {0x80000000u, nullptr, "-1 550 5.7.1 Unknown action code -2147483648 in Vorex Quelt!\n"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Stdout([&] { WriteVerdictReply(row.flags, row.note); }), row.expected)
            << row.flags;
}

// A closed reader makes writes fail with EPIPE instead of a signal: the
// marker throws, a reply is lost without an exception.
TEST(HungryMarker, FailedWriteThrows)
{
    struct sigaction ignore = {}, old = {};
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(sigaction(SIGPIPE, &ignore, &old), 0);
    EXPECT_EQ(Stdout([] { WriteHungry(1); }, true), "error in hungry write");
    EXPECT_EQ(Stdout([] { WriteReply(1, "Internal error"); }, true), "");
    sigaction(SIGPIPE, &old, nullptr);
}

} // namespace
