// tests/spool/SpoolReadersTest.cpp: the envelope reader (keywords, their
// order and case, the ends of an envelope, lines longer than the buffer); the
// header scanner's secure-hash gate row by row with the whole file after it
// (a hash line cut out of a body larger than the copy block too) and its log
// lines, and its From/To fallback, whose recipients never merge or vanish.
#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "spool/HeaderScanner.h"
#include "support/SpoolStream.h"

namespace
{

// outcome: "pass", "daemon" or the failure's text; bytes: the whole spool
// file after the scan.
struct ScanResult {
    std::string outcome, addresses, bytes, log;
};

// The job's steps up to the gate, with hash configured: the envelope, the scan.
ScanResult Scan(const std::string& hash, const std::string& bytes)
{
    filterSettings.hash = hash;
    SpoolStream spool(bytes);
    LogCapture log;
    EnvelopeRead read(spool.Get());
    std::string outcome;
    try {
        const bool pass =
            ScanHeaders(spool.Get(), spool.path.c_str(), read.mail, read.sender, read.recipient);
        outcome = pass ? "pass" : "daemon";
    } catch (const std::exception& e) {
        outcome = e.what();
    }
    filterSettings.hash.clear();
    return {outcome, Addresses(read.mail), spool.Bytes(), log.Text()};
}

TEST(EnvelopeReader, KeywordsAndEndsInFileOrder)
{
    // Lines longer than the buffer arrive in chunks of 8191 bytes, each
    // judged as a line of its own: the second chunk of the comment is a
    // "to " line; a "to " line too long for one chunk gives its first only.
    const std::string comment = "comment " + std::string(8191 - 8, 'a') + "to <late@example.org>\n";
    const std::string c(9000, 'c');
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
        {comment + "to <" + c + ">\nenv-end\n", "",
         " to <late@example.org> <" + c.substr(0, 8187) + ">"},
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

const std::string complete = "from <a@x>\nto <b@y>\nenv-end\n";
const std::string noRecipient = "from <a@x>\nenv-end\n";

// Rows with a cut pass, and only they; an alert names the value it logs.
TEST(HeaderScanner, GateDecidesAndCutsOnlyTheMatchingLine)
{
    const std::string big = Pattern((1 << 20) + 333, 3), key(25, 'h'), H = "X-Vorex-Hash:";
    const struct {
        std::string hash, envelope, message;
        std::string cut;   // the line cut out; "": the file stays as it was
        const char* alert; // nullptr: no alert
    } rows[] = {
        {"k", noRecipient, H + " k\n\nbody\n", H + " k\n", nullptr},
        {"", noRecipient, H + " \n\nbody\n", H + " \n", nullptr},
        {"", noRecipient, H + "\nTo: c@z\n\n", H + "\n", nullptr},
        {"k", complete, H + " K\n\n", "", "K"},
        {"k", complete, "x-vorex-hash: k\n\n", "", nullptr},
        {"s3cret", complete, H + "s3cret\n\n", "", "3cret"},
        {"k", complete, "Subject: s\n\n" + H + " k\n", "", nullptr},
        {"s3cret", complete, H + " s3cret", "", "s3cre"},
        {"k", complete, H + " g\n" + H + " k\n" + H + " k\n\n", H + " k\n", "g"},
        {"s3cret", complete, H + " s3cret2\n\n", "", "s3cret2"},
        {"s3cret", complete, H + " s3cre\n\n", "", "s3cre"},
        {"s3cre\x65", complete, H + " s3cre\xe5\n\n", "", "s3cre?"},
        {"", complete, H + " s3cret\n\n", "", "s3cret"},
        {key, complete, "Subject: s\n" + H + " " + key + "\nTo: c@z\n\n" + big,
         H + " " + key + "\n", nullptr},
        {"k", complete, Literal("X-Vorex-Hash: kX\0junk\nTo: c@z\n\n"),
         Literal("X-Vorex-Hash: kX\0junk\n"), nullptr},
    };
    for (const auto& row : rows) {
        const std::string before = row.envelope + row.message;
        const ScanResult result = Scan(row.hash, before);
        SCOPED_TRACE(before.substr(0, 80));
        EXPECT_EQ(result.outcome, row.cut.empty() ? "daemon" : "pass");
        std::string after = before;
        if (!row.cut.empty())
            after.erase(after.find(row.cut), row.cut.size());
        EXPECT_TRUE(result.bytes == after);
        EXPECT_EQ(result.log.find("INFO null - Find hash header: pass msg without check!\n") !=
                      std::string::npos,
                  !row.cut.empty());
        const std::string alert = "WARN null - ALERT: someone tries pass message with incorrect "
                                  "hash:'X-Vorex-Hash': '";
        if (row.alert == nullptr)
            EXPECT_EQ(result.log.find("ALERT"), std::string::npos);
        else
            EXPECT_NE(result.log.find(alert + row.alert + "'\n"), std::string::npos) << result.log;
    }
    // The scan logs each header it reads and each line it cannot.
    const ScanResult result = Scan("k", complete + "Subject: hi\ngarbage\nX:\n\nbody\n");
    EXPECT_NE(result.log.find("DEBUG null - Start seach secure header...\n"
                              "DEBUG null - Parse header: 'Subject': 'hi'\n"
                              "WARN null - Unrecognize header: 'garbage\n'\n"
                              "DEBUG null - Parse header: 'X': ''\n"),
              std::string::npos)
        << result.log;
}

TEST(HeaderScanner, FallbackTakesFirstFromAndFirstToWithItsFolds)
{
    const std::string toOnly = "to <b@y>\nenv-end\n";
    const struct {
        std::string envelope, headers, addresses;
    } rows[] = {
        {noRecipient, "To: b@y,\n  c@z, d@w\n\te@v\nSubject: s\n\n",
         "<a@x> to <b@y> <c@z> <d@w> <e@v>"},
        {noRecipient, "To: b@y\ntO: c@z\n\n", "<a@x> to <b@y>"},
        {noRecipient, "To: undisclosed-recipients:;\n\n", "<a@x> to"},
        {noRecipient, "To: ,b@y,,, \"Doe, Jane\" <jane@x>, team: c@z, d@w;\n\n",
         "<a@x> to <b@y> <jane@x> <c@z> <d@w>"},
        {toOnly, "From: Jane\n <jane@x>\nFrom: k@z\n\n", "<Jane> to <b@y>"},
        {toOnly, "fROM:  \"J\" <j@x> \t\n\n", "<j@x> to <b@y>"},
        {"channel error\nenv-end\n", "From: a@x\nTo: b@y\n\n", "<> to <b@y>"},
        {toOnly, "To: c@z\n\n", "<> to <b@y>"},
        {noRecipient, "Subject: s\nTo: b@y,\n c@z\n", "<a@x> to <b@y> <c@z>"},
        {noRecipient, "To: b@y\ngarbage\n c@z\n\n", "<a@x> to <b@y>"},
        {noRecipient, "Subject: " + std::string(9000, 'x') + "\nTo: b@y\n\n", "<a@x> to <b@y>"},
        {noRecipient, "Subject: s\n\nTo: c@z\n", "can not find rcpt(s) in envelope and msg"},
        // A quote, comment or angle bracket never closed is an ordinary byte
        // of its item and takes no other item with it; ';' and blanks separate
        // too; every recipient is one address.
        {noRecipient, "To: x\"y@x.example, bob@example.net, carol@example.net\n\n",
         "<a@x> to <x\"y@x.example> <bob@example.net> <carol@example.net>"},
        {noRecipient, "To: (note a@x.example, bob@example.net,\n carol@example.net\n\n",
         "<a@x> to <a@x.example> <bob@example.net> <carol@example.net>"},
        {noRecipient, "To: <bob@example.net, carol@example.net, \"Doe, J\" <j@x>\n\n",
         "<a@x> to <bob@example.net> <carol@example.net> <j@x>"},
        {noRecipient, "To: bob@example.net;carol@example.net\n\n",
         "<a@x> to <bob@example.net> <carol@example.net>"},
        {noRecipient, "To: bob@example.net carol@example.net undisclosed-recipients:;\n\n",
         "<a@x> to <bob@example.net> <carol@example.net>"},
        {noRecipient, "To: bob@example.net, undisclosed-recipients:;, <carol@example.net>\n\n",
         "<a@x> to <bob@example.net> <carol@example.net>"},
        {noRecipient, "To: <<x>>, x>, <a@b, c@d>, jane @ example.org\n\n",
         "<a@x> to <x> <x> <a@b> <c@d> <jane@example.org>"},
    };
    for (const auto& row : rows) {
        const std::string before = row.envelope + row.headers + "body\n";
        const ScanResult result = Scan("", before);
        SCOPED_TRACE(before.substr(0, 80));
        EXPECT_EQ(result.outcome == "daemon" ? result.addresses : result.outcome, row.addresses);
        EXPECT_EQ(result.bytes, before);
    }
}

// A stray quote, comment or bracket stays in its own item, a source route
// stays with its address, and a malformed sender or envelope recipient keeps
// its text: only a bounce or a missing sender is "<>".
TEST(HeaderScanner, StrayOpenersStayInTheirItemAndMalformedSendersKeepTheirText)
{
    const std::string toOnly = "to <b@y>\nenv-end\n";
    const struct {
        std::string envelope, headers, addresses;
    } rows[] = {
        {noRecipient, "To: x\"y@x.example, a@x.example, \"Doe, John\" <b@y.example>\n\n",
         "<a@x> to <x\"y@x.example> <a@x.example> <b@y.example>"},
        {noRecipient, "To: \"Doe <a@x.example>, \"Roe, Jim\" <b@y.example>\n\n",
         "<a@x> to <a@x.example> <b@y.example>"},
        {noRecipient, "To: \"Doe <a@x.example>, b@y.example\n\n",
         "<a@x> to <a@x.example> <b@y.example>"},
        {noRecipient, "To: b@y.example, \"Roe <c@z.example>\n\n",
         "<a@x> to <b@y.example> <c@z.example>"},
        {noRecipient, "To: team: \"Doe <a@x.example>, b@y.example;, c@z.example\n\n",
         "<a@x> to <a@x.example> <b@y.example> <c@z.example>"},
        {noRecipient, "To: <a@x.example, <@route.example:b@y.example>\n\n",
         "<a@x> to <a@x.example> <b@y.example>"},
        {noRecipient, "To: <a@x.example, <@r1.example,@r2.example:b@y.example>, c@z.example\n\n",
         "<a@x> to <a@x.example> <b@y.example> <c@z.example>"},
        {"from x\"y@x.example\n" + toOnly, "", "<x\"y@x.example> to <b@y>"},
        {"from <a@[1.2.3.4>\nto x\"y@x.example\nenv-end\n", "", "<a@[1.2.3.4> to <x\"y@x.example>"},
        {toOnly, "From: \"Doe <a@x.example>\n\n", "<a@x.example> to <b@y>"},
        {toOnly, "From: a@b@c.example\n\n", "<\"a@b@c.example\"> to <b@y>"},
    };
    for (const auto& row : rows) {
        const std::string before = row.envelope + row.headers + "body\n";
        const ScanResult result = Scan("k", before);
        SCOPED_TRACE(before.substr(0, 80));
        EXPECT_EQ(result.outcome == "daemon" ? result.addresses : result.outcome, row.addresses);
    }
}

} // namespace
