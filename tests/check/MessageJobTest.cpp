// The message job against the reference daemon: for each kind of verdict, the
// reply line, the spool file's bytes afterwards, whether the entry stays, and
// the job's result or failure text; a refused hash; the entry's files. A
// changed message, a hash pass and failures at the job line are the
// end-to-end tests' and the fault walk's.
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
#include "support/Replies.h"
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

// The daemon left .msg as it was, so even a write-back keeps the spool bytes.
TEST_F(MessageJob, EachVerdictAnswersAndKeepsTheSpoolFile)
{
    const std::string fails = "throws: ";
    const struct {
        const char* name;
        const char* verdict;
        const char* note;
        std::string answer; // the reply line, or what the job throws
        VerdictFlags result;
        bool entryLeft;
    } rows[] = {
        {"pass", "1", "clean", PassLine + " clean\n", 1, false},
        {"passHeadersChanged", "513", "", PassLine + "\n", 513, false},
        {"daemonError", "33", "", fails + "error in vorex-quelt", 0, false},
        {"daemonErrorBeforeTakenOver", "96", "", fails + "error in vorex-quelt", 0, false},
        {"takenOver", "65", "mine", DiscardLine + " mine\n", 8, true},
        {"envelopeChangedOnPass", "1025", "",
         fails + "Envelope changed: can not update this thing!", 0, false},
        {"envelopeChangedOnReject", "1026", "", RejectLine + "\n", 1026, true},
        {"tempfail", "4", "", TempfailLine + "\n", 4, true},
        {"discard", "8", "", DiscardLine + "\n", 8, true},
        {"noVerdictBitAnswersPass", "0", "", PassLine + "\n", 0, true},
    };
    for (const auto& row : rows) {
        WriteFile(spoolPath, envelope + message);
        fs::remove_all(fs::path(basedir) / "msgs");
        Outcome outcome;
        {
            RefDaemon daemon(basedir, {"--verdict", row.verdict, "--note", row.note});
            outcome = Run(spoolPath);
        }
        EXPECT_EQ(outcome.reply + (outcome.failure.empty() ? "" : fails + outcome.failure),
                  row.answer)
            << row.name;
        EXPECT_EQ(outcome.result, row.result) << row.name;
        EXPECT_EQ(ReadFile(spoolPath), envelope + message) << row.name;
        EXPECT_EQ(Entries().size(), row.entryLeft ? 1u : 0u) << row.name;
    }
}

TEST_F(MessageJob, RejectedMessageLeavesItsEntryWithEnvelopeAndCopy)
{
    WriteFile(spoolPath, envelope + message + Eicar + "\n");
    RefDaemon daemon(basedir);
    LogCapture log;
    Outcome outcome = Run(spoolPath);
    EXPECT_EQ(outcome.reply, RejectLine + " infected: EICAR-Test-File\n");
    EXPECT_EQ(outcome.result, 2u);
    EXPECT_EQ(ReadFile(spoolPath), envelope + message + Eicar + "\n");
    std::vector<fs::path> entries = Entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(ReadFile((entries[0] / ".envelope").string()),
              "from <alice@example.org>\nto <bob@example.net>\n");
    EXPECT_EQ(ReadFile((entries[0] / ".msg").string()), message + Eicar + "\n");
    // The entry's lines carry its id as log context.
    const std::string context = "msg " + entries[0].filename().string();
    EXPECT_NE(log.Text().find("INFO " + context + " - "), std::string::npos) << log.Text();
}

TEST_F(MessageJob, EmptyMessagePartGivesAnEmptyCopy)
{
    WriteFile(spoolPath, envelope);
    RefDaemon daemon(basedir, {"--verdict", "2"});
    Outcome outcome = Run(spoolPath);
    EXPECT_EQ(outcome.reply, RejectLine + "\n");
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

TEST_F(MessageJob, WrongHashGoesToTheDaemonWithTheHeaderKept)
{
    filterSettings.hash = "s3cret";
    const std::string spool = envelope + "X-Vorex-Hash: guess\n" + message;
    WriteFile(spoolPath, spool);
    RefDaemon daemon(basedir, {"--verdict", "2"});
    Outcome outcome = Run(spoolPath);
    EXPECT_EQ(outcome.reply, RejectLine + "\n");
    EXPECT_EQ(ReadFile(spoolPath), spool);
    std::vector<fs::path> entries = Entries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(ReadFile((entries[0] / ".msg").string()), "X-Vorex-Hash: guess\n" + message);
}

TEST_F(MessageJob, NoRecipientFailsBeforeAnEntry)
{
    WriteFile(spoolPath, "from <a@example.org>\nenv-end\nSubject: x\n\nbody\n");
    const Outcome outcome = Run(spoolPath);
    EXPECT_EQ(outcome.failure, "can not find rcpt(s) in envelope and msg");
    EXPECT_EQ(outcome.reply, "");
    EXPECT_TRUE(Entries().empty());
}

// The time limit bounds a daemon that takes the request and does not answer.
TEST_F(MessageJob, SilentDaemonCostsTheTimeoutAndWithdrawsTheEntry)
{
    filterSettings.timeout = 1;
    RefDaemon daemon(basedir, {"--verdict", "1", "--delay-ms", "3000"});
    LogCapture log;
    Outcome outcome = Run(spoolPath);
    EXPECT_EQ(outcome.failure, "error in vorex-quelt");
    EXPECT_EQ(outcome.reply, "");
    EXPECT_TRUE(Entries().empty());
    const std::string cause = " - no answer from daemon at " + basedir + "quelt.sock within 1 s";
    std::string level;
    for (const std::string& line : log.Lines())
        if (line.size() >= cause.size() && line.substr(line.size() - cause.size()) == cause)
            level = line.substr(0, line.find(' '));
    EXPECT_EQ(level, "ERROR") << log.Text();
}

} // namespace
