// tests/spool/HeaderScannerTest.cpp: the secure-hash gate row by row with the
// whole file after it (a hash line cut out of a body larger
// than the copy block too), the From/To fallback, the scanner's log lines.
#include <unistd.h>

#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "spool/HeaderScanner.h"
#include "support/SpoolStream.h"

namespace
{

enum class Outcome { ToDaemon, Pass, Fails };

struct ScanResult {
    Outcome outcome = Outcome::Fails;
    std::string failure;
    std::string addresses;
    std::string bytes; // the whole spool file after the scan
    std::string log;
};

// The job's steps up to the gate: the envelope, then the scan.
ScanResult Scan(const std::string& bytes)
{
    ScanResult result;
    SpoolStream spool(bytes);
    if (spool.Get() == nullptr)
        throw std::runtime_error("cannot open " + spool.path);
    LogCapture log;
    EnvelopeRead read(spool.Get());
    try {
        result.outcome = ScanHeaders(spool.Get(), spool.path.c_str(), read.mail, read.senderFound,
                                     read.recipientFound)
                             ? Outcome::Pass
                             : Outcome::ToDaemon;
    } catch (const std::exception& e) {
        result.failure = e.what();
    }
    result.addresses = Addresses(read.mail);
    result.bytes = spool.Bytes();
    result.log = log.Text();
    return result;
}

class HeaderScanner : public ::testing::Test
{
protected:
    void TearDown() override { filterSettings.hash = savedHash; }
    const std::string savedHash = filterSettings.hash;
};

const std::string complete = "from <a@x>\nto <b@y>\nenv-end\n";
const std::string noRecipient = "from <a@x>\nenv-end\n";

TEST_F(HeaderScanner, GateDecidesAndCutsOnlyTheMatchingLine)
{
    const std::string big = Pattern((1 << 20) + 333, 3), longHash(25, 'h');
    const struct {
        const char* name;
        const char* hash;
        std::string envelope;
        std::string message;
        Outcome outcome;
        std::string removedLine; // for Pass: the line cut out; otherwise nothing changes
        const char* alertValue;  // nullptr: no alert
    } rows[] = {
        {"noHashFallbackGoesToDaemon", "", noRecipient, "To: c@z\n\nbody\n", Outcome::ToDaemon, "",
         nullptr},
        {"noHashNoRecipientFails", "", noRecipient, "Subject: s\n\nTo: c@z\n", Outcome::Fails, "",
         nullptr},
        {"hashWithoutHeaderGoesToDaemon", "s3cret", complete,
         "Subject: s\n\nX-Vorex-Hash: s3cret\n", Outcome::ToDaemon, "", nullptr},
        {"hashMatches", "s3cret", complete, "Subject: s\nX-Vorex-Hash: s3cret\nTo: c@z\n\nbody\n",
         Outcome::Pass, "X-Vorex-Hash: s3cret\n", nullptr},
        {"hashMatchesWithIncompleteEnvelope", "s3cret", noRecipient,
         "X-Vorex-Hash: s3cret\n\nbody\n", Outcome::Pass, "X-Vorex-Hash: s3cret\n", nullptr},
        {"emptyValueMatchesNoHash", "", noRecipient, "X-Vorex-Hash: \n\nbody\n", Outcome::Pass,
         "X-Vorex-Hash: \n", nullptr},
        {"bareColonMatchesNoHash", "", noRecipient, "X-Vorex-Hash:\nTo: c@z\n\n", Outcome::Pass,
         "X-Vorex-Hash:\n", nullptr},
        {"otherByte", "s3cret", complete, "X-Vorex-Hash: s3creT\n\n", Outcome::ToDaemon, "",
         "s3creT"},
        {"lowerCaseNameIsOrdinary", "s3cret", complete, "x-vorex-hash: s3cret\n\n",
         Outcome::ToDaemon, "", nullptr},
        {"noBlankAfterColonLosesAByte", "s3cret", complete, "X-Vorex-Hash:s3cret\n\n",
         Outcome::ToDaemon, "", "3cret"},
        {"lastLineWithoutNewlineLosesAByte", "s3cret", complete, "X-Vorex-Hash: s3cret",
         Outcome::ToDaemon, "", "s3cre"},
        {"wrongThenRightCutsOnlyTheFirstRight", "s3cret", complete,
         "X-Vorex-Hash: guess\nX-Vorex-Hash: s3cret\nX-Vorex-Hash: s3cret\n\n", Outcome::Pass,
         "X-Vorex-Hash: s3cret\n", "guess"},
        {"hashIsAPrefixOfTheValue", "s3cret", complete, "X-Vorex-Hash: s3cret2\n\n",
         Outcome::ToDaemon, "", "s3cret2"},
        {"valueIsAPrefixOfTheHash", "s3cret", complete, "X-Vorex-Hash: s3cre\n\n",
         Outcome::ToDaemon, "", "s3cre"},
        {"firstByteDiffers", "s3cret", complete, "X-Vorex-Hash: x3cret\n\n", Outcome::ToDaemon, "",
         "x3cret"},
        {"highBitOnly", "s3cre\x65", complete, "X-Vorex-Hash: s3cre\xe5\n\n", Outcome::ToDaemon, "",
         "s3cre?"},
        {"valueWithoutHash", "", complete, "X-Vorex-Hash: s3cret\n\n", Outcome::ToDaemon, "",
         "s3cret"},
        {"matchMovesAMegabyteUp", longHash.c_str(), complete,
         "Subject: s\nX-Vorex-Hash: " + longHash + "\nTo: c@z\n\n" + big, Outcome::Pass,
         "X-Vorex-Hash: " + longHash + "\n", nullptr},
        {"nulInsideMatchingLineCutsAllItsBytes", "s3cret", complete,
         Literal("X-Vorex-Hash: s3cretX\0junk\nTo: c@z\n\n"), Outcome::Pass,
         Literal("X-Vorex-Hash: s3cretX\0junk\n"), nullptr},
    };
    for (const auto& row : rows) {
        filterSettings.hash = row.hash;
        const std::string before = row.envelope + row.message;
        const ScanResult result = Scan(before);
        EXPECT_EQ(result.outcome, row.outcome) << row.name << ": " << result.failure;
        std::string after = before;
        if (row.outcome == Outcome::Pass)
            after.erase(after.find(row.removedLine), row.removedLine.size());
        EXPECT_TRUE(result.bytes == after) << row.name;
        EXPECT_EQ(result.failure,
                  row.outcome == Outcome::Fails ? "can not find rcpt(s) in envelope and msg" : "")
            << row.name;
        const bool passLogged =
            result.log.find("INFO null - Find hash header: pass msg without check!\n") !=
            std::string::npos;
        EXPECT_EQ(passLogged, row.outcome == Outcome::Pass) << row.name;
        if (row.alertValue == nullptr) {
            EXPECT_EQ(result.log.find("ALERT"), std::string::npos) << row.name;
        } else {
            EXPECT_NE(
                result.log.find("WARN null - ALERT: someone tries pass message with incorrect "
                                "hash:'X-Vorex-Hash': '" +
                                std::string(row.alertValue) + "'\n"),
                std::string::npos)
                << row.name << "\n"
                << result.log;
        }
    }
}

TEST_F(HeaderScanner, FallbackTakesFirstFromAndFirstToWithItsFolds)
{
    const std::string toOnly = "to <b@y>\nenv-end\n";
    const struct {
        const char* name;
        std::string envelope;
        std::string headers;
        std::string addresses;
    } rows[] = {
        {"toFoldedOverThreeLines", noRecipient, "To: b@y,\n  c@z, d@w\n\te@v\nSubject: s\n\n",
         "<a@x> to <b@y> <c@z> <d@w> <e@v>"},
        {"secondToIgnored", noRecipient, "To: b@y\ntO: c@z\n\n", "<a@x> to <b@y>"},
        {"groupGivesNoRecipient", noRecipient, "To: undisclosed-recipients:;\n\n", "<a@x> to"},
        {"fromFromItsFirstLineOnly", toOnly, "From: Jane\n <jane@x>\nFrom: k@z\n\n",
         "<Jane> to <b@y>"},
        {"fromInAnyCaseTrimmed", toOnly, "fROM:  \"J\" <j@x> \t\n\n", "<j@x> to <b@y>"},
        {"noFromGivesNullSender", toOnly, "Subject: s\n\n", "<> to <b@y>"},
        {"channelErrorKeepsNullSender", "channel error\nenv-end\n", "From: a@x\nTo: b@y\n\n",
         "<> to <b@y>"},
        {"envelopeRecipientsWin", toOnly, "To: c@z\n\n", "<> to <b@y>"},
        {"endOfFileEndsHeaders", noRecipient, "Subject: s\nTo: b@y,\n c@z\n",
         "<a@x> to <b@y> <c@z>"},
        {"lineWithoutColonEndsTheTo", noRecipient, "To: b@y\ngarbage\n c@z\n\n", "<a@x> to <b@y>"},
        {"chunkedLongHeader", noRecipient, "Subject: " + std::string(9000, 'x') + "\nTo: b@y\n\n",
         "<a@x> to <b@y>"},
    };
    for (const auto& row : rows) {
        filterSettings.hash = "";
        const std::string before = row.envelope + row.headers + "body\n";
        const ScanResult result = Scan(before);
        EXPECT_EQ(result.outcome, Outcome::ToDaemon) << row.name << ": " << result.failure;
        EXPECT_EQ(result.addresses, row.addresses) << row.name;
        EXPECT_EQ(result.bytes, before) << row.name;
    }
}

TEST_F(HeaderScanner, LogsEachHeaderAndEachLineItCannotRead)
{
    filterSettings.hash = "s3cret";
    const ScanResult result = Scan(complete + "Subject: hi\ngarbage\nX:\n\nbody\n");
    EXPECT_NE(result.log.find("DEBUG null - Start seach secure header...\n"
                              "DEBUG null - Parse header: 'Subject': 'hi'\n"
                              "WARN null - Unrecognize header: 'garbage\n'\n"
                              "DEBUG null - Parse header: 'X': ''\n"),
              std::string::npos)
        << result.log;
}

} // namespace
