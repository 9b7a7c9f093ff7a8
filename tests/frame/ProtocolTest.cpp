// Reply lines byte for byte as ZMailer reads them from descriptor 1. The
// plain verdicts, the driver's own replies and the readiness marker are the
// end-to-end tests'; here the bit order, the codes and a failed write.
#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "frame/Protocol.h"
#include "platform/receiver/Descriptor.h"

namespace
{

// Descriptor 1 pointed at fd while write runs; what write throws, or "".
template <class Write> std::string OnStdout(int fd, Write write)
{
    const int saved = ::dup(1);
    (void)::dup2(fd, 1);
    std::string failure;
    try {
        write();
    } catch (const std::exception& e) {
        failure = e.what();
    }
    (void)::dup2(saved, 1);
    (void)::close(saved);
    return failure;
}

// The four low bits are tested pass, reject, tempfail, discard; the first set
// one wins, and without any of them the whole value is the action code.
TEST(ReplyLines, VerdictFlagsChooseTheReplyInBitOrder)
{
    const std::string pass = "0 250 2.6.0 Okey. Go ahead!",
                      unknown = "-1 550 5.7.1 Unknown action code ";
    const struct {
        VerdictFlags flags;
        const char* note;
        std::string expected;
    } rows[] = {
        {3, nullptr, pass + "\n"},
        {6, nullptr, "-1 550 5.7.1 Rejected by Vorex Quelt!\n"},
        {12, "", "1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later.\n"},
        {0x201, "clean", pass + " clean\n"},
        {16, nullptr, unknown + "16 in Vorex Quelt!\n"},
        {64, "x", unknown + "64 in Vorex Quelt! x\n"},
        {0x80000000u, nullptr, unknown + "-2147483648 in Vorex Quelt!\n"},
    };
    for (const auto& row : rows) {
        int fds[2];
        ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
        Descriptor readEnd(fds[0]), writeEnd(fds[1]);
        EXPECT_EQ(OnStdout(fds[1], [&] { WriteVerdictReply(row.flags, row.note); }), "");
        ASSERT_EQ(writeEnd.Close(), 0);
        char bytes[200];
        const ssize_t n = ::read(fds[0], bytes, sizeof bytes);
        EXPECT_EQ(std::string(bytes, n > 0 ? n : 0), row.expected) << row.flags;
    }
}

// On an output it cannot write the marker throws; a reply is lost silently.
TEST(HungryMarker, FailedWriteThrows)
{
    Descriptor readOnly(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(OnStdout(readOnly.Get(), [] { WriteHungry(1); }), "error in hungry write");
    EXPECT_EQ(OnStdout(readOnly.Get(), [] { WriteReply(1, "Internal error"); }), "");
}

} // namespace
