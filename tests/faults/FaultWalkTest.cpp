// tests/faults/FaultWalkTest.cpp: every failure point of five real filter
// jobs, one at a time. The real vorex-zmailer runs in content-filter mode with
// the fault library preloaded; for each call family the clean run made and
// each errno, the Nth call fails, for N = 1, 2, ... until the fault no longer
// fires. Each run starts from a fresh copy of the spool file and an empty
// entries folder, and must end in one of the outcomes the filter promises:
//  - exactly as without the fault: for EINTR on a call the program retries,
//    and for failures the program ignores by design (a log write, handing
//    the entry to the daemon's account, the flush after a rewrite);
//  - the reply lost without notice, when the reply's own write fails, or
//    the standard-error line, when its write fails;
//  - otherwise the error action: the job's reply if it was already written,
//    then the tempfail line with " Internal error", one "error: " line on
//    standard error, status 1;
// with the spool file untouched or in the state documented for the failing
// step, no entry left behind unless the verdict keeps it, and nothing
// written outside the base directory and the spool file.
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "quelt-refd/Engines.h"
#include "support/FilterSandbox.h"
#include "support/PlayedDaemon.h"
#include "support/RefDaemon.h"

namespace
{

namespace fs = boost::filesystem;

const std::string ErrorReply = TempfailLine + " Internal error\n";
// Before the options are read no error action is known; the driver then
// answers the pass line.
const std::string StartUpErrorReply = PassLine + " Internal error\n";
const int Errnos[] = {ENOSPC, EIO, EINTR};
// The program retries these when they are interrupted: the write-all helper,
// the block copy's reads, the in-kernel copy, the space reservation, the
// daemon conversation (and the log back end's own writes).
const std::set<std::string> RetriedOnEintr = {
    "read", "write", "copy_file_range", "fallocate", "connect", "send", "recv"};
// No job makes anywhere near this many calls of one family; reaching it
// means the fault kept firing, and the walk stops with a failure.
constexpr long WalkBound = 300;

const std::string Envelope = "external\nrcvdfrom mx.example.org (mx.example.org [192.0.2.1]:4000)\n"
                             "from <alice@example.org>\nto <bob@example.net>\nenv-end\n";
const std::string FromLine = "From: Alice <alice@example.org>\n";
const std::string OtherHeaders = "To: bob@example.net\nSubject: walk\n\n";
const std::string Plain = Envelope + FromLine + OtherHeaders;
// Three blocks of the program's 128 KiB copy, so that a copy can fail after
// some of the bytes have moved.
// Numbered lines: a block moved to the wrong place never matches.
const std::string LargeBody = [] {
    std::string body;
    for (int i = 0; body.size() < 300 * 1024; ++i)
        body += "line " + std::to_string(i) + " of the walk body, no two alike\n";
    return body;
}();
// The shrinking daemon's copy: a changed header part and half of the body.
const std::string ShrunkMessage = "Subject: shrunk\n\n" + LargeBody.substr(0, 150 * 1024);

struct Job {
    const char* name;
    bool shrinking; // the played daemon that shrinks the message, else quelt-refd
    std::vector<std::string> extraArgs;
    std::string spool;
    // The job's reply line; empty for a job line naming a file that is not
    // there: the job fails, and the walk covers the driver's failure handler.
    std::string reply;
    std::size_t entriesKept;
    std::string after; // the spool file after the clean run
};

// clang-format off
const Job Jobs[] = {
    {"ChangedContent", false, {}, Plain + LargeBody, PassLine + " clean\n", 0,
     Envelope + "X-Vorex-Checked: clean\n" + FromLine + OtherHeaders + LargeBody},
    {"HashRemoval", false, {"--hash", "s3cret"},
     Envelope + FromLine + "X-Vorex-Hash: s3cret\n" + OtherHeaders + LargeBody, PassLine + "\n", 0,
     Plain + LargeBody},
    {"Reject", false, {}, Plain + Eicar + "\n", RejectLine + " infected: EICAR-Test-File\n", 1,
     Plain + Eicar + "\n"},
    {"ShrunkContent", true, {}, Plain + LargeBody, PassLine + " shrunk\n", 0,
     Envelope + ShrunkMessage},
    {"MissingFile", false, {}, Plain, "", 0, Plain},
};
// clang-format on

// Rows name themselves in failure messages.
void PrintTo(const Job& job, std::ostream* os)
{
    *os << job.name;
}

// The daemon played for a write-back that makes the message smaller
// (quelt-refd only ever adds a line): the entry's .msg becomes the shrunk
// copy, answered "513 shrunk" (pass, headers and body changed).
std::string Shrink(const std::string& request)
{
    if (request.rfind("CHECK ", 0) != 0)
        return "";
    const std::string msgPath = request.substr(6, request.size() - 7) + "/.msg";
    // A filter whose conversation failed has withdrawn the entry by now.
    if (!fs::exists(msgPath))
        return "";
    WriteFile(msgPath, ShrunkMessage);
    return "513 shrunk\n";
}

// Whether file is a state the spool file passes through while a job
// rewrites it front to back, from the first byte the job changes on, into
// after: the original's bytes up to there, a prefix of the rewritten rest,
// the original from where that prefix ends. The length tells the prefix when
// the file grew; otherwise the shortest that leaves the original's tail is
// tried (any longer one that fits gives the same bytes). complete: the
// rewrite must have finished (a failed truncate leaves the old tail).
bool IsRewriteState(const std::string& file, const std::string& original, const std::string& after,
                    bool complete)
{
    const std::size_t at =
        std::mismatch(original.begin(), original.end(), after.begin(), after.end()).first -
        original.begin();
    std::size_t end = file.size();
    if (file.size() == original.size())
        while (end > at && file[end - 1] == original[end - 1])
            --end;
    const std::size_t m = complete ? after.size() - at : end - at;
    return file.size() >= original.size() && m <= after.size() - at &&
           original.substr(0, at) + after.substr(at, m) +
                   original.substr(std::min(at + m, original.size())) ==
               file;
}

std::string Field(const std::string& line, const std::string& name)
{
    std::smatch match;
    return std::regex_search(line, match, std::regex(" " + name + "=(\\S*)")) ? match[1].str() : "";
}

class FaultWalk : public ::testing::TestWithParam<Job>, protected FilterSandbox
{
protected:
    void SetUp() override
    {
        fs::create_directories(work);
        const passwd* self = ::getpwuid(::geteuid());
        user = self != nullptr ? self->pw_name : "";
        if (!GetParam().shrinking)
            refd = std::make_unique<RefDaemon>(
                basedir, std::vector<std::string>{"--add-header", "X-Vorex-Checked: clean"});
    }

    // Everything under the test's root that is neither the base directory's
    // known parts, an entry directory with its two files, nor the spool file.
    std::vector<std::string> StrayPaths() const
    {
        static const std::regex known(
            R"(base|base/msgs|base/quelt\.sock|base/zmailer\.log|spool|work|)"
            R"(base/msgs/[^/]+/\.(envelope|msg|decision|original))");
        static const std::regex entry("base/msgs/[^/]+");
        std::vector<std::string> stray;
        for (fs::recursive_directory_iterator it(root), end; it != end; ++it) {
            const std::string relative = it->path().string().substr(root.size() + 1);
            if (!std::regex_match(relative, known) &&
                !(std::regex_match(relative, entry) && fs::is_directory(it->path())))
                stray.push_back(relative);
        }
        return stray;
    }

    // Whether a kept entry holds the record of its message.
    bool RecordKept() const
    {
        for (const auto& item : fs::directory_iterator(basedir + "msgs"))
            if (fs::exists(item.path() / ".original"))
                return true;
        return false;
    }

    bool JobFails() const { return GetParam().reply.empty(); }
    std::string JobLine() const { return JobFails() ? root + "/missing" : spool; }

    // One run of the job, from a fresh spool file and an empty entries
    // folder, with the fault library preloaded and the fault planned; the
    // played daemon takes one conversation per run. Then the run's trace:
    // every path it names lies under the root (a relative name is resolved
    // in a directory opened under it, or in the working directory, which is
    // checked on its own); fired becomes the line of the call that failed,
    // if one did; the clean run's trace names the call families to walk.
    RunResult RunJob(const std::string& fault)
    {
        WriteFile(spool, GetParam().spool);
        fs::remove(tracePath);
        const fs::path msgs = basedir + "msgs";
        if (fs::exists(msgs))
            for (const fs::directory_entry& entry : fs::directory_iterator(msgs))
                fs::remove_all(entry.path());
        std::unique_ptr<PlayedDaemon> shrinking;
        if (GetParam().shrinking)
            shrinking = std::make_unique<PlayedDaemon>(basedir + "quelt.sock", Shrink);
        std::vector<std::string> args = {"--interface", "1", "--user", user, "-e", "tempfail"};
        args.insert(args.end(), GetParam().extraArgs.begin(), GetParam().extraArgs.end());
        const RunResult run =
            RunProgram(Args(args), JobLine() + "\n", work,
                       {std::string("LD_PRELOAD=") + VOREX_FAULT_LIBRARY, "VOREX_FAULT=" + fault,
                        "VOREX_FAULT_TRACE=" + tracePath});
        fired.clear();
        std::istringstream trace(ReadFile(tracePath));
        for (std::string line; std::getline(trace, line);) {
            std::string family, number, error;
            std::istringstream(line) >> family >> number >> error;
            if (fault.empty())
                families.insert(family);
            if (error != "-")
                fired = line + "\n";
            const std::string path = Field(line, "path");
            EXPECT_TRUE(path.empty() || path[0] != '/' || path.rfind(root + "/", 0) == 0)
                << "outside the tree: " << line;
        }
        return run;
    }

    // The run answered as expected; the files are as the clean run leaves them.
    void ExpectAsClean(const RunResult& run, const RunResult& expected)
    {
        EXPECT_EQ(run.out, expected.out);
        EXPECT_EQ(run.err, expected.err);
        EXPECT_EQ(run.status, expected.status);
        EXPECT_TRUE(ReadFile(spool) == GetParam().after) << "spool file differs from the clean run";
        EXPECT_EQ(EntryCount(), GetParam().entriesKept);
    }

    // Judges one run by where the fault hit (fired, the trace line of the
    // failed call); returns a one-letter outcome for the summary: - the fault never
    // fired, S as without it, L reply lost, E error action.
    char Judge(const std::string& family, int error, const RunResult& run)
    {
        const std::string caller = Field(fired, "caller"), path = Field(fired, "path");
        const std::string fd = Field(fired, "fd"), entries = basedir + "msgs/";
        // A log line ("%-7r [%t] ...") on its way to the log file.
        static const std::regex logLine("[0-9]+\\.+\\[.*");
        const bool logBackEnd =
            caller.find("libapr") != std::string::npos ||
            caller.find("liblog4cxx") != std::string::npos ||
            (family == "write" && std::regex_match(Field(fired, "bytes"), logLine));
        if (fired.empty()) {
            ExpectAsClean(run, clean); // past the last call
            return '-';
        }
        if ((error == EINTR && RetriedOnEintr.count(family) != 0) || logBackEnd ||
            family == "fsync" ||
            (family == "open" && path.rfind(entries, 0) == 0 &&
             path.find('/', entries.size()) == std::string::npos)) {
            // Retried; or ignored by design: a log line that cannot be
            // written is lost (it never changes an answer, not even in the
            // failure handler, which logs too; when log4cxx cannot open its
            // file, it complains on standard error), the flush after a
            // rewrite is advisory, SetOwner's failure (the open of the entry
            // directory) is logged and its result ignored.
            static const std::regex complaint("log4cxx: [^\n]*\n");
            const std::string err =
                logBackEnd ? std::regex_replace(run.err, complaint, "") : run.err;
            ExpectAsClean({run.out, err, run.status}, clean);
            return 'S';
        }
        if (GetParam().entriesKept > 0 && run.out == clean.out && run.err == clean.err &&
            run.status == clean.status && !RecordKept()) {
            // The kept message's record (".original") could not be made:
            // logged, and the entry stays without one (a release refuses
            // it); the reply and the spool file are those of the clean run.
            ExpectAsClean(run, clean);
            return 'R';
        }
        if (family == "write" && fd == "1" && Field(fired, "bytes").rfind("#hungry", 0) != 0) {
            // The reply line that the job (or, for a failing job, the
            // driver) wrote is missing; everything else stays.
            ExpectAsClean(run, {JobFails() ? Hungry : Hungry + Hungry, clean.err, clean.status});
            return 'L';
        }
        if (family == "write" && fd == "2") {
            // The driver's standard-error line is lost; reply and status stay.
            ExpectAsClean(run, {clean.out, "", 1});
            return 'L';
        }
        EXPECT_TRUE(run.err.rfind("error: ", 0) == 0 && run.err.find('\n') == run.err.size() - 1)
            << "standard error: one line \"error: ...\", not: " << run.err;
        if (run.out == Hungry + GetParam().reply + ErrorReply) {
            // Failed after the job's own reply: the job had finished.
            ExpectAsClean(run, {run.out, run.err, 1});
            return 'E';
        }
        EXPECT_EQ(run.status, 1);
        EXPECT_TRUE(run.out == Hungry + ErrorReply || run.out == ErrorReply ||
                    run.out == StartUpErrorReply)
            << "standard output: " << run.out;
        EXPECT_EQ(EntryCount(), 0u) << "a failed job withdraws its entry";
        // The spool file is untouched, or part way through the rewrite: the
        // write-back of the message part, or the rest moving up over the
        // hash line.
        EXPECT_TRUE(IsRewriteState(ReadFile(spool), GetParam().spool, GetParam().after,
                                   family == "truncate"))
            << "spool file damaged beyond its documented states";
        return 'E';
    }

    TempDir scratch;
    const std::string work = root + "/work";
    const std::string spool = root + "/spool";
    const std::string tracePath = scratch / "trace";
    std::string user;
    std::unique_ptr<RefDaemon> refd;
    RunResult clean;
    std::set<std::string> families;
    std::string fired;
};

TEST_P(FaultWalk, EveryFailurePointKeepsMailSafe)
{
    const Job& job = GetParam();

    // Without a fault: the job's reply, the spool file as the job leaves it.
    clean = RunJob("");
    const std::string missing =
        "error: can not open file " + JobLine() + " for read/write:No such file or directory\n";
    ExpectAsClean(clean, JobFails() ? RunResult{Hungry + ErrorReply, missing, 1}
                                    : RunResult{Hungry + job.reply + Hungry, "", 0});
    ASSERT_FALSE(HasFailure()) << "the clean run";
    ASSERT_TRUE(families.count("write") != 0) << "no trace of the clean run";
    EXPECT_EQ(StrayPaths(), std::vector<std::string>());

    // Per family, per errno: one letter per failure point, then '-'.
    std::string outcomes;
    for (const std::string& family : families) {
        outcomes += " " + family + ":";
        for (const int error : Errnos) {
            for (long n = 1;; ++n) {
                ASSERT_LT(n, WalkBound) << family << ":" << error << " never stopped firing";
                const std::string fault =
                    family + ":" + std::to_string(n) + ":" + std::to_string(error);
                const RunResult run = RunJob(fault);
                SCOPED_TRACE(std::string(job.name) + " " + fault + " (" + std::strerror(error) +
                             ") fired at: " + (fired.empty() ? "(nothing)\n" : fired) +
                             "stdout: " + run.out + "stderr: " + run.err);
                ASSERT_FALSE(run.hung) << "the filter hung";
                outcomes += Judge(family, error, run);
                EXPECT_EQ(StrayPaths(), std::vector<std::string>());
                EXPECT_TRUE(fs::is_empty(work)) << "written into the working directory";
                if (HasFailure())
                    return;
                if (fired.empty())
                    break;
            }
        }
    }
    std::cout << "[ walk ] " << job.name << outcomes << "\n";
}

// A flush that fails after a rewrite: the message passes all the same, the
// failure is in the filter's log at error level and in the daemon's log and
// count.
TEST(FlushFailure, LoggedAndCountedVerdictKept)
{
    FilterSandbox sandbox;
    const std::string port = std::to_string(FreePort());
    RefDaemon daemon(sandbox.basedir,
                     {"--add-header", "X-Vorex-Checked: clean", "--metrics", "127.0.0.1:" + port});
    const Job& job = Jobs[0];
    const std::string spool = sandbox.Spool("spool", job.spool);
    const RunResult run =
        RunProgram(sandbox.Args({"--interface", "1", "-e", "tempfail"}), spool + "\n", sandbox.root,
                   {std::string("LD_PRELOAD=") + VOREX_FAULT_LIBRARY,
                    "VOREX_FAULT=fsync:1:" + std::to_string(EIO)});
    EXPECT_EQ(run.out, Hungry + job.reply + Hungry);
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(ReadFile(spool) == job.after) << "spool file differs from the clean run";
    EXPECT_EQ(sandbox.EntryCount(), 0u);
    EXPECT_TRUE(std::regex_search(
        ReadFile(sandbox.basedir + "zmailer.log"),
        std::regex("ERROR [^\n]* - fsync error:Input/output error for file " + spool + "\n")))
        << ReadFile(sandbox.basedir + "zmailer.log");
    const std::string said = "flush of the rewritten spool file failed";
    EXPECT_NE(daemon.ReadLogUntil(said).find(said), std::string::npos);
    const std::string text =
        RunProgram({"/usr/bin/curl", "-sf", "http://127.0.0.1:" + port + "/metrics"}).out;
    EXPECT_NE(text.find("\nquelt_spool_fsync_failures_total 1\n"), std::string::npos) << text;
}

INSTANTIATE_TEST_SUITE_P(Jobs, FaultWalk, ::testing::ValuesIn(Jobs),
                         ::testing::PrintToStringParamName());

} // namespace
