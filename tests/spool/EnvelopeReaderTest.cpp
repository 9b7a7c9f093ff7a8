// tests/spool/EnvelopeReaderTest.cpp: keywords, their order and case, the
// ends of an envelope, lines longer than the buffer.
#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "support/SpoolStream.h"

namespace
{

TEST(EnvelopeReader, KeywordsAndEndsInFileOrder)
{
    const struct {
        std::string envelope, rest, addresses; // the returned size is the envelope's length
    } rows[] = {
        {"external\nfrom <a@x>\ntodsn NOTIFY=NEVER\nto <b@y>\nto <c@z>\nto <b@y>\nenv-end\n",
         "From: h@x\n\nbody\n", "<a@x> to <b@y> <c@z> <b@y>"},
        {"to <b@y>\nenv-eof\n", "from <late@x>\n", " to <b@y>"},
        {"to <b@y>\nenv-endless\n", "to <c@z>\n", " to <b@y>"},
        {"to <b@y>\r\n\r\n", "to <c@z>\r\n", " to <b@y>"},
        {"from <a@x>\nto <b@y>", "", "<a@x> to <b@y>"},
        {"", "", " to"},
        {"channel error\nfrom <a@x>\nto <b@y>\nenv-end\n", "", "<a@x> to <b@y>"},
        {"from <a@x>\nchannel errors\nenv-end\n", "", "<> to"},
        {"From <a@x>\nTO <c@z>\nto\t<b@y>\nChannel error\nENV-END\n\n", "", " to"},
        {Literal("\0from <x@y>\n\xff\xfeto <z@w>\nto <b@y>\nenv-end\n"), "", " to <b@y>"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.envelope);
        SpoolStream spool(row.envelope + row.rest);
        const EnvelopeRead read(spool.Get());
        EXPECT_EQ(read.size, static_cast<int64_t>(row.envelope.size()));
        EXPECT_EQ(std::ftell(spool.Get()), static_cast<long>(row.envelope.size()));
        EXPECT_EQ(Addresses(read.mail), row.addresses);
        EXPECT_EQ(read.sender, !read.mail.sender.empty());
        EXPECT_EQ(read.recipient, !read.mail.recipients.empty());
    }
}

TEST(EnvelopeReader, LongLinesArriveInChunksJudgedAsLinesOfTheirOwn)
{
    // 10,000 bytes: a chunk of 8191 and one of 1809 that begins with "to ".
    const std::string tail = "to <late@example.org>" + std::string(1809 - 22, 'b') + "\n";
    const std::string split = "comment " + std::string(8191 - 8, 'a') + tail;
    // A "to " line too long for one chunk gives its first chunk only.
    SpoolStream spool(split + "to <" + std::string(9000, 'c') + ">\nenv-end\n");
    LogCapture log;
    const EnvelopeRead read(spool.Get());
    EXPECT_EQ(Addresses(read.mail), " to <late@example.org> <" + std::string(8187, 'c') + ">");
    const std::vector<std::string> lines = log.Lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], "DEBUG null - Read: '" + split.substr(0, 8191) + "'");
    EXPECT_EQ(lines[1], "DEBUG null - Read: '" + tail + "'");
    EXPECT_EQ(lines[4], "DEBUG null - Read: 'env-end\n'");
}

} // namespace
