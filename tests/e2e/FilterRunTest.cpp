// The real vorex-zmailer binary as ZMailer runs it, against a daemon played by
// the test: for each verdict, write-back and failure, the bytes on standard
// output and error, the exit status, the spool file afterwards, the entry
// left behind (its files, modes and owner) and the log; then --help.
#include <sys/stat.h>

#include <iterator>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "support/FilterSandbox.h"
#include "support/PlayedDaemon.h"
#include "support/SpoolStream.h"

namespace
{

namespace fs = boost::filesystem;

const std::string E = "external\nrcvdfrom mx.example.org (mx.example.org [192.0.2.1]:4000)\n"
                      "with ESMTP\nfrom <alice@example.org>\n"
                      "todsn NOTIFY=FAILURE ORCPT=rfc822;bob@example.net\nto <bob@example.net>\n"
                      "env-end\n";
const std::string M = "From: Alice <alice@example.org>\nTo: bob@example.net\nSubject: test\n\n"
                      "Hello Bob.\n";
const std::string S = E + M;
const std::string Oops = " Internal error\n";
// The played daemon's answers that mean nobody listens, a socket file nobody
// listens on, a listener that never answers; and what it may do to the entry
// before answering besides writing .msg anew.
const std::string NoDaemon = "", Stale = "\1stale", Silent = "\1silent";
const std::string Keep = "\1keep", Missing = "\1missing", Nested = "\1nested", TooDeep = "\1deep";

struct Expect {
    std::string out, err;
    int status;
};

// after: the spool file afterwards, empty for unchanged; copy: what the
// daemon writes to .msg, or a marker of what it does to the entry instead.
struct Row {
    const char* name;
    std::string args; // split at blanks; "{spool}", "{root}", "{entry}" are filled in
    std::string answer, spool;
    Expect expect;
    std::size_t entries = 0;
    std::string after = "", copy = Keep, input = "{spool}\n";
    std::string logged = ""; // what the log holds, a regular expression
    bool Rewrites() const { return copy.rfind('\1', 0) != 0; }
};

// Two levels deeper than the withdrawal walks.
const std::string Deep = "/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d/d";

std::vector<Row> Rows()
{
    const std::string noUser = "fail to find uid/gid for user nobody-here. getpwnam error";
    const std::string router = "--file {spool} --hash s3cret", hash = "X-Vorex-Hash: s3cret\n";
    const std::string same = "From: Alice <alice@example.org>\nTo: bob@example.net\nSubject: TEST\n"
                             "\nHello BOB.\n";
    // Past the copy block, within the daemon's 1 MiB header allowance.
    const std::string big = M + Pattern((1 << 20) + 5, 9), larger = "X-Checked: yes\n" + big;
    const std::string longLine(5000, 'x'), noFile = " for read/write:No such file or directory";
    const std::string quelt = "error in vorex-quelt", shorter = M.substr(0, M.size() - 1);
    auto Ran = [](std::string out) { return Expect{out, "", 0}; };
    auto Replied = [](std::string line) { return Expect{Hungry + line + "\n" + Hungry, "", 0}; };
    auto Refused = [](std::string line, std::string cause, std::string before = "") {
        return Expect{before + line + Oops, "error: " + cause + "\n", 1};
    };
    auto Failed = [&](std::string cause, std::string before = Hungry) {
        return Refused(RejectLine, cause, before);
    };
    const Expect pass = Replied(PassLine), reject = Replied(RejectLine);
    auto Logged = [](Row row, std::string text) {
        row.logged = std::move(text);
        return row;
    };
    const std::string at = " at {base}quelt.sock", bad = "bad verdict flags", a(8189, 'a');
    const std::string unknown = "-1 550 5.7.1 Unknown action code ";
    // "%-7r [%t] %-5p %x - %m%n": the context is the entry's id while the
    // daemon has it, else empty, which the back end writes as "null".
    const std::string line = "(^|\n)(?=.{8}\\[)\\d{1,7} +\\[[^\\]]+\\] ";
    return {
        Logged({"pass", "--id e2e", "1 clean\n", S, Replied(PassLine + " clean")},
               line + "INFO  msg e2e\\.\\S+ - from <alice@example.org> to <bob@example.net>\n"),
        // The withdrawn entry goes with whatever the daemon made in it;
        // deeper than the walk goes, it stays, though withdrawn.
        {"daemonErrorWithATree", "", "33\n", S, Failed(quelt), 0, "", Nested},
        {"daemonErrorWithATooDeepTree", "", "33\n", S, Failed(quelt), 1, "", TooDeep},
        {"daemonErrorBeatsTakenOver", "", "96\n", S, Failed(quelt)},
        {"takenOverIsDiscard", "", "65 mine\n", S, Replied(DiscardLine + " mine"), 1},
        {"envelopeChangedOnPass", "", "1025\n", S,
         Failed("Envelope changed: can not update this thing!")},
        {"envelopeChangedOnReject", "", "1026\n", S, reject, 1},
        Logged({"tempfail", "", "4\n", S, Replied(TempfailLine), 1},
               line + "DEBUG null - file - '{spool}'\n"),
        {"discardLoggingWarningsOnly", "--level warn", "8\n", S, Replied(DiscardLine), 1},
        Logged({"noVerdictBitPasses", "", "0\n", S, pass, 1},
               line + "DEBUG null - Success shutdown\n"),
        {"emptyMessagePart", "", "2\n", E, reject, 1},
        {"wrongHashGoesToTheDaemon", "--hash s3cret", "2\n", E + "X-Vorex-Hash: guess\n" + M,
         reject, 1},
        {"entryToTheDaemonsAccount", "--user nobody", "2 x\n", S, Replied(RejectLine + " x"), 1},
        {"noRecipient", "", "1\n", "from <a@x>\nenv-end\nSubject: x\n\nbody\n",
         Failed("can not find rcpt(s) in envelope and msg")},
        {"writeBackUnchanged", "", "513\n", S, pass, 0, "", M},
        {"writeBackSameSize", "", "513\n", S, pass, 0, E + same, same},
        {"writeBackShorter", "", "2049\n", S, pass, 0, E + shorter, shorter},
        {"writeBackLarger", "", "513\n", E + big, pass, 0, E + larger, larger},
        {"writeBackEmpty", "", "2561\n", S, pass, 0, E, ""},
        {"writeBackMissing", "", "513\n", S, Failed("can not open file {entry}/.msg for readig"), 0,
         "", Missing},
        {"interfaceZero", "--interface 0", "1\n", S, Ran(PassLine + "\n")},
        {"routerStageReadsNoInput", router, "4\n", S, Ran(TempfailLine + "\n"), 1},
        {"routerStageHashPass", router, NoDaemon, E + hash + M, Ran(PassLine + "\n"), 0, S},
        // The first of the pass, reject, tempfail and discard bits wins;
        // without any, the value is the action code. The daemon's line is
        // read as far as its line feed, up to 8192 bytes.
        {"passBitWins", "", "3\n", S, pass},
        Logged({"rejectBeforeTempfail", "", "6\n", S, reject, 1},
               line + "DEBUG null - Read: 'env-end\n'\n"), // each envelope line as read
        {"tempfailBeforeDiscard", "", "12\n", S, Replied(TempfailLine), 1},
        {"unknownActionCode", "", "16 x\n", S, Replied(unknown + "16 in Vorex Quelt! x"), 1},
        {"highBitAsSignedCode", "", "2147483648\n", S,
         Replied(unknown + "-2147483648 in Vorex Quelt!"), 1},
        {"carriageReturnDropped", "", "513 clean\r\n", S, Replied(PassLine + " clean")},
        {"noteKeepsItsBlanks", "", "2 a  b \n", S, Replied(RejectLine + " a  b "), 1},
        {"bytesAfterTheLineIgnored", "", "4 later\nnoise", S, Replied(TempfailLine + " later"), 1},
        {"lineOfExactlyTheLimit", "", "1 " + a + "\n", S, Replied(PassLine + " " + a)},
        Logged({"highestFlags", "", "4294967295\n", S, Failed(quelt)}, "daemon verdict 4294967295"),
        Logged({"lineBeyondTheLimit", "", "1 " + a + "a\n", S, Failed(quelt)},
               "longer than 8192 bytes"),
        Logged({"outOfRange", "", "4294967296 x\n", S, Failed(quelt)}, bad + " from daemon" + at),
        Logged({"negative", "", "-1 x\n", S, Failed(quelt)}, bad),
        Logged({"tabAfterFlags", "", "1\tclean\n", S, Failed(quelt)}, bad),
        Logged({"emptyLine", "", "\n", S, Failed(quelt)}, bad),
        Logged({"closedMidLine", "", "1 clean", S, Failed(quelt)},
               "closed the connection before a full answer"),
        Logged({"nobodyListens", "", Stale, S, Failed(quelt)},
               "can not connect to daemon" + at + ":Connection refused"),
        Logged({"silent", "--timeout 1", Silent, S, Failed(quelt)},
               "no answer from daemon" + at + " within 1 s"),
        {"versionBeforeAnyCheck", "--timeout 0 --version --ipclevel loud", NoDaemon, S,
         Ran("vorex-zmailer - version 6.0.2.7\n")},
        // Until the options are read the error action is pass; then the
        // configured one, reject by default.
        {"unknownOption", "--bogus", NoDaemon, S,
         Refused(PassLine, "unrecognised option '--bogus'")},
        Logged({"unknownErrorAction", "-e quarantine", NoDaemon, S,
                Refused(PassLine, "error in param error-action")},
               line + "ERROR null - Find wrong value 'quarantine' for param 'ProcessingErrors' "
                      "during action parse\\. Wait one of following:pass \\| reject \\| "
                      "discard \\| tempfail\n"),
        {"unknownUser", "--user nobody-here", NoDaemon, S, Refused(RejectLine, noUser)},
        {"noBaseDir", "--basedir /nonexistent/base", NoDaemon, S,
         Refused(RejectLine, "can not initialize Receiver module")},
        Logged({"daemonDown", "--interface 0 -e discard", NoDaemon, S, Refused(DiscardLine, quelt)},
               "can not connect to daemon" + at + ":No such file or directory"),
        // A failed job ends the run after the replies before it; a job line
        // is only ever a path, and the job sees its first 4,111 bytes only.
        {"missingFileAfterAGoodJob", "", "1\n", S,
         Failed("can not open file {root}/missing" + noFile, Hungry + PassLine + "\n" + Hungry), 0,
         "", Keep, "{spool}\n{root}/missing\n"},
        {"overlongLine", "", NoDaemon, S,
         Failed("can not open file " + longLine.substr(0, 4111) +
                " for read/write:File name too long"),
         0, "", Keep, longLine + "\n"},
    };
}

class FilterRun : public ::testing::Test, protected FilterSandbox
{
protected:
    // The filter sets its own umask: a parent's 0 must not show in its files.
    void SetUp() override { savedMask = ::umask(0); }
    void TearDown() override { (void)::umask(savedMask); }

    std::string Fill(std::string text) const
    {
        for (const auto& field : {std::make_pair("{spool}", spool),
                                  {"{root}", root},
                                  {"{entry}", entry},
                                  {"{base}", basedir}})
            for (std::size_t at; (at = text.find(field.first)) != std::string::npos;)
                text.replace(at, std::strlen(field.first), field.second);
        return text;
    }

    // The entry's files as the daemon gets them, not readable by others.
    void ExpectEntryFiles(const Row& row, const std::string& dir)
    {
        const std::string owner = row.args == "--user nobody" ? "65534" : "0";
        EXPECT_EQ(ReadFile(dir + "/.envelope"), "from <alice@example.org>\nto <bob@example.net>\n");
        EXPECT_EQ(ReadFile(dir + "/.msg"), row.spool.substr(E.size()));
        for (const std::string& file : {dir, dir + "/.msg", dir + "/.envelope"}) {
            struct stat status = {};
            (void)::lstat(file.c_str(), &status);
            EXPECT_EQ(std::to_string(status.st_mode & 07777) + " " + std::to_string(status.st_uid),
                      std::to_string(file == dir ? 0770 : 0660) + " " + owner)
                << file;
        }
    }

    mode_t savedMask = 0;
    const std::string spool = root + "/spool", work = root + "/work";
    std::string entry;
};

TEST_F(FilterRun, EachJobAnswersAndLeavesItsFiles)
{
    for (const Row& row : Rows()) {
        SCOPED_TRACE(row.name);
        fs::remove_all(root);
        fs::create_directories(basedir);
        fs::permissions(basedir, fs::perms(0755)); // umask 0: a log directory for all is refused
        fs::create_directories(work);
        WriteFile(spool, row.spool);
        entry.clear();
        const bool levelGiven = row.args.find("--level") != std::string::npos;
        std::istringstream words(Fill((levelGiven ? "" : "--level debug ") + row.args));
        const std::vector<std::string> args{std::istream_iterator<std::string>(words), {}};
        RunResult run;
        {
            std::unique_ptr<PlayedDaemon> daemon;
            const bool bare = row.answer == Stale || row.answer == Silent;
            const int listener = bare ? PlayedDaemon::ListenOn(basedir + "quelt.sock") : -1;
            if (row.answer == Stale)
                ::close(listener);
            else if (row.answer != NoDaemon && !bare)
                daemon = std::make_unique<PlayedDaemon>(
                    basedir + "quelt.sock", [&](const std::string& request) {
                        EXPECT_TRUE(std::regex_match(
                            request, std::regex("CHECK " + basedir + "msgs/[^/\n]+\n")))
                            << request;
                        entry = request.substr(6, request.size() - 7);
                        const std::string tree = row.copy == Nested ? "/a/b/c" : Deep;
                        if ((row.copy == Nested || row.copy == TooDeep) &&
                            fs::create_directories(entry + tree))
                            WriteFile(entry + tree + "/d", "planted");
                        else if (row.copy == Missing)
                            fs::remove(entry + "/.msg");
                        else if (row.Rewrites())
                            WriteFile(entry + "/.msg", row.copy);
                        return row.answer;
                    });
            run = RunProgram(Args(args), Fill(row.input), work);
            if (row.answer == Silent)
                ::close(listener);
        }
        EXPECT_EQ(run.out, Fill(row.expect.out));
        EXPECT_EQ(run.err, Fill(row.expect.err));
        EXPECT_EQ(run.status, row.expect.status);
        EXPECT_TRUE(ReadFile(spool) == (row.after.empty() ? row.spool : row.after)) << "spool";
        EXPECT_TRUE(fs::is_empty(work)) << "something was made in the working directory";
        ASSERT_EQ(EntryCount(), row.entries);
        if (row.entries > 0 && row.copy == Keep)
            ExpectEntryFiles(row, fs::directory_iterator(basedir + "msgs")->path().string());
        const std::string log = basedir + "zmailer.log",
                          sizes = "orig_size = " + std::to_string(row.spool.size() - E.size()) +
                                  " st.st_size=" + std::to_string(row.copy.size()) +
                                  " env_size=" + std::to_string(E.size()) + "\n";
        EXPECT_TRUE(!row.Rewrites() || ReadFile(log).find(sizes) != std::string::npos) << sizes;
        EXPECT_TRUE(!fs::exists(log) || (ModeOf(log) & 0007) == 0) << "the log is not others'";
        EXPECT_TRUE(std::regex_search(ReadFile(log), std::regex(Fill(row.logged)))) << row.logged;
    }
}

// Help wins over every other option and lists them all as help.txt does.
// The layout is the option library's, so runs of white space compare as one.
TEST_F(FilterRun, HelpListsEveryOption)
{
    RunResult help = RunProgram({VOREX_ZMAILER, "--interface", "7", "-v", "-h", "-e", "bogus"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: vorex-zmailer [options] address\n\nAll options:\n", 0), 0u);
    const std::regex blanks("\\s+");
    EXPECT_EQ(std::regex_replace(help.out, blanks, " "),
              std::regex_replace(ReadFile(HELP_TEXT), blanks, " "));
}

} // namespace
