// tests/quelt-refd/EngineTest.cpp: the real filter in front of quelt-refd
// with real engines: verdicts, notes and the spool files' bytes after each
// run, and an engine that dies between two messages.
#include <gtest/gtest.h>

#include "Engines.h"
#include "support/FilterSandbox.h"
#include "support/RefDaemon.h"

namespace
{

Clamd* clamd = nullptr;
Spamd* spamd = nullptr;

// One start of each engine for the whole executable.
class EngineEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        clamdOwner = std::make_unique<Clamd>();
        spamdOwner = std::make_unique<Spamd>();
        clamd = clamdOwner.get();
        spamd = spamdOwner.get();
    }
    void TearDown() override
    {
        clamdOwner.reset();
        spamdOwner.reset();
    }

private:
    std::unique_ptr<Clamd> clamdOwner;
    std::unique_ptr<Spamd> spamdOwner;
};
const auto* const environment = ::testing::AddGlobalTestEnvironment(new EngineEnvironment);

const std::string Gtube = "XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-ANTI-UBE-TEST-EMAIL*C.34X";

std::string Sample(const std::string& name)
{
    return ReadFile(std::string(EXAMPLE_SPOOL) + "/" + name);
}

// The spool file with the values of the X-Spam-* fields (which name the
// host, the time and the rules that hit) replaced by "*".
std::string MaskSpamValues(const std::string& spool)
{
    std::string masked;
    bool inSpamField = false;
    std::size_t at = 0;
    while (at < spool.size()) {
        std::size_t end = spool.find('\n', at);
        end = end == std::string::npos ? spool.size() : end + 1;
        const std::string line = spool.substr(at, end - at);
        const bool continuation = line[0] == '\t' || line[0] == ' ';
        inSpamField = continuation ? inSpamField : line.compare(0, 7, "X-Spam-") == 0;
        if (!inSpamField)
            masked += line;
        else if (!continuation)
            masked += line.substr(0, line.find(':')) + ": *\n";
        at = end;
    }
    return masked;
}

class Engines : public ::testing::Test, protected FilterSandbox
{
};

TEST_F(Engines, VerdictsAndSpoolBytes)
{
    const std::string clean = Sample("01-clean.spool");
    const std::string attachment = Sample("05-eicar-attachment.spool");
    const std::string envEnd = "env-end\n";
    const std::string gtube = clean.substr(0, clean.find("\n\n") + 2) + Gtube + "\n";
    std::string large = clean.substr(0, clean.find("\n\n") + 2);
    for (int line = 0; large.size() < 100 * 1024; ++line)
        large += std::to_string(line * 7919) + " varied content for clamd's limits\n";
    const struct {
        const char* name;
        std::string spool;
        std::string reply;
        std::string spoolAfter; // masked
    } rows[] = {
        {"clean", clean, PassLine + " clean",
         clean.substr(0, clean.find(envEnd) + envEnd.size()) +
             "X-Spam-Checker-Version: *\nX-Spam-Level: *\nX-Spam-Status: *\n" +
             clean.substr(clean.find(envEnd) + envEnd.size())},
        {"virusAttachment", attachment, RejectLine + " infected: eicar.com.UNOFFICIAL", attachment},
        {"gtube", gtube, RejectLine + " spam: score *", gtube},
        {"overClamdLimits", large,
         TempfailLine + " not checked: Heuristics.Limits.Exceeded.MaxFileSize", large},
    };
    RefDaemon daemon(basedir,
                     {"--clamd", clamd->socket, "--spamd", spamd->socket, "--spam-reject", "20"});
    std::string jobs, replies;
    for (const auto& row : rows) {
        jobs += Spool(row.name, row.spool) + "\n";
        replies += row.reply + "\n";
    }
    RunResult run = RunProgram(Args({"--interface", "0"}), jobs);
    // The spam score varies with the rules that hit besides GTUBE.
    const std::size_t score = run.out.find("spam: score ") + 12;
    if (score > 12)
        run.out.replace(score, run.out.find("/20\n", score) + 3 - score, "*");
    EXPECT_EQ(run.out, replies);
    EXPECT_EQ(run.status, 0) << run.err;
    for (const auto& row : rows)
        EXPECT_EQ(MaskSpamValues(ReadFile(root + "/" + row.name)), row.spoolAfter) << row.name;
}

// Over TCP the message streams (zINSTREAM); past clamd's StreamMaxLength
// clamd's ERROR answer is a daemon error, not a pass.
TEST_F(Engines, ClamdOverTcp)
{
    const std::string attachment = Sample("05-eicar-attachment.spool");
    const std::string large = attachment + std::string(100 * 1024, 'x') + "\n";
    RefDaemon daemon(basedir, {"--clamd", clamd->tcpAddress});
    RunResult run = RunProgram(Args({"--interface", "0", "--error-action", "tempfail"}),
                               Spool("virus", attachment) + "\n" + Spool("large", large) + "\n");
    EXPECT_EQ(run.out, RejectLine + " infected: eicar.com.UNOFFICIAL\n" + TempfailLine +
                           " Internal error\n");
    EXPECT_EQ(ReadFile(root + "/large"), large);
}

TEST_F(Engines, ClamdKilledMidRunGivesTheErrorAction)
{
    Clamd ownClamd;
    const std::string clean = Sample("01-clean.spool");
    RefDaemon daemon(basedir, {"--clamd", ownClamd.socket});
    ChildProcess filter(Args({"--error-action", "tempfail"}));
    EXPECT_EQ(filter.ReadStdoutUntil(Hungry), Hungry);
    filter.Write(Spool("first", clean) + "\n");
    EXPECT_EQ(filter.ReadStdoutUntil(Hungry), PassLine + " clean\n" + Hungry);
    ownClamd.Kill();
    filter.Write(Spool("second", clean) + "\n");
    // The filter answers its error action and ends, as for any failed job.
    std::string rest;
    EXPECT_EQ(filter.Wait(&rest), 1);
    EXPECT_EQ(rest, TempfailLine + " Internal error\n");
    EXPECT_EQ(ReadFile(root + "/second"), clean);
}

} // namespace
