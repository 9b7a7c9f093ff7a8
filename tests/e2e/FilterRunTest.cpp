// The real vorex-zmailer binary as ZMailer runs it: the conversation on its
// standard output, its standard error and exit status, the spool files and
// the base directory afterwards.
#include <algorithm>
#include <cctype>
#include <sstream>
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

// Help wins over every other option and lists them all; the version comes
// before any check. The listing's layout is the option library's, so runs of
// white space, line ends included, compare as one blank.
TEST_F(FilterRun, HelpAndVersion)
{
    RunResult help = RunProgram({VOREX_ZMAILER, "--interface", "7", "-v", "-h", "-e", "bogus"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: vorex-zmailer [options] address\n\nAll options:\n", 0), 0u)
        << help.out;
    std::string folded;
    for (char c : help.out)
        if (!std::isspace(static_cast<unsigned char>(c)))
            folded += c;
        else if (folded.back() != ' ')
            folded += ' ';
    EXPECT_EQ(folded,
              "Usage: vorex-zmailer [options] address All options: "
              "-h [ --help ] generate help message "
              "-v [ --version ] print version string "
              "-u [ --user ] arg (=vorex) use rname of vorex-quelt process "
              "-l [ --level ] arg (=info) log level "
              "--id arg unique Receiver/Sender id "
              "--log-name arg component log name "
              "--log-filename arg (=syslog) log filename or syslog "
              "-i [ --ipclevel ] arg (=info) log level for ipc communication "
              "-f [ --facility ] arg (=mail) syslog facility "
              "-b [ --basedir ] arg (=/var/vorex) Quelt base directory "
              "-t [ --timeout ] arg (=30) timeout for mail processing "
              "--file arg file name for processing. To be defined when started from router "
              "stage. "
              "--hash arg value for Sender/SecureHash parameter (if Sender/UseSecureHash = yes). "
              "To be defined when started from router stage. "
              "--interface arg (=1) Version of smtp-server (when started as content filter). 0 "
              "for version 2.99.55 and below; 1 for version 2.99.56 and higher "
              "-e [ --error-action ] arg (=reject) action on errors. Valid actions:pass | reject | "
              "discard | tempfail "
              "-Z arg ignored ZMailer configuration ");

    RunResult version = RunProgram({VOREX_ZMAILER, "-t", "0", "--version", "-l", "loud"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "vorex-zmailer - version 6.0.2.7\n");
}

// Until the options are read the error action is pass; after them, the
// configured one (reject by default).
TEST_F(FilterRun, StartUpFailuresAnswerTheActionHeldAtThatMoment)
{
    const std::string noUser = "fail to find uid/gid for user nobody-here. getpwnam error";
    const struct {
        std::vector<std::string> args;
        std::string line;
        std::string error;
    } rows[] = {
        {{"--bogus"}, PassLine, "unrecognised option '--bogus'"},
        {{"--error-action", "quarantine"}, PassLine, "error in param error-action"},
        {{"--user", "nobody-here"}, RejectLine, noUser},
        {{"--user", "nobody-here", "-e", "TempFail"}, TempfailLine, noUser},
        {{"--basedir", "/nonexistent/base"}, RejectLine, "can not initialize Receiver module"},
    };
    for (const auto& row : rows) {
        RunResult run = RunProgram(Args(row.args));
        EXPECT_EQ(run.out, row.line + " Internal error\n") << row.args[1];
        EXPECT_EQ(run.err, "error: " + row.error + "\n") << row.args[1];
        EXPECT_EQ(run.status, 1) << row.args[1];
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
    // "%-7r [%t] %-5p %x - %m%n": elapsed milliseconds left-aligned in seven
    // columns, the thread, the level in five, the message context (the
    // entry's id while the daemon has it, else empty, which the back end
    // writes as "null"), the text.
    const std::string mail = " - from <alice@example.org> to <bob@example.net>";
    std::istringstream lines(ReadFile(basedir + "zmailer.log"));
    int found = 0;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t digits = line.find_first_not_of("0123456789");
        const std::size_t thread = line.find("] ");
        if (digits < 1 || digits > 7 || line.find_first_not_of(' ', digits) != 8 ||
            line.compare(8, 1, "[") != 0 || thread == std::string::npos)
            continue; // the rest of a message with a line end in it
        const std::string rest = line.substr(thread + 2);
        found += rest == "DEBUG null - file - '" + clean + "'" ||
                 rest == "DEBUG null - Success shutdown" ||
                 (rest.rfind("INFO  msg e2e.", 0) == 0 &&
                  rest.substr(rest.size() - std::min(rest.size(), mail.size())) == mail);
    }
    EXPECT_EQ(found, 3);
}

TEST_F(FilterRun, SharedSamplesAllReachTheDaemon)
{
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
