// tests/spool/MailTest.cpp: the address form of the record from envelope and
// header text, the envelope file for the daemon, the log line. The To items
// are the header scanner's fallback rows.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "platform/receiver/Mail.h"
#include "platform/receiver/RfUtils.h"
#include "support/SpoolStream.h"

namespace
{

TEST(AddressForm, EnvelopeAndFromTextBecomeOneBareAddressInBrackets)
{
    const struct {
        std::string text;
        const char* address;
    } rows[] = {
        {"<jane@example.org>\n", "<jane@example.org>"},
        {" \t jane@example.org \r\n", "<jane@example.org>"},
        {"(a (b) c) jane@example.org", "<jane@example.org>"},
        {"\"Doe, Jane\" <jane@x>", "<jane@x>"},
        {"\"a <b@c>\" <d@e>", "<d@e>"},
        {"<\"odd user\"@spam.example>\n", "<\"odd user\"@spam.example>"},
        {"<user@[IPv6:2001:db8::1]>", "<user@[IPv6:2001:db8::1]>"},
        {"<@a.example,@b.example:jane@x>", "<jane@x>"},
        {"Jane <jane@x", "<jane@x>"},
        {"a@x, b@y", "<a@x>"},
        {"", "<>"},
        {"<>\n", "<>"},
        // Text that would read as several addresses stays one, quoted.
        {"undisclosed-recipients:;", "<\"undisclosed-recipients:;\">"},
        {"<", "<\"<\">"},
        {"x\"y@x.example\n", "<x\"y@x.example>"},
        {"<a@[1.2.3.4>\n", "<a@[1.2.3.4>"},
        {"\"Doe <a@x.example>", "<a@x.example>"},
        {"(a@x.example", "<(a@x.example>"},
        {"a@b@c", "<\"a@b@c\">"},
        {Literal("\xff\0\x80 <a@b> \x01"), "<a@b>"},
    };
    for (const auto& row : rows) {
        std::string envelope = row.text, from = row.text;
        RfUtils::MakeAddress(envelope);
        Mail::AddRushechkiToAddress(from);
        EXPECT_EQ(envelope, row.address) << row.text;
        EXPECT_EQ(from, row.address) << row.text;
    }
}

// The file holds the sender, then each recipient; its mode is 0666 less the
// umask. It is never made where one is, nor left behind after a failure.
TEST(EnvelopeFile, HoldsSenderThenEachRecipientOrNothing)
{
    TempDir dir;
    const mode_t oldMask = ::umask(027);
    Mail mail;
    mail.sender = "<>";
    mail.recipients = {"<b@y>", "<c@z>"};
    const std::string bytes = "from <>\nto <b@y>\nto <c@z>\n";
    EXPECT_TRUE(mail.SaveEnvelope(dir.Path()));
    (void)::umask(oldMask);
    EXPECT_EQ(ReadFile(dir / ".envelope"), bytes);
    EXPECT_EQ(ModeOf(dir / ".envelope"), 0640u);
    EXPECT_FALSE(mail.SaveEnvelope(dir.Path()));
    EXPECT_EQ(ReadFile(dir / ".envelope"), bytes);
    EXPECT_FALSE(mail.SaveEnvelope(dir.Path() / "missing"));
    EXPECT_FALSE(boost::filesystem::exists(dir.Path() / "missing"));

    LogCapture log;
    mail.LogMail();
    EXPECT_EQ(log.Text(), "INFO null - from <> to <b@y>, <c@z>\n");
}

} // namespace
