// tests/spool/MailTest.cpp: the address form of the record from envelope and
// header text, the envelope file for the daemon, the log line.
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
        const char* name;
        std::string text;
        std::string address;
    } rows[] = {
        {"angle", "<jane@example.org>\n", "<jane@example.org>"},
        {"bare", "jane@example.org\n", "<jane@example.org>"},
        {"blanksAndCrLf", " \t jane@example.org \r\n", "<jane@example.org>"},
        {"nestedComment", "(a (b) c) jane@example.org", "<jane@example.org>"},
        {"commaInDisplayName", "\"Doe, Jane\" <jane@x>", "<jane@x>"},
        {"angleInDisplayName", "\"a <b@c>\" <d@e>", "<d@e>"},
        {"quotedLocalPart", "<\"odd user\"@spam.example>\n", "<\"odd user\"@spam.example>"},
        {"domainLiteral", "<user@[IPv6:2001:db8::1]>", "<user@[IPv6:2001:db8::1]>"},
        {"sourceRoute", "<@a.example,@b.example:jane@x>", "<jane@x>"},
        {"unclosedAngle", "Jane <jane@x", "<jane@x>"},
        {"firstOfAList", "a@x, b@y", "<a@x>"},
        {"empty", "", "<>"},
        {"nullSender", "<>\n", "<>"},
        {"group", "undisclosed-recipients:;", "<>"},
        {"binaryAroundAngle", Literal("\xff\0\x80 <a@b> \x01"), "<a@b>"},
    };
    for (const auto& row : rows) {
        std::string envelope = row.text;
        RfUtils::MakeAddress(envelope);
        EXPECT_EQ(envelope, row.address) << row.name;
        std::string from = row.text;
        Mail::AddRushechkiToAddress(from);
        EXPECT_EQ(from, row.address) << row.name;
    }
}

TEST(AddressForm, ToItemsBecomeRecipientsAndEmptyOnesAreSkipped)
{
    using Items = std::vector<std::string>;
    const struct {
        const char* name;
        Items items;
        Items recipients;
    } rows[] = {
        {"two", {"a@x", "b@y"}, {"<a@x>", "<b@y>"}},
        {"emptyItems", {"", "a@x", "", "", "b@y", ""}, {"<a@x>", "<b@y>"}},
        {"quotedCommaSplitApart", {"\"Doe", "Jane\" <jane@x>", "b@y"}, {"<jane@x>", "<b@y>"}},
        {"group", {"undisclosed-recipients:;"}, {}},
        {"groupWithMembers", {"team: a@x", "b@y;"}, {"<a@x>", "<b@y>"}},
        {"none", {}, {}},
    };
    for (const auto& row : rows) {
        Mail mail;
        mail.recipients = {"<earlier@x>"};
        mail.SetToField(row.items);
        EXPECT_EQ(mail.recipients, row.recipients) << row.name;
    }
}

class EnvelopeFile : public ::testing::Test
{
protected:
    void SetUp() override { oldMask = ::umask(002); }
    void TearDown() override { (void)::umask(oldMask); }
    mode_t oldMask = 0;
    TempDir dir;
};

TEST_F(EnvelopeFile, HoldsSenderThenEachRecipientWithModeLessUmask)
{
    const struct {
        const char* name;
        mode_t mask;
        std::string sender;
        std::vector<std::string> recipients;
        std::string bytes;
        mode_t mode;
    } rows[] = {
        {"two", 002, "<a@x>", {"<b@y>", "<c@z>"}, "from <a@x>\nto <b@y>\nto <c@z>\n", 0660},
        {"nullSenderNoRecipient", 027, "<>", {}, "from <>\n", 0640},
    };
    for (const auto& row : rows) {
        (void)::umask(row.mask);
        const boost::filesystem::path entry = dir.Path() / row.name;
        boost::filesystem::create_directory(entry);
        Mail mail;
        mail.sender = row.sender;
        mail.recipients = row.recipients;
        ASSERT_TRUE(mail.SaveEnvelope(entry)) << row.name;
        EXPECT_EQ(ReadFile((entry / ".envelope").string()), row.bytes) << row.name;
        EXPECT_EQ(ModeOf((entry / ".envelope").string()), row.mode) << row.name;
    }
}

TEST_F(EnvelopeFile, FailsWithoutLeavingOrTouchingAFile)
{
    Mail mail;
    mail.sender = "<a@x>";
    mail.recipients = {"<b@y>"};
    EXPECT_FALSE(mail.SaveEnvelope(dir.Path() / "missing"));
    EXPECT_FALSE(boost::filesystem::exists(dir.Path() / "missing"));

    // A file already there is not ours: neither overwritten nor removed.
    WriteFile(dir / ".envelope", "theirs\n");
    EXPECT_FALSE(mail.SaveEnvelope(dir.Path()));
    EXPECT_EQ(ReadFile(dir / ".envelope"), "theirs\n");
}

TEST(MailLog, OneInfoLineWithSenderAndAllRecipients)
{
    Mail mail;
    mail.sender = "<a@x>";
    mail.recipients = {"<b@y>", "<c@z>"};
    LogCapture log;
    mail.LogMail();
    EXPECT_EQ(log.Text(), "INFO null - from <a@x> to <b@y>, <c@z>\n");
}

} // namespace
