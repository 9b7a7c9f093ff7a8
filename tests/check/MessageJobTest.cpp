// The message job against the reference daemon: for each kind of verdict, the
// reply line, the spool file's bytes afterwards, whether the entry stays, and
// the job's result or failure text; the hash gate; the entry's files.
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "check/VxWorker.h"
#include "frame/FilterSettings.h"
#include "platform/log/LogCapture.h"
#include "platform/receiver/RefObject.h"
#include "support/RefDaemon.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"

namespace
{

namespace fs = boost::filesystem;

const std::string envelope = "external\n"
                             "rcvdfrom mx.example.org (mx.example.org [192.0.2.1]:4000)\n"
                             "with ESMTP\n"
                             "from <alice@example.org>\n"
                             "todsn NOTIFY=FAILURE ORCPT=rfc822;bob@example.net\n"
                             "to <bob@example.net>\n"
                             "env-end\n";
const std::string message = "From: Alice <alice@example.org>\n"
                            "To: bob@example.net\n"
                            "Subject: test\n"
                            "\n"
                            "Hello Bob.\n";

struct Outcome {
    std::string reply;
    std::string failure; // empty when the job returned
    VerdictFlags result = 0;
};

class MessageJob : public ::testing::Test
{
protected:
    void SetUp() override
    {
        (void)::umask(002);
        basedir = dir / "base";
        fs::create_directories(basedir);
        basedir += "/";
        spoolPath = dir / "spool";
        WriteFile(spoolPath, envelope + message);
        filterSettings = FilterSettings();
        filterSettings.basedir = basedir;
        filterSettings.timeout = 10;
        receiverId = "test";
        liveBefore = RefObjectLiveCount();
    }
    void TearDown() override
    {
        EXPECT_EQ(RefObjectLiveCount(), liveBefore) << "a receiver object outlived the job";
        filterSettings = FilterSettings();
        receiverId.clear();
    }

    Outcome Run(const std::string& path)
    {
        VxWorker worker(receiverId);
        Outcome outcome;
        StdoutCapture capture;
        try {
            outcome.result = worker.ProcessFile(path.c_str());
        } catch (const std::exception& failure) {
            outcome.failure = failure.what();
        }
        outcome.reply = capture.Take();
        EXPECT_EQ(RefObjectLiveCount(), liveBefore + 1) << "only the Receiver may stay referenced";
        return outcome;
    }

    std::vector<fs::path> Entries() const
    {
        std::vector<fs::path> entries;
        fs::path msgs = fs::path(basedir) / "msgs";
        if (fs::exists(msgs))
            for (const fs::directory_entry& entry : fs::directory_iterator(msgs))
                entries.push_back(entry.path());
        return entries;
    }

    TempDir dir;
    std::string basedir;
    std::string spoolPath;
    int liveBefore = 0;
};

struct VerdictRow {
    const char* name;
    std::vector<std::string> daemonArgs;
    const char* reply;
    const char* failure;
    VerdictFlags result;
    bool entryLeft;
};

const VerdictRow verdictRows[] = {
    {"pass",
     {"--verdict", "1", "--note", "clean"},
     "0 250 2.6.0 Okey. Go ahead! clean\n",
     "",
     1,
     false},
    {"passWithoutNote", {"--verdict", "1"}, "0 250 2.6.0 Okey. Go ahead!\n", "", 1, false},
    {"passHeadersChanged", {"--verdict", "513"}, "0 250 2.6.0 Okey. Go ahead!\n", "", 513, false},
    {"passBodyAndHeadersChanged",
     {"--verdict", "2561"},
     "0 250 2.6.0 Okey. Go ahead!\n",
     "",
     2561,
     false},
    {"daemonError", {"--verdict", "33"}, "", "error in vorex-quelt", 0, false},
    {"daemonErrorBeforeTakenOver", {"--verdict", "96"}, "", "error in vorex-quelt", 0, false},
    {"takenOver",
     {"--verdict", "65", "--note", "mine"},
     "-1 250 2.7.1 Discarded by Vorex Quelt! mine\n",
     "",
     8,
     true},
    {"envelopeChangedOnPass",
     {"--verdict", "1025"},
     "",
     "Envelope changed: can not update this thing!",
     0,
     false},
    {"envelopeChangedOnReject",
     {"--verdict", "1026"},
     "-1 550 5.7.1 Rejected by Vorex Quelt!\n",
     "",
     1026,
     true},
    {"headersChangedOnReject",
     {"--verdict", "514", "--note", "spam"},
     "-1 550 5.7.1 Rejected by Vorex Quelt! spam\n",
     "",
     514,
     true},
    {"tempfail",
     {"--verdict", "4"},
     "1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later.\n",
     "",
     4,
     true},
    {"discard", {"--verdict", "8"}, "-1 250 2.7.1 Discarded by Vorex Quelt!\n", "", 8, true},
    {"noVerdictBitAnswersPass", {"--verdict", "0"}, "0 250 2.6.0 Okey. Go ahead!\n", "", 0, true},
    {"unknownBits",
     {"--verdict", "16"},
     "-1 550 5.7.1 Unknown action code 16 in Vorex Quelt!\n",
     "",
     16,
     true},
};

TEST_F(MessageJob, EachVerdictAnswersAndKeepsTheSpoolFile)
{
    for (const VerdictRow& row : verdictRows) {
        WriteFile(spoolPath, envelope + message);
        fs::remove_all(fs::path(basedir) / "msgs");
        Outcome outcome;
        {
            RefDaemon daemon(basedir, row.daemonArgs);
            outcome = Run(spoolPath);
        }
        EXPECT_EQ(outcome.reply, row.reply) << row.name;
        EXPECT_EQ(outcome.failure, row.failure) << row.name;
        if (outcome.failure.empty()) {
            EXPECT_EQ(outcome.result, row.result) << row.name;
        }
        // The daemon left .msg as it was, so even a write-back keeps the bytes.
        EXPECT_EQ(ReadFile(spoolPath), envelope + message) << row.name;
        EXPECT_EQ(Entries().size(), row.entryLeft ? 1u : 0u) << row.name;
    }
}

TEST_F(MessageJob, ChangedMessageIsWrittenBackOverTheMessagePart)
{
    RefDaemon daemon(basedir, {"--add-header", "X-Vorex-Checked: clean"});
    Outcome outcome = Run(spoolPath);
    EXPECT_EQ(outcome.failure, "");
    EXPECT_EQ(outcome.reply, "0 250 2.6.0 Okey. Go ahead! clean\n");
    EXPECT_EQ(outcome.result, 0x201u);
    EXPECT_EQ(ReadFile(spoolPath), envelope + "X-Vorex-Checked: clean\n" + message);
    EXPECT_TRUE(Entries().empty());
}

TEST_F(MessageJob, RejectedMessageLeavesItsEntryWithEnvelopeAndCopy)
{
    const std::string eicar =
        "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
    WriteFile(spoolPath, envelope + message + eicar + "\n");
    RefDaemon daemon(basedir);
    LogCapture log;
    Outcome outcome = Run(spoolPath);
    EXPECT_EQ(outcome.reply, "-1 550 5.7.1 Rejected by Vorex Quelt! infected: EICAR-Test-File\n");
    EXPECT_EQ(outcome.result, 2u);
    EXPECT_EQ(ReadFile(spoolPath), envelope + message + eicar + "\n");
    std::vector<fs::path> entries = Entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(ReadFile((entries[0] / ".envelope").string()),
              "from <alice@example.org>\nto <bob@example.net>\n");
    EXPECT_EQ(ReadFile((entries[0] / ".msg").string()), message + eicar + "\n");
    struct stat st;
    ASSERT_EQ(::stat((entries[0] / ".msg").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    // The entry's lines carry its id as log context.
    const std::string context = "msg " + entries[0].filename().string();
    EXPECT_NE(log.Text().find("INFO " + context + " - "), std::string::npos) << log.Text();
}

TEST_F(MessageJob, EmptyMessagePartGivesAnEmptyCopy)
{
    WriteFile(spoolPath, envelope);
    RefDaemon daemon(basedir, {"--verdict", "2"});
    Outcome outcome = Run(spoolPath);
    EXPECT_EQ(outcome.reply, "-1 550 5.7.1 Rejected by Vorex Quelt!\n");
    std::vector<fs::path> entries = Entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(fs::file_size(entries[0] / ".msg"), 0u);
}

TEST_F(MessageJob, EntryGoesToTheDaemonsAccountOnlyWhenOneIsSet)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "changing owners needs root";
    const struct {
        int32_t uid;
        uid_t expected;
    } rows[] = {{-1, 0}, {65534, 65534}};
    for (const auto& row : rows) {
        fs::remove_all(fs::path(basedir) / "msgs");
        filterSettings.uid = row.uid;
        filterSettings.gid = row.uid;
        RefDaemon daemon(basedir, {"--verdict", "2"});
        Run(spoolPath);
        std::vector<fs::path> entries = Entries();
        ASSERT_EQ(entries.size(), 1u);
        for (const fs::path& path : {entries[0], entries[0] / ".msg", entries[0] / ".envelope"}) {
            struct stat st;
            ASSERT_EQ(::stat(path.c_str(), &st), 0);
            EXPECT_EQ(st.st_uid, row.expected) << path << " uid " << row.uid;
        }
    }
}

TEST_F(MessageJob, ValidHashPassesWithoutEntryAndCutsTheHeader)
{
    filterSettings.hash = "s3cret";
    WriteFile(spoolPath, envelope + "X-Vorex-Hash: s3cret\n" + message);
    // No daemon runs: the message must not need one.
    Outcome outcome = Run(spoolPath);
    EXPECT_EQ(outcome.failure, "");
    EXPECT_EQ(outcome.reply, "0 250 2.6.0 Okey. Go ahead!\n");
    EXPECT_EQ(outcome.result, 1u);
    EXPECT_EQ(ReadFile(spoolPath), envelope + message);
    EXPECT_TRUE(Entries().empty());
}

TEST_F(MessageJob, WrongHashGoesToTheDaemonWithTheHeaderKept)
{
    filterSettings.hash = "s3cret";
    const std::string spool = envelope + "X-Vorex-Hash: guess\n" + message;
    WriteFile(spoolPath, spool);
    RefDaemon daemon(basedir, {"--verdict", "2"});
    Outcome outcome = Run(spoolPath);
    EXPECT_EQ(outcome.reply, "-1 550 5.7.1 Rejected by Vorex Quelt!\n");
    EXPECT_EQ(ReadFile(spoolPath), spool);
    std::vector<fs::path> entries = Entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(ReadFile((entries[0] / ".msg").string()), "X-Vorex-Hash: guess\n" + message);
}

TEST_F(MessageJob, FailuresBeforeTheEntryNameTheirCause)
{
    fs::create_directories(dir / "adir");
    WriteFile(dir / "norcpt", "from <a@example.org>\nenv-end\nSubject: x\n\nbody\n");
    const struct {
        const char* name;
        std::string path;
        std::string failure;
    } rows[] = {
        {"missing", dir / "missing",
         "can not open file " + (dir / "missing") + " for read/write:No such file or directory"},
        {"directory", dir / "adir",
         "can not open file " + (dir / "adir") + " for read/write:Is a directory"},
        {"noRecipient", dir / "norcpt", "can not find rcpt(s) in envelope and msg"},
        {"shellText", "$(touch x)",
         "can not open file $(touch x) for read/write:No such file or directory"},
        {"formatText", "%n%s", "can not open file %n%s for read/write:No such file or directory"},
    };
    for (const auto& row : rows) {
        Outcome outcome = Run(row.path);
        EXPECT_EQ(outcome.failure, row.failure) << row.name;
        EXPECT_EQ(outcome.reply, "") << row.name;
        EXPECT_TRUE(Entries().empty()) << row.name;
    }
}

TEST_F(MessageJob, SilentDaemonCostsTheTimeoutAndWithdrawsTheEntry)
{
    filterSettings.timeout = 1;
    RefDaemon daemon(basedir, {"--verdict", "1", "--delay-ms", "3000"});
    Outcome outcome = Run(spoolPath);
    EXPECT_EQ(outcome.failure, "error in vorex-quelt");
    EXPECT_EQ(outcome.reply, "");
    EXPECT_TRUE(Entries().empty());
}

TEST(Worker, ReceiverThatCannotComeUpFailsConstruction)
{
    TempDir dir;
    filterSettings = FilterSettings();
    filterSettings.basedir = dir / "does-not-exist/";
    filterSettings.timeout = 5;
    const int liveBefore = RefObjectLiveCount();
    try {
        VxWorker worker(receiverId);
        ADD_FAILURE() << "no exception";
    } catch (const std::domain_error& failure) {
        EXPECT_STREQ(failure.what(), "can not initialize Receiver module");
    }
    EXPECT_EQ(RefObjectLiveCount(), liveBefore);
    filterSettings = FilterSettings();
}

} // namespace
