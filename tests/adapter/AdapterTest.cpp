// vorex-zmailer-filter driven as smtpserver drives it: a job line only after
// "#hungry", everything up to the next "#hungry" taken as the answer (which
// must be exactly one reply line), the real filter behind it and a real or
// played daemon. Each row meets one fault with its first job, then the
// fault goes, a good daemon comes, and a second job must get a fresh
// filter's answer; the end of input ends both with status 0. Then --check.
#include <fcntl.h>
#include <signal.h>

#include <iostream>
#include <map>
#include <regex>
#include <set>

#include <boost/algorithm/string.hpp>
#include <gtest/gtest.h>

#include "quelt-refd/Engines.h"
#include "support/FilterSandbox.h"
#include "support/RefDaemon.h"

namespace
{

const std::string Oops = " Internal error\n", Clean = PassLine + " clean\n";
using Words = std::vector<std::string>;

struct Row {
    const char* name;
    std::string options; // the site's, besides the sandbox's
    std::string trouble; // absent, silent, played ANSWER, clamd down, killed, or daemon
    Words daemonArgs, adapterArgs;
    std::string first, second = Clean;
    std::string logged = ""; // in the adapter's log
};

class Adapter : public ::testing::Test, protected FilterSandbox
{
protected:
    Adapter() { WriteFile(root + "/secret", "s3cret\n"); }

    // The site's options in the file.
    void Configure(const std::string& options)
    {
        WriteFile(root + "/conf", "# the sandbox\n--basedir " + basedir + " --user nobody\n" +
                                      "--log-filename " + basedir + "zmailer.log " + options);
    }

    // The site's options in a file, the adapter started on it.
    std::unique_ptr<ChildProcess> Start(const std::string& options, const Words& extra = {})
    {
        Configure(options);
        Words args = {ADAPTER,
                      "-Z",
                      "/etc/zmailer/zmailer.conf",
                      "--config",
                      root + "/conf",
                      "--filter",
                      VOREX_ZMAILER,
                      "--secret-file",
                      root + "/secret",
                      "--log-file",
                      root + "/adapter.log"};
        args.insert(args.end(), extra.begin(), extra.end());
        return std::make_unique<ChildProcess>(args);
    }

    // One job as smtpserver sends it; the answer up to the end marker.
    std::string Job(ChildProcess& adapter, const std::string& name, const std::string& end)
    {
        const std::string spool = Spool(name, ReadFile(EXAMPLE_SPOOL "/01-clean.spool"));
        adapter.Write(spool + "\n");
        return adapter.ReadStdoutUntil(end);
    }

    // The filter the adapter runs, once it has its entry with the daemon.
    pid_t FilterInAJob(ChildProcess& adapter)
    {
        const std::string task = std::to_string(adapter.Pid());
        for (int waited = 0; waited < ChildProcess::BoundMs && EntryCount() == 0; waited += 10)
            (void)::poll(nullptr, 0, 10);
        return std::stoi("0" + ReadFile("/proc/" + task + "/task/" + task + "/children"));
    }
};

// What the descriptors of process pid from first on refer to ("pipe:[N]",
// a path), by number.
std::map<int, std::string> OpenFiles(pid_t pid, int first = 0)
{
    std::map<int, std::string> files;
    const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    for (const auto& fd : boost::filesystem::directory_iterator(dir)) {
        const int number = std::stoi(fd.path().filename().string());
        if (number >= first)
            files[number] = boost::filesystem::read_symlink(fd.path()).string();
    }
    return files;
}

// Whether process pid still runs (a zombie has ended).
bool Runs(pid_t pid)
{
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t end = stat.rfind(')');
    return end != std::string::npos && end + 2 < stat.size() && stat[end + 2] != 'Z';
}

TEST_F(Adapter, EveryJobGetsOneReplyAndAFreshFilterAfterAFailure)
{
    const std::string tempfail = TempfailLine + Oops, reject = RejectLine + Oops;
    const std::string e = "-e tempfail ", ended = "filter ended in a job \\(exit status 1\\)";
    const Row rows[] = {
        {"pass", "", "daemon", {}, {}, Clean},
        {"reject", "", "daemon", {"--verdict", "2", "--note", "spam"}, {}, RejectLine + " spam\n"},
        {"contentChange", "", "daemon", {"--add-header", "X-Checked: yes"}, {}, Clean},
        {"interfaceZero", "--interface 0", "daemon", {}, {}, Clean},
        {"daemonAbsentDefaultAction",
         "",
         "absent",
         {},
         {},
         reject,
         Clean,
         "error: error in vorex-quelt\n\\S+ " + ended},
        {"daemonAbsent", "-e TempFail", "absent", {}, {}, tempfail},
        {"daemonSilent", e + "--timeout 1", "silent", {}, {}, tempfail},
        {"daemonGarbage", e, "played garbage\n", {}, {}, tempfail},
        {"daemonError", e, "played 32\n", {}, {}, tempfail},
        {"envelopeChanged", e, "played 1025\n", {}, {}, tempfail},
        {"engineDown", e, "clamd down", {}, {}, tempfail},
        {"filterKilled",
         e,
         "killed",
         {"--delay-ms", "20000"},
         {},
         tempfail,
         Clean,
         "filter ended in a job \\(killed by signal 9\\)"},
        {"overTheJobLimit",
         e,
         "daemon",
         {"--delay-ms", "3000"},
         {"--job-limit", "1"},
         tempfail,
         Clean,
         "filter no answer within 1 s \\(killed by signal 9\\)"},
        {"badOption",
         "--bogus -e discard",
         "daemon",
         {},
         {},
         DiscardLine + Oops,
         DiscardLine + Oops,
         "filter did not start \\(exit status 1\\): error: unrecognised "
         "option '--bogus'"},
        {"badErrorAction",
         "-e tmpfail",
         "daemon",
         {},
         {},
         tempfail,
         tempfail,
         "--error-action tmpfail is not pass"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        boost::filesystem::remove_all(basedir);
        boost::filesystem::create_directories(basedir);
        const std::string end = row.options == "--interface 0" ? "\n" : Hungry;
        std::unique_ptr<Clamd> clamd;
        std::unique_ptr<RefDaemon> daemon;
        std::unique_ptr<PlayedDaemon> played;
        int silent = -1;
        if (row.trouble == "daemon" || row.trouble == "killed")
            daemon = std::make_unique<RefDaemon>(basedir, row.daemonArgs);
        if (row.trouble == "clamd down") {
            clamd = std::make_unique<Clamd>();
            daemon = std::make_unique<RefDaemon>(basedir, Words{"--clamd", clamd->socket});
            clamd->Kill();
        }
        if (row.trouble.rfind("played ", 0) == 0)
            played = std::make_unique<PlayedDaemon>(basedir + "quelt.sock", row.trouble.substr(7));
        if (row.trouble == "silent")
            silent = PlayedDaemon::ListenOn(basedir + "quelt.sock");
        const std::unique_ptr<ChildProcess> adapter = Start(row.options, row.adapterArgs);
        EXPECT_EQ(adapter->ReadStdoutUntil(end == Hungry ? Hungry : ""),
                  end == Hungry ? Hungry : "");
        const std::string spool = Spool("first", ReadFile(EXAMPLE_SPOOL "/01-clean.spool"));
        adapter->Write(spool + "\n");
        const pid_t filter = row.trouble == "killed" ? FilterInAJob(*adapter) : 0;
        if (filter > 0) // never 0: that would be this test's own process group
            ::kill(filter, SIGKILL);
        EXPECT_EQ(filter > 0, row.trouble == "killed");
        EXPECT_EQ(adapter->ReadStdoutUntil(end), row.first + (end == Hungry ? Hungry : ""));
        EXPECT_EQ(ReadFile(spool).find("X-Checked: yes\n") != std::string::npos,
                  row.daemonArgs.size() == 2 && row.daemonArgs[0] == "--add-header");
        played.reset();
        daemon.reset();
        (void)::close(silent);
        ::unlink((basedir + "quelt.sock").c_str());
        RefDaemon good(basedir);
        EXPECT_EQ(Job(*adapter, "second", end), row.second + (end == Hungry ? Hungry : ""));
        std::string rest;
        EXPECT_EQ(adapter->Wait(&rest), 0);
        EXPECT_EQ(rest, "");
        const std::string log = ReadFile(root + "/adapter.log");
        EXPECT_TRUE(std::regex_search(log, std::regex(row.logged))) << log;
        EXPECT_EQ(log.find("at shutdown"), std::string::npos) << log;
    }
}

// The filter holds its three pipes and what it opens itself, none of the
// adapter's descriptors (smtpserver leaves its client's socket open, for
// one); and it goes with the adapter, also when the adapter is killed.
TEST_F(Adapter, FilterGetsOnlyItsPipesAndDiesWithTheAdapter)
{
    // The job outlasts the wait below, so that only a filter that is killed
    // ends within it.
    RefDaemon daemon(basedir, {"--delay-ms", "60000"});
    WriteFile(root + "/inherited", "");
    const int inherited = ::open((root + "/inherited").c_str(), O_RDONLY); // no close-on-exec
    const std::unique_ptr<ChildProcess> adapter = Start("-e tempfail");
    ::close(inherited);
    EXPECT_EQ(adapter->ReadStdoutUntil(Hungry), Hungry);
    adapter->Write(Spool("first", ReadFile(EXAMPLE_SPOOL "/01-clean.spool")) + "\n");
    const pid_t filter = FilterInAJob(*adapter);
    ASSERT_GT(filter, 0);

    std::set<std::string> adapters;
    for (const auto& file : OpenFiles(adapter->Pid(), 3))
        adapters.insert(file.second);
    ASSERT_EQ(adapters.count(root + "/inherited"), 1u) << "the adapter inherits the descriptor";
    // Its 0 to 2 are the other ends of the adapter's pipes (the same names).
    for (const auto& file : OpenFiles(filter, 3))
        EXPECT_EQ(adapters.count(file.second), 0u) << file.first << " -> " << file.second;

    adapter->Signal(SIGKILL);
    for (int waited = 0; waited < ChildProcess::BoundMs && Runs(filter); waited += 10)
        (void)::poll(nullptr, 0, 10);
    EXPECT_FALSE(Runs(filter)) << "the filter outlived the adapter";
}

// A filter killed while it writes a changed message back leaves no entry
// behind: the adapter removes it. The kill comes as soon as the spool file
// shows the daemon's header, or a few milliseconds later, so that it meets
// the rewrite at a different point each run.
TEST_F(Adapter, FilterKilledInAWriteBackLeavesNoEntry)
{
    constexpr int RunCount = 50;
    RefDaemon daemon(basedir, {"--add-header", "X-Checked: yes"});
    const std::unique_ptr<ChildProcess> adapter = Start("-e tempfail");
    EXPECT_EQ(adapter->ReadStdoutUntil(Hungry), Hungry);
    std::string large = ReadFile(EXAMPLE_SPOOL "/01-clean.spool");
    const std::size_t message = large.find("env-end\n") + 8;
    for (int line = 0; large.size() < 32 * 1024 * 1024; ++line)
        large += "line " + std::to_string(line) + " of a large message body\n";
    const std::string task = std::to_string(adapter->Pid());
    int killed = 0;
    for (int run = 0; run < RunCount; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        const std::string spool = Spool("large", large);
        adapter->Write(spool + "\n");
        const int fd = ::open(spool.c_str(), O_RDONLY);
        char start[9] = {};
        for (int waited = 0; waited < ChildProcess::BoundMs; ++waited) {
            if (::pread(fd, start, sizeof start, static_cast<off_t>(message)) == sizeof start &&
                std::string(start, sizeof start) == "X-Checked")
                break;
            (void)::poll(nullptr, 0, 1);
        }
        ::close(fd);
        (void)::poll(nullptr, 0, run % 4);
        const pid_t filter =
            std::stoi("0" + ReadFile("/proc/" + task + "/task/" + task + "/children"));
        if (filter > 0) // never 0: that would be this test's own process group
            ::kill(filter, SIGKILL);
        const std::string reply = adapter->ReadStdoutUntil(Hungry);
        EXPECT_TRUE(reply == TempfailLine + Oops + Hungry || reply == Clean + Hungry) << reply;
        killed += reply != Clean + Hungry;
        EXPECT_EQ(EntryCount(), 0u) << "entries left";
        if (HasFailure())
            break;
    }
    std::cout << "[ kills ] " << killed << " of " << RunCount << " runs killed the filter\n";
    EXPECT_GT(killed, 0);
    EXPECT_EQ(adapter->Wait(), 0);
}

// An edit of the options file counts from the next filter on: after a
// failure, the fresh filter runs with what the file says then.
TEST_F(Adapter, FreshFilterTakesTheEditedOptions)
{
    const std::unique_ptr<ChildProcess> adapter = Start("-e tempfail");
    EXPECT_EQ(adapter->ReadStdoutUntil(Hungry), Hungry);
    // No daemon: the filter answers its error action and ends.
    EXPECT_EQ(Job(*adapter, "first", Hungry), TempfailLine + Oops + Hungry);
    Configure("-e discard");
    EXPECT_EQ(Job(*adapter, "second", Hungry), DiscardLine + Oops + Hungry);
    EXPECT_EQ(adapter->Wait(), 0);
}

TEST_F(Adapter, CheckNamesEachFault)
{
    const struct {
        std::string options;
        bool daemon;
        std::string said;
        int status;
    } rows[] = {
        {"", true,
         "(ok [^\n]*\n){3}ok a filter started now runs " VOREX_ZMAILER " --basedir \\S+ --user "
         "nobody --log-filename \\S+ --interface 1 \\(the secret in its environment\\)\n"
         "ok a test message was answered '" +
             Clean.substr(0, 33) + "'\n",
         0},
        {"", false,
         "PROBLEM a test message was answered '" + RejectLine +
             " Internal error'; error: error in vorex-quelt \\(fix: quelt-refd --check",
         1},
        {"--bogus", true,
         "PROBLEM the filter does not start with the options in \\S+: error: "
         "unrecognised option '--bogus' \\(fix: correct ",
         1},
        {"-e tmpfail", true,
         "PROBLEM \\S+: --error-action tmpfail is not pass, reject, discard "
         "or tempfail; jobs answered with tempfail \\(fix: ",
         1},
        {"--timeout 61", true,
         "PROBLEM job limit 100 s against the filter's --timeout 61 s "
         "leaves less than 40 s to rewrite a message \\(fix: --timeout 60 ",
         1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.options);
        std::unique_ptr<RefDaemon> daemon;
        if (row.daemon)
            daemon = std::make_unique<RefDaemon>(basedir);
        const std::unique_ptr<ChildProcess> check = Start(row.options, {"--check"});
        std::string said;
        EXPECT_EQ(check->Wait(&said), row.status);
        EXPECT_TRUE(std::regex_search(said, std::regex(row.said))) << said;
    }
}

} // namespace
