// tests/spool/EnvelopeReaderTest.cpp: keywords, their order and case, the
// ends of an envelope, lines longer than the buffer, and the ZMailer sample
// files of tests/data read through envelope and headers.
#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "spool/HeaderScanner.h"
#include "support/SpoolStream.h"

namespace
{

using Strings = std::vector<std::string>;

TEST(EnvelopeReader, KeywordsAndEndsInFileOrder)
{
    const struct {
        const char* name;
        std::string envelope; // the returned size is its length
        std::string rest;
        std::string addresses;
    } rows[] = {
        {"keywordsInFileOrder",
         "external\nfrom <a@x>\ntodsn NOTIFY=NEVER\nto <b@y>\nto <c@z>\nto <b@y>\nenv-end\n",
         "From: h@x\n\nbody\n", "<a@x> to <b@y> <c@z> <b@y>"},
        {"envEof", "to <b@y>\nenv-eof\n", "from <late@x>\n", " to <b@y>"},
        {"envEndWithMoreLetters", "to <b@y>\nenv-endless\n", "to <c@z>\n", " to <b@y>"},
        {"crLfEmptyLine", "to <b@y>\r\n\r\n", "to <c@z>\r\n", " to <b@y>"},
        {"lastLineWithoutNewline", "from <a@x>\nto <b@y>", "", "<a@x> to <b@y>"},
        {"emptyFile", "", "", " to"},
        {"channelErrorThenFrom", "channel error\nfrom <a@x>\nto <b@y>\nenv-end\n", "",
         "<a@x> to <b@y>"},
        {"fromThenChannelError", "from <a@x>\nchannel errors\nenv-end\n", "", "<> to"},
        {"otherCaseOrTabIsNoKeyword", "From <a@x>\nTO <c@z>\nto\t<b@y>\nChannel error\nENV-END\n\n",
         "", " to"},
        {"nulAndBinaryLines", Literal("\0from <x@y>\n\xff\xfeto <z@w>\nto <b@y>\nenv-end\n"), "",
         " to <b@y>"},
    };
    for (const auto& row : rows) {
        SpoolStream spool(row.envelope + row.rest);
        ASSERT_NE(spool.Get(), nullptr);
        const EnvelopeRead read(spool.Get());
        EXPECT_EQ(read.size, static_cast<int64_t>(row.envelope.size())) << row.name;
        EXPECT_EQ(std::ftell(spool.Get()), static_cast<long>(row.envelope.size())) << row.name;
        EXPECT_EQ(Addresses(read.mail), row.addresses) << row.name;
        EXPECT_EQ(read.senderFound, !read.mail.sender.empty()) << row.name;
        EXPECT_EQ(read.recipientFound, !read.mail.recipients.empty()) << row.name;
    }
}

TEST(EnvelopeReader, LongLinesArriveInChunksJudgedAsLinesOfTheirOwn)
{
    // 10,000 bytes: a chunk of 8191 and one of 1809 that begins with "to ".
    const std::string tail = "to <late@example.org>" + std::string(1809 - 22, 'b') + "\n";
    const std::string split = "comment " + std::string(8191 - 8, 'a') + tail;
    ASSERT_EQ(split.size(), 10000u);
    // A "to " line too long for one chunk gives its first chunk only.
    const std::string longTo = "to <" + std::string(9000, 'c') + ">\n";
    SpoolStream spool(split + longTo + "env-end\n");
    ASSERT_NE(spool.Get(), nullptr);
    LogCapture log;
    const EnvelopeRead read(spool.Get());

    EXPECT_EQ(read.mail.recipients,
              Strings({"<late@example.org>", "<" + std::string(8187, 'c') + ">"}));
    const Strings lines = log.Lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], "DEBUG null - Read: '" + split.substr(0, 8191) + "'");
    EXPECT_EQ(lines[1], "DEBUG null - Read: '" + tail + "'");
    EXPECT_EQ(lines[4], "DEBUG null - Read: 'env-end\n'");
}

TEST(SharedSamples, EnvelopeAndHeadersReadAsZMailerWroteThem)
{
    const std::string samples = ZMAILER_SAMPLES_DIR;
    const struct {
        const char* file;
        std::string addresses; // after both readers
        bool senderInEnvelope;
    } rows[] = {
        {"01-basic-esmtp.spool", "<newsletter@sender.example> to <john.doe@corp.example>", true},
        {"02-null-sender-bounce-dsn.spool", "<> to <bob@corp.example> <carol@corp.example>", true},
        {"03-auth-8bit-multi-rcpt-attachment.spool",
         "<alice@corp.example> to <partner@other.example> <team+sales@corp.example>", true},
        {"04-plain-smtp-quoted-sender-policy-comments.spool",
         "<\"odd user\"@spam.example> to <postmaster@corp.example>", true},
        {"05-router-generated-error.spool", "<> to <postmaster>", true},
        {"06-minimal-env-eof.spool", "<local@corp.example> to <someone@corp.example>", false},
    };
    filterSettings.hash = "no-sample-has-it"; // the header scanner runs for every sample
    for (const auto& row : rows) {
        const std::string bytes = ReadFile(samples + "/" + row.file);
        ASSERT_FALSE(bytes.empty()) << row.file;
        std::size_t end = bytes.find("env-end\n");
        if (end == std::string::npos)
            end = bytes.find("env-eof\n");
        SpoolStream spool(bytes);
        EnvelopeRead read(spool.Get());
        EXPECT_EQ(read.size, static_cast<int64_t>(end + 8)) << row.file;
        EXPECT_EQ(read.senderFound, row.senderInEnvelope) << row.file;
        EXPECT_FALSE(ScanHeaders(spool.Get(), spool.path.c_str(), read.mail, read.senderFound,
                                 read.recipientFound))
            << row.file;
        EXPECT_EQ(Addresses(read.mail), row.addresses) << row.file;
        EXPECT_EQ(spool.Bytes(), bytes) << row.file;
    }
    filterSettings.hash.clear();
}

} // namespace
