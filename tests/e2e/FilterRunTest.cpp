// The real vorex-zmailer binary as ZMailer runs it: the conversation on its
// standard output, its standard error and exit status, the spool files and
// the base directory afterwards.
#include <algorithm>
#include <cctype>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "support/FilterSandbox.h"
#include "support/RefDaemon.h"

namespace
{

namespace fs = boost::filesystem;

const std::string cleanSpool = "external\n"
                               "from <alice@example.org>\n"
                               "to <bob@example.net>\n"
                               "env-end\n"
                               "From: Alice <alice@example.org>\n"
                               "To: bob@example.net\n"
                               "Subject: hello\n"
                               "\n"
                               "Hello Bob.\n";

class FilterRun : public ::testing::Test, protected FilterSandbox
{
};

TEST_F(FilterRun, ConversationAtInterfaceOne)
{
    RefDaemon daemon(basedir, {"--add-header", "X-Vorex-Checked: clean"});
    std::string clean = Spool("clean", cleanSpool);
    std::string infected = Spool("infected", cleanSpool + Eicar + "\n");

    ChildProcess filter(Args({"address@example.org"}));
    // The marker comes before every read, the reply before the next marker.
    EXPECT_EQ(filter.ReadStdoutUntil(Hungry), Hungry);
    filter.Write(clean + "\n");
    EXPECT_EQ(filter.ReadStdoutUntil(Hungry), PassLine + " clean\n" + Hungry);
    filter.Write(infected + "\n");
    EXPECT_EQ(filter.ReadStdoutUntil(Hungry), RejectLine + " infected: EICAR-Test-File\n" + Hungry);
    RunResult run;
    run.status = filter.Wait(&run.out, &run.err);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "") << "nothing after the end of input";
    EXPECT_EQ(run.err, "");

    const std::string checked = "X-Vorex-Checked: clean\n";
    const size_t headersAt = cleanSpool.find("From:");
    EXPECT_EQ(ReadFile(clean),
              cleanSpool.substr(0, headersAt) + checked + cleanSpool.substr(headersAt));
    EXPECT_EQ(ReadFile(infected), cleanSpool + Eicar + "\n");
    EXPECT_EQ(EntryCount(), 1u) << "only the rejected message keeps its entry";
}

TEST_F(FilterRun, InterfaceZeroWritesNoMarker)
{
    RefDaemon daemon(basedir, {"--verdict", "1"});
    std::string a = Spool("a", cleanSpool), b = Spool("b", cleanSpool);
    RunResult run = RunProgram(Args({"--interface", "0"}), a + "\n" + b + "\n");
    EXPECT_EQ(run.out, PassLine + "\n" + PassLine + "\n");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(EntryCount(), 0u);
}

TEST_F(FilterRun, RouterStageRunsOneJobWithoutReadingInput)
{
    RefDaemon daemon(basedir, {"--verdict", "4"});
    std::string spool = Spool("spool", cleanSpool);
    RunResult run = RunProgram(Args({"--file", spool, "--hash", "s3cret"}), "/not/read\n");
    EXPECT_EQ(run.out, TempfailLine + "\n");
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.status, 0);
}

TEST_F(FilterRun, RouterStageHashPassNeedsNoDaemon)
{
    std::string withHash = cleanSpool;
    withHash.insert(withHash.find("From:"), "X-Vorex-Hash: s3cret\n");
    std::string spool = Spool("spool", withHash);
    RunResult run = RunProgram(Args({"--file", spool, "--hash", "s3cret"}));
    EXPECT_EQ(run.out, PassLine + "\n");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(ReadFile(spool), cleanSpool);
}

TEST_F(FilterRun, EndOfInputAtOnce)
{
    const struct {
        const char* interface;
        const char* out;
    } rows[] = {{"1", "#hungry\n"}, {"0", ""}};
    for (const auto& row : rows) {
        RunResult run = RunProgram(Args({"--interface", row.interface}));
        EXPECT_EQ(run.out, row.out) << "interface " << row.interface;
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(run.status, 0);
    }
}

TEST_F(FilterRun, HelpAndVersion)
{
    RunResult help = RunProgram({VOREX_ZMAILER, "--help", "--version", "--interface", "7"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: vorex-zmailer [options] address\n\nAll options:\n", 0), 0u)
        << help.out;
    // The listing wraps long descriptions; compare with white space folded.
    std::string folded;
    for (char c : help.out)
        if (!std::isspace(static_cast<unsigned char>(c)) ||
            (!folded.empty() && folded.back() != ' '))
            folded += std::isspace(static_cast<unsigned char>(c)) ? ' ' : c;
    EXPECT_NE(folded.find("action on errors. Valid actions:pass | reject | discard | tempfail"),
              std::string::npos)
        << help.out;
    EXPECT_NE(help.out.find("(=reject)"), std::string::npos);

    RunResult version = RunProgram({VOREX_ZMAILER, "-v"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "vorex-zmailer - version 6.0.2.7\n");
}

TEST_F(FilterRun, StartUpFailuresAnswerTheActionHeldAtThatMoment)
{
    const struct {
        const char* name;
        std::vector<std::string> args;
        std::string out;
        std::string err;
    } rows[] = {
        {"unknownOption",
         {"--bogus"},
         PassLine + " Internal error\n",
         "error: unrecognised option '--bogus'\n"},
        {"badInterface",
         {"--interface", "2"},
         PassLine + " Internal error\n",
         "error: interface must be 0 or 1\n"},
        {"badTimeout",
         {"--timeout", "0"},
         PassLine + " Internal error\n",
         "error: timeout must be > 0\n"},
        {"badErrorAction",
         {"--error-action", "quarantine"},
         PassLine + " Internal error\n",
         "error: error in param error-action\n"},
        {"fileWithoutHash",
         {"--file", "/x"},
         PassLine + " Internal error\n",
         "error: --file is defined, but --hash is not! Please, set it from Sender/SecureHash "
         "param.\n"},
        {"unknownUser",
         {"--user", "no-such-user-here"},
         RejectLine + " Internal error\n",
         "error: fail to find uid/gid for user no-such-user-here. getpwnam error\n"},
        {"unknownUserTempfail",
         {"--user", "no-such-user-here", "-e", "TempFail"},
         TempfailLine + " Internal error\n",
         "error: fail to find uid/gid for user no-such-user-here. getpwnam error\n"},
        {"receiverDown",
         {"--basedir", "/nonexistent/base"},
         RejectLine + " Internal error\n",
         "error: can not initialize Receiver module\n"},
    };
    for (const auto& row : rows) {
        RunResult run = RunProgram(Args(row.args));
        EXPECT_EQ(run.out, row.out) << row.name;
        EXPECT_EQ(run.err, row.err) << row.name;
        EXPECT_EQ(run.status, 1) << row.name;
    }
}

TEST_F(FilterRun, FailedJobAnswersTheErrorActionAndEnds)
{
    RefDaemon daemon(basedir, {"--verdict", "1"});
    std::string clean = Spool("clean", cleanSpool);
    const std::string longLine(5000, 'x');
    const struct {
        const char* name;
        std::string line;
        std::string err;
    } rows[] = {
        {"missingFile", root + "/missing",
         "can not open file " + (root + "/missing") + " for read/write:No such file or directory"},
        {"emptyLine", "", "can not open file  for read/write:No such file or directory"},
        // The job sees the first 4,111 bytes of the line only.
        {"overlongLine", longLine,
         "can not open file " + longLine.substr(0, 4111) + " for read/write:File name too long"},
    };
    for (const auto& row : rows) {
        RunResult run = RunProgram(Args({"-e", "tempfail"}), clean + "\n" + row.line + "\n");
        EXPECT_EQ(run.out, Hungry + PassLine + "\n" + Hungry + TempfailLine + " Internal error\n")
            << row.name;
        EXPECT_EQ(run.err, "error: " + row.err + "\n") << row.name;
        EXPECT_EQ(run.status, 1) << row.name;
    }
    EXPECT_EQ(EntryCount(), 0u);
}

TEST_F(FilterRun, DaemonDownAnswersTheErrorAction)
{
    std::string clean = Spool("clean", cleanSpool);
    RunResult run = RunProgram(Args({"--interface", "0", "-e", "discard"}), clean + "\n");
    EXPECT_EQ(run.out, "-1 250 2.7.1 Discarded by Vorex Quelt! Internal error\n");
    EXPECT_EQ(run.err, "error: error in vorex-quelt\n");
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(ReadFile(clean), cleanSpool);
    EXPECT_EQ(EntryCount(), 0u);
}

TEST_F(FilterRun, LogLinesFollowThePattern)
{
    RefDaemon daemon(basedir, {"--verdict", "2"});
    std::string clean = Spool("clean", cleanSpool);
    RunResult run = RunProgram(Args({"--level", "DEBUG", "--id", "e2e"}), clean + "\n");
    ASSERT_EQ(run.status, 0);
    std::string log = ReadFile(basedir + "zmailer.log");
    // "%-7r [%t] %-5p %x - %m%n": the level padded to five columns, the
    // message context filled while the entry is in the daemon's hands (the
    // logging back end writes "null" for an empty context).
    EXPECT_NE(log.find("] DEBUG null - file - '" + clean + "'\n"), std::string::npos) << log;
    EXPECT_NE(log.find("] INFO  msg e2e."), std::string::npos) << log;
    EXPECT_NE(log.find("] DEBUG null - Success shutdown\n"), std::string::npos) << log;
}

TEST_F(FilterRun, SharedSamplesAllReachTheDaemon)
{
    if (!fs::exists(ZMAILER_SAMPLES))
        GTEST_SKIP() << "no shared samples beside the repository";
    RefDaemon daemon(basedir);
    std::string input, expected = Hungry;
    for (const fs::directory_entry& sample : fs::directory_iterator(ZMAILER_SAMPLES)) {
        if (sample.path().extension() != ".spool")
            continue;
        std::string copy =
            Spool(sample.path().filename().string(), ReadFile(sample.path().string()));
        input += copy + "\n";
    }
    RunResult run = RunProgram(Args({}), input);
    EXPECT_EQ(run.status, 0) << run.err;
    // Every sample gets a verdict line of its own: a pass or the test virus.
    size_t replies = 0;
    for (size_t at = run.out.find('\n'); at != std::string::npos; at = run.out.find('\n', at + 1))
        ++replies;
    EXPECT_EQ(replies, 2 * std::count(input.begin(), input.end(), '\n') + 1) << run.out;
    EXPECT_EQ(run.err, "");
}

} // namespace
