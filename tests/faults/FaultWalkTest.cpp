// tests/faults/FaultWalkTest.cpp: every failure point of five real filter
// jobs, one at a time. The real vorex-zmailer runs in content-filter mode with
// the fault library preloaded; for each intercepted call and errno, the Nth
// call fails, for N = 1, 2, ... until the fault no longer fires. Each run
// starts from a fresh copy of the spool file and an empty entries folder, and
// must end in one of the outcomes the filter promises:
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

#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

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

const char* const Families[] = {
    "open",  "openat",  "read", "write", "lseek",  "fstat", "copy_file_range", "truncate", "fsync",
    "mkdir", "connect", "send", "recv",  "fclose", "fopen"};
const char* const Errnos[] = {"ENOSPC", "EIO", "EINTR"};
// The program retries these when they are interrupted: the write-all helper,
// the block copy's reads, the in-kernel copy, the daemon conversation (and
// the log back end's own writes).
const std::set<std::string> RetriedOnEintr = {"read",    "write", "copy_file_range",
                                              "connect", "send",  "recv"};
// No job makes anywhere near this many calls of one family; reaching it
// means the fault kept firing, and the walk stops with a failure.
constexpr long WalkBound = 300;

std::string Body(std::size_t size)
{
    // Numbered lines: a block moved to the wrong place never matches.
    std::string body;
    for (int i = 0; body.size() < size; ++i)
        body += "line " + std::to_string(i) + " of the walk body, no two alike\n";
    return body;
}

const std::string Envelope = "external\n"
                             "rcvdfrom mx.example.org (mx.example.org [192.0.2.1]:4000)\n"
                             "from <alice@example.org>\n"
                             "to <bob@example.net>\n"
                             "env-end\n";
const std::string FromLine = "From: Alice <alice@example.org>\n";
const std::string OtherHeaders = "To: bob@example.net\nSubject: walk\n\n";
const std::string HashLine = "X-Vorex-Hash: s3cret\n";
// Three blocks of the program's 128 KiB copy, so that a copy can fail after
// some of the bytes have moved.
const std::string LargeBody = Body(300 * 1024);

// The shrinking daemon's copy: a changed header part and half of the body.
const std::string ShrunkMessage = "Subject: shrunk\n\n" + LargeBody.substr(0, 150 * 1024);
const std::string Plain = Envelope + FromLine + OtherHeaders;
const std::string WithHash = Envelope + FromLine + HashLine + OtherHeaders;

enum class Daemon { Refd, Shrinking };
// What the job does to the spool file when it succeeds.
enum class Change { None, CutHashLine, WriteBack };

struct Job {
    const char* name;
    Daemon daemon;
    std::string extraArgs;
    std::string spool;
    // The job's reply line; empty for a job line naming a file that is not
    // there: the job fails, and the walk covers the driver's failure handler.
    std::string reply;
    std::size_t entriesKept;
    Change change;
    std::string after; // the spool file after the clean run
};

const Job Jobs[] = {
    {"ChangedContent", Daemon::Refd, "", Plain + LargeBody, PassLine + " clean\n", 0,
     Change::WriteBack,
     Envelope + "X-Vorex-Checked: clean\n" + FromLine + OtherHeaders + LargeBody},
    {"HashRemoval", Daemon::Refd, "--hash s3cret", WithHash + LargeBody, PassLine + "\n", 0,
     Change::CutHashLine, Plain + LargeBody},
    {"Reject", Daemon::Refd, "", Plain + Eicar + "\n", RejectLine + " infected: EICAR-Test-File\n",
     1, Change::None, Plain + Eicar + "\n"},
    {"ShrunkContent", Daemon::Shrinking, "", Plain + LargeBody, PassLine + " shrunk\n", 0,
     Change::WriteBack, Envelope + ShrunkMessage},
    {"MissingFile", Daemon::Refd, "", Plain, "", 0, Change::None, Plain},
};

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
    const std::string verb = "CHECK ";
    if (request.compare(0, verb.size(), verb) != 0)
        return "";
    const std::string msgPath =
        request.substr(verb.size(), request.size() - verb.size() - 1) + "/.msg";
    // A filter whose conversation failed has withdrawn the entry by now.
    if (!boost::filesystem::exists(msgPath))
        return "";
    WriteFile(msgPath, ShrunkMessage);
    return "513 shrunk\n";
}

// A file partly rewritten by a front-to-back copy: original's first `at`
// bytes, then the first m bytes of source, then original from at + m on.
std::string CopyState(const std::string& original, std::size_t at, const std::string& source,
                      std::size_t m)
{
    std::string state = original.substr(0, at) + source.substr(0, m);
    if (at + m < original.size())
        state += original.substr(at + m);
    return state;
}

// Whether file is CopyState(original, at, source, m) for some m; the
// smallest such m is the one tried (any larger one that fits gives the same
// bytes).
bool IsCopyState(const std::string& file, const std::string& original, std::size_t at,
                 const std::string& source)
{
    std::size_t m = 0;
    if (file.size() > original.size()) {
        if (file.size() < at)
            return false;
        m = file.size() - at;
    } else if (file.size() == original.size()) {
        std::size_t same = 0;
        while (same < file.size() &&
               file[file.size() - 1 - same] == original[file.size() - 1 - same])
            ++same;
        const std::size_t firstKept = file.size() - same;
        m = firstKept > at ? firstKept - at : 0;
    } else {
        return false;
    }
    return m <= source.size() && CopyState(original, at, source, m) == file;
}

std::string Field(const std::string& marker, const std::string& name)
{
    const std::size_t at = marker.find(" " + name + "=");
    if (at == std::string::npos)
        return "";
    const std::size_t from = at + name.size() + 2;
    return marker.substr(from, marker.find_first_of(" \n", from) - from);
}

// Where a fault hit, as far as the expected outcome depends on it.
enum class Site { LogBackEnd, Reply, ErrorLine, OwnerHandOver, Flush, Other };

class FaultWalk : public ::testing::TestWithParam<Job>, protected FilterSandbox
{
protected:
    void SetUp() override
    {
        fs::create_directories(work);
        const passwd* self = ::getpwuid(::geteuid());
        user = self != nullptr ? self->pw_name : "";
        if (GetParam().daemon == Daemon::Refd)
            refd = std::make_unique<RefDaemon>(
                basedir, std::vector<std::string>{"--add-header", "X-Vorex-Checked: clean"});
    }

    std::vector<std::string> Argv() const
    {
        std::vector<std::string> extra = {"--interface", "1", "--user", user, "-e", "tempfail"};
        std::istringstream words(GetParam().extraArgs);
        for (std::string word; words >> word;)
            extra.push_back(word);
        return Args(extra);
    }

    // This environment with the fault library preloaded and its plan.
    std::vector<std::string> Environment(const std::string& fault, bool trace) const
    {
        std::vector<std::string> env = {std::string("LD_PRELOAD=") + VOREX_FAULT_LIBRARY,
                                        "VOREX_FAULT_MARKER=" + markerPath, "VOREX_FAULT=" + fault,
                                        "VOREX_FAULT_TRACE=" + (trace ? tracePath : "")};
        for (char** entry = environ; *entry != nullptr; ++entry)
            if (std::strncmp(*entry, "LD_PRELOAD=", 11) != 0 &&
                std::strncmp(*entry, "VOREX_FAULT", 11) != 0)
                env.push_back(*entry);
        return env;
    }

    // A fresh spool file and an empty entries folder.
    void Reset()
    {
        WriteFile(spool, GetParam().spool);
        fs::remove(markerPath);
        const fs::path msgs = basedir + "msgs";
        if (fs::exists(msgs))
            for (const fs::directory_entry& entry : fs::directory_iterator(msgs))
                fs::remove_all(entry.path());
    }

    // Everything under the test's root that is neither the base directory's
    // known parts, an entry directory with its two files, nor the spool file.
    std::vector<std::string> StrayPaths() const
    {
        static const std::regex known(
            R"(base|base/msgs|base/quelt\.sock|base/zmailer\.log|spool|work|base/msgs/[^/]+/\.(envelope|msg))");
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

    bool JobFails() const { return GetParam().reply.empty(); }
    std::string JobLine() const { return JobFails() ? root + "/missing" : spool; }

    // One run of the job; the played daemon takes one conversation per run.
    RunResult RunJob(const std::string& fault, bool trace = false)
    {
        std::unique_ptr<PlayedDaemon> shrinking;
        if (GetParam().daemon == Daemon::Shrinking)
            shrinking = std::make_unique<PlayedDaemon>(basedir + "quelt.sock", Shrink);
        return RunProgram(Argv(), JobLine() + "\n", work, Environment(fault, trace));
    }

    Site SiteOf(const std::string& family, const std::string& marker) const
    {
        const std::string caller = Field(marker, "caller");
        if (caller.find("libapr") != std::string::npos ||
            caller.find("liblog4cxx") != std::string::npos)
            return Site::LogBackEnd;
        if (family == "write" && Field(marker, "fd") == "1" &&
            Field(marker, "bytes").rfind("#hungry", 0) != 0)
            return Site::Reply;
        if (family == "write" && Field(marker, "fd") == "2")
            return Site::ErrorLine;
        const std::string path = Field(marker, "path");
        const std::string entries = basedir + "msgs/";
        if (family == "open" && path.rfind(entries, 0) == 0 &&
            path.find('/', entries.size()) == std::string::npos)
            return Site::OwnerHandOver;
        if (family == "fsync")
            return Site::Flush;
        return Site::Other;
    }

    // The spool file after a failed job: untouched, or in the state that the
    // failing step documents.
    bool SpoolInDocumentedState(const std::string& file, const std::string& family) const
    {
        const Job& job = GetParam();
        const std::string& original = job.spool;
        std::size_t at = 0;
        std::string source;
        switch (job.change) {
        case Change::None:
            return file == original;
        case Change::CutHashLine:
            // The rest moves up over the line; a failed truncate leaves the
            // last line-length bytes twice.
            at = original.find(HashLine);
            source = original.substr(at + HashLine.size());
            break;
        case Change::WriteBack:
            // The daemon's copy overwrites the message part; a failed
            // truncate leaves the old tail behind it.
            at = Envelope.size();
            source = job.after.substr(at);
            break;
        }
        if (family == "truncate")
            return file == CopyState(original, at, source, source.size());
        return IsCopyState(file, original, at, source);
    }

    // Standard error without the lines of log4cxx's own complaints, which it
    // writes when it cannot open the log file.
    static std::string WithoutLogComplaints(const std::string& err)
    {
        static const std::regex complaint("log4cxx: [^\n]*\n");
        return std::regex_replace(err, complaint, "");
    }

    // The run answered out, err and status; the files are as without a fault.
    void ExpectAsBaseline(const RunResult& run, const std::string& out, const std::string& err,
                          int status)
    {
        EXPECT_EQ(run.out, out);
        EXPECT_EQ(run.err, err);
        EXPECT_EQ(run.status, status);
        EXPECT_TRUE(ReadFile(spool) == baseline.spool) << "spool file differs from the clean run";
        EXPECT_EQ(EntryCount(), baseline.entries);
    }

    void ExpectErrorAction(const RunResult& run, const std::string& family)
    {
        EXPECT_TRUE(run.err.rfind("error: ", 0) == 0 && run.err.find('\n') == run.err.size() - 1)
            << "standard error: one line \"error: ...\", not: " << run.err;
        if (run.out == Hungry + GetParam().reply + ErrorReply) {
            // Failed after the job's own reply: the job had finished.
            ExpectAsBaseline(run, run.out, run.err, 1);
            return;
        }
        EXPECT_EQ(run.status, 1);
        EXPECT_TRUE(run.out == Hungry + ErrorReply || run.out == ErrorReply ||
                    run.out == StartUpErrorReply)
            << "standard output: " << run.out;
        EXPECT_EQ(EntryCount(), 0u) << "a failed job withdraws its entry";
        EXPECT_TRUE(SpoolInDocumentedState(ReadFile(spool), family))
            << "spool file damaged beyond its documented states";
    }

    // Judges one run with a fault that fired; returns a one-letter outcome
    // for the summary: S same, L reply lost, E error action.
    char Judge(const std::string& family, const std::string& error, const RunResult& run,
               const std::string& marker)
    {
        const Site site = SiteOf(family, marker);
        const RunResult& clean = baseline.run;
        if ((error == "EINTR" && RetriedOnEintr.count(family) != 0) ||
            site == Site::OwnerHandOver || site == Site::Flush || site == Site::LogBackEnd) {
            // Retried; or ignored by design: SetOwner's failure is logged and
            // its result ignored, the flush after a rewrite is advisory, a
            // log line that cannot be written is lost (it never changes an
            // answer, not even in the failure handler, which logs too).
            const std::string err =
                site == Site::LogBackEnd ? WithoutLogComplaints(run.err) : run.err;
            ExpectAsBaseline({run.out, err, run.status}, clean.out, clean.err, clean.status);
            return 'S';
        }
        if (site == Site::Reply) {
            // The reply line that the job (or, for a failing job, the
            // driver) wrote is missing; everything else stays.
            ExpectAsBaseline(run, JobFails() ? Hungry : Hungry + Hungry, clean.err, clean.status);
            return 'L';
        }
        if (site == Site::ErrorLine) {
            // The driver's standard-error line is lost; reply and status stay.
            ExpectAsBaseline(run, clean.out, "", 1);
            return 'L';
        }
        ExpectErrorAction(run, family);
        return 'E';
    }

    TempDir scratch;
    const std::string work = root + "/work";
    const std::string spool = root + "/spool";
    const std::string markerPath = scratch / "marker";
    const std::string tracePath = scratch / "trace";
    std::string user;
    std::unique_ptr<RefDaemon> refd;
    struct {
        RunResult run;
        std::string spool;
        std::size_t entries = 0;
    } baseline;
};

TEST_P(FaultWalk, EveryFailurePointKeepsMailSafe)
{
    const Job& job = GetParam();

    // Without a fault: the job's reply, the spool file as the job leaves it,
    // and only paths under the test's root touched.
    Reset();
    const RunResult clean = RunJob("", true);
    ASSERT_FALSE(clean.hung);
    ASSERT_EQ(clean.out, JobFails() ? Hungry + ErrorReply : Hungry + job.reply + Hungry);
    ASSERT_EQ(clean.err, JobFails() ? "error: can not open file " + JobLine() +
                                          " for read/write:No such file or directory\n"
                                    : "");
    ASSERT_EQ(clean.status, JobFails() ? 1 : 0);
    ASSERT_EQ(EntryCount(), job.entriesKept);
    ASSERT_TRUE(ReadFile(spool) == job.after) << "the spool file after the clean run";
    baseline = {clean, job.after, job.entriesKept};
    std::istringstream trace(ReadFile(tracePath));
    for (std::string line; std::getline(trace, line);) {
        const std::string path = Field(line, "path");
        // A relative name is resolved in a directory opened under the root
        // (or the working directory, which is checked below).
        EXPECT_TRUE(path.empty() || path[0] != '/' || path.rfind(root + "/", 0) == 0)
            << "outside the tree: " << line;
    }
    EXPECT_EQ(StrayPaths(), std::vector<std::string>());

    std::map<std::string, std::string> summary;
    long runs = 0;
    for (const char* family : Families) {
        for (const char* error : Errnos) {
            for (long n = 1;; ++n) {
                ASSERT_LT(n, WalkBound) << family << ":" << error << " never stopped firing";
                const std::string fault =
                    std::string(family) + ":" + std::to_string(n) + ":" + error;
                Reset();
                const RunResult run = RunJob(fault);
                ++runs;
                const std::string marker = ReadFile(markerPath);
                SCOPED_TRACE(std::string(job.name) + " " + fault +
                             " fired at: " + (marker.empty() ? "(nothing)\n" : marker) +
                             "stdout: " + run.out + "stderr: " + run.err);
                ASSERT_FALSE(run.hung) << "the filter hung";
                char outcome = '-';
                if (marker.empty())
                    ExpectAsBaseline(run, clean.out, clean.err, clean.status); // past the last call
                else
                    outcome = Judge(family, error, run, marker);
                EXPECT_EQ(StrayPaths(), std::vector<std::string>());
                EXPECT_TRUE(fs::is_empty(work)) << "written into the working directory";
                if (HasFailure())
                    return;
                if (marker.empty())
                    break;
                summary[family] += outcome;
            }
            summary[family] += ' ';
        }
    }
    std::cout << "[ walk ] " << job.name << ": " << runs << " runs\n";
    for (const auto& row : summary)
        std::cout << "[ walk ]   " << row.first << " (ENOSPC EIO EINTR): " << row.second << "\n";
}

INSTANTIATE_TEST_SUITE_P(Jobs, FaultWalk, ::testing::ValuesIn(Jobs),
                         [](const ::testing::TestParamInfo<Job>& info) {
                             return std::string(info.param.name);
                         });

} // namespace
