// tests/quelt-refd/EngineTest.cpp: the real filter in front of quelt-refd
// with real engines: verdicts, notes and the spool files' bytes after each
// run, and an engine that dies between two messages.
#include <regex>

#include <gtest/gtest.h>

#include "Engines.h"
#include "support/FilterSandbox.h"
#include "support/RefDaemon.h"

namespace
{

// One start of each engine for the whole executable, stopped at its exit.
struct SharedEngines {
    Clamd clamd;
    Spamd spamd;
};
SharedEngines& Shared()
{
    static SharedEngines engines;
    return engines;
}

const std::string Gtube = "XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-ANTI-UBE-TEST-EMAIL*C.34X";
const std::string Virus = RejectLine + " infected: eicar.com.UNOFFICIAL\n";

const std::string Clean = ReadFile(EXAMPLE_SPOOL "/01-clean.spool");
const std::string Infected = ReadFile(EXAMPLE_SPOOL "/05-eicar-attachment.spool");

class Engines : public ::testing::Test, protected FilterSandbox
{
};

TEST_F(Engines, VerdictsAndSpoolBytes)
{
    const std::size_t envEnd = Clean.find("env-end\n") + 8, head = Clean.find("\n\n") + 2;
    const std::string gtube = Clean.substr(0, head) + Gtube + "\n";
    std::string large = Clean.substr(0, head);
    for (int line = 0; large.size() < 100 * 1024; ++line)
        large += std::to_string(line * 7919) + " varied content for clamd's limits\n";
    const std::string spam = "X-Spam-Checker-Version: *\nX-Spam-Level: *\nX-Spam-Status: *\n";
    // The spool file afterwards, with the values of the X-Spam-* fields
    // (host, time, rules that hit) masked.
    const struct {
        const char* name;
        std::string spool, reply, after;
    } rows[] = {
        {"clean", Clean, PassLine + " clean\n",
         Clean.substr(0, envEnd) + spam + Clean.substr(envEnd)},
        {"virusAttachment", Infected, Virus, Infected},
        {"gtube", gtube, RejectLine + " spam: score *\n", gtube},
        {"overClamdLimits", large,
         TempfailLine + " not checked: Heuristics.Limits.Exceeded.MaxFileSize\n", large},
    };
    RefDaemon daemon(basedir, {"--clamd", Shared().clamd.socket, "--spamd", Shared().spamd.socket,
                               "--spam-reject", "20"});
    std::string jobs, replies;
    for (const auto& row : rows) {
        jobs += Spool(row.name, row.spool) + "\n";
        replies += row.reply;
    }
    RunResult run = RunProgram(Args({"--interface", "0"}), jobs);
    // The spam score varies with the rules that hit besides GTUBE.
    EXPECT_EQ(std::regex_replace(run.out, std::regex("score [-0-9.]+/20\n"), "score *\n"), replies);
    EXPECT_EQ(run.status, 0) << run.err;
    const std::regex spamField("(^|\n)(X-Spam-[^:\n]*):[^\n]*(\n[ \t][^\n]*)*");
    for (const auto& row : rows)
        EXPECT_EQ(std::regex_replace(ReadFile(root + "/" + row.name), spamField, "$1$2: *"),
                  row.after)
            << row.name;
}

// Over TCP the message streams (zINSTREAM); past clamd's StreamMaxLength
// clamd's ERROR answer is a daemon error, not a pass. Then a clamd killed
// between two messages: the error action, the spool file untouched.
TEST_F(Engines, ClamdOverTcpAndClamdKilled)
{
    const std::string large = Infected + std::string(100 * 1024, 'x') + "\n";
    const std::vector<std::string> args = Args({"--interface", "0", "--error-action", "tempfail"});
    {
        RefDaemon daemon(basedir, {"--clamd", Shared().clamd.tcpAddress});
        RunResult run =
            RunProgram(args, Spool("virus", Infected) + "\n" + Spool("large", large) + "\n");
        EXPECT_EQ(run.out, Virus + TempfailLine + " Internal error\n");
        EXPECT_EQ(ReadFile(root + "/large"), large);
    }
    Clamd ownClamd;
    RefDaemon daemon(basedir, {"--clamd", ownClamd.socket});
    ChildProcess filter(FilterSandbox::Args({"--error-action", "tempfail"}));
    EXPECT_EQ(filter.ReadStdoutUntil(Hungry), Hungry);
    filter.Write(Spool("first", Clean) + "\n");
    EXPECT_EQ(filter.ReadStdoutUntil(Hungry), PassLine + " clean\n" + Hungry);
    ownClamd.Kill();
    filter.Write(Spool("second", Clean) + "\n");
    std::string rest; // the filter answers its error action and ends
    EXPECT_EQ(filter.Wait(&rest), 1);
    EXPECT_EQ(rest, TempfailLine + " Internal error\n");
    EXPECT_EQ(ReadFile(root + "/second"), Clean);
}

} // namespace
