// tests/quelt-refd/EngineTest.cpp: the real filter in front of quelt-refd
// with real engines: verdicts, notes and the spool files' bytes after each
// run, an engine that dies between two messages, and a DKIM signature that
// holds after the spam engines' lines went on top.
#include <regex>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Engines.h"
#include "support/FilterSandbox.h"
#include "support/RefDaemon.h"

namespace
{

namespace fs = boost::filesystem;

// One start of each engine for the whole executable, stopped at its exit.
struct SharedEngines {
    Clamd clamd;
    Spamd spamd;
    Rspamd rspamd{RSPAMD_CONF};
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

// The engines' fields with their folded lines, values (hosts, times, rules
// that hit, the entry's name) masked.
std::string Masked(const std::string& bytes)
{
    static const std::regex field("(^|\n)(X-(?:Spam|Spamd|Rspamd)-[^:\n]*):[^\n]*(\n[ \t][^\n]*)*");
    return std::regex_replace(bytes, field, "$1$2: *");
}

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
    for (const auto& row : rows)
        EXPECT_EQ(Masked(ReadFile(root + "/" + row.name)), row.after) << row.name;
}

// Over TCP the message streams (zINSTREAM); past clamd's StreamMaxLength
// clamd's limit answer is the --limits-exceeded rule's (tempfail), never a
// pass. Then a clamd killed
// between two messages: the error action, the spool file untouched.
TEST_F(Engines, ClamdOverTcpAndClamdKilled)
{
    const std::string large = Infected + std::string(100 * 1024, 'x') + "\n";
    const std::vector<std::string> args = Args({"--interface", "0", "--error-action", "tempfail"});
    {
        RefDaemon daemon(basedir, {"--clamd", Shared().clamd.tcpAddress});
        RunResult run =
            RunProgram(args, Spool("virus", Infected) + "\n" + Spool("large", large) + "\n");
        EXPECT_EQ(run.out,
                  Virus + TempfailLine + " not checked: INSTREAM size limit exceeded\n");
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

// A farm of three clamd (one on a Unix socket, two over TCP): 300 messages
// while one TCP member is stopped after 100 and started again after 200.
// No message gets the error action and every virus is rejected. Then all
// three stopped: the error action, the spool file untouched. The stopped
// member is down from its first failure and back, answering, after its
// restart.
TEST_F(Engines, ClamdFarmLosesNoMessageWhileAMemberRestarts)
{
    Clamd local, restarted, other;
    RefDaemon daemon(basedir, {"--clamd", local.socket, "--clamd", restarted.tcpAddress, "--clamd",
                               other.tcpAddress, "--revive-seconds", "1"});
    ChildProcess filter(FilterSandbox::Args({"--error-action", "tempfail"}));
    EXPECT_EQ(filter.ReadStdoutUntil(Hungry), Hungry);
    std::string replies, expected;
    for (int at = 0; at < 300; ++at) {
        if (at == 100)
            restarted.Kill();
        if (at == 200) { // the prober brings it back, then it gets messages again
            restarted.Start();
            const std::string state = "clamd " + restarted.tcpAddress;
            const std::string log = daemon.ReadLogUntil(state + " up again after ");
            EXPECT_NE(log.find(state + " down: "), std::string::npos) << log;
            EXPECT_NE(log.find("; 2 of 3 up\n"), std::string::npos) << log;
            EXPECT_NE(log.find(" up again after "), std::string::npos) << log;
        }
        const bool virus = at % 10 == 0;
        filter.Write(Spool("m" + std::to_string(at), virus ? Infected : Clean) + "\n");
        replies += filter.ReadStdoutUntil(Hungry);
        expected += (virus ? Virus : PassLine + " clean\n") + Hungry;
    }
    EXPECT_EQ(replies, expected);
    local.Kill(), restarted.Kill(), other.Kill();
    filter.Write(Spool("last", Clean) + "\n");
    std::string rest;
    EXPECT_EQ(filter.Wait(&rest), 1);
    EXPECT_EQ(rest, TempfailLine + " Internal error\n");
    EXPECT_EQ(ReadFile(root + "/last"), Clean);
    std::string log;
    (void)daemon.Stop(&log);
    EXPECT_NE(log.find("via " + restarted.tcpAddress), std::string::npos) << log;
}

// A member that takes connections and never answers, or one that is
// stopped: down from the ping at the start, and every message is answered
// by another member within the deadline.
TEST_F(Engines, FarmMemberHungOrStoppedIsReplacedByAnother)
{
    TempDir dir;
    const std::string hung = dir / "hung.sock", stopped = dir / "stopped.sock";
    const int listening = PlayedDaemon::ListenOn(hung); // its backlog takes them all
    ::close(PlayedDaemon::ListenOn(stopped));
    const std::string clean = PassLine + " clean\n";
    const struct {
        const char* name;
        std::vector<std::string> args;
        std::vector<std::pair<std::string, std::string>> messages; // spool, reply
        std::string down, answered;
    } rows[] = {
        {"hungClamd",
         {"--clamd", hung, "--clamd", Shared().clamd.socket, "--engine-timeout", "4"},
         {{Clean, clean}, {Infected, Virus}, {Clean, clean}, {Infected, Virus}},
         "clamd " + hung + " down: ",
         "via " + Shared().clamd.socket},
        {"stoppedSpamd",
         {"--spamd", stopped, "--spamd", Shared().spamd.socket},
         {{Clean, clean}, {Clean, clean}, {Clean, clean}},
         "spamd " + stopped + " down: ",
         "via " + Shared().spamd.socket},
        {"stoppedRspamd",
         {"--rspamd", stopped, "--rspamd", Shared().rspamd.socket},
         {{Clean, clean}, {Clean, clean}, {Clean, clean}},
         "rspamd " + stopped + " down: ",
         "via " + Shared().rspamd.socket},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RefDaemon daemon(basedir, row.args);
        std::string jobs, replies;
        for (std::size_t at = 0; at < row.messages.size(); ++at) {
            jobs += Spool(row.name + std::to_string(at), row.messages[at].first) + "\n";
            replies += row.messages[at].second;
        }
        RunResult run = RunProgram(Args({"--interface", "0"}), jobs);
        EXPECT_EQ(run.out, replies);
        std::string log;
        (void)daemon.Stop(&log);
        // Found down by the ping at the start, before the first message.
        EXPECT_NE(daemon.startLog.find(row.down), std::string::npos) << daemon.startLog;
        EXPECT_NE(log.find(row.answered), std::string::npos) << log;
    }
    ::close(listening);
}

// /metrics after five messages through the real filter, with a clamd farm
// of one live and one stopped member and two entries kept from before:
// each counter moved by exactly what was sent, the stopped member is down,
// and promtool takes the text. The log has one JSON line per message, with
// what answered, the verdict and the envelope's addresses.
TEST_F(Engines, MetricsCountWhatWasSent)
{
    TempDir dir;
    const std::string stopped = dir / "stopped.sock", clamd = Shared().clamd.socket;
    ::close(PlayedDaemon::ListenOn(stopped));
    for (const char* kept : {"msgs/a", "msgs/b"})
        fs::create_directories(basedir + kept);
    fs::permissions(basedir + "msgs", fs::perms(01770)); // as the filter makes it
    const std::string port = std::to_string(FreePort());
    RefDaemon daemon(basedir, {"--clamd", clamd, "--clamd", stopped, "--spamd",
                               Shared().spamd.socket, "--revive-seconds", "600", "--metrics",
                               "127.0.0.1:" + port, "--log-format", "json", "--log-addresses"});
    std::string jobs;
    for (int at = 0; at < 5; ++at)
        jobs += Spool("m" + std::to_string(at), at < 2 ? Infected : Clean) + "\n";
    EXPECT_EQ(RunProgram(Args({"--interface", "0"}), jobs).status, 0);
    const std::string text =
        RunProgram({"/usr/bin/curl", "-sf", "http://127.0.0.1:" + port + "/metrics"}).out;
    const std::string clamdAt = "{engine=\"clamd\",result=\"",
                      spamdAt = "{engine=\"spamd\",result=\"";
    for (const std::string& line : std::vector<std::string>{
             "quelt_checks_total{verdict=\"pass\"} 3", "quelt_checks_total{verdict=\"reject\"} 2",
             "quelt_checks_total{verdict=\"error\"} 0", "quelt_check_duration_seconds_count 5",
             "quelt_checks_in_flight 0", "quelt_kept_entries 2",
             "quelt_engine_results_total" + clamdAt + "clean\",upstream=\"" + clamd + "\"} 3",
             "quelt_engine_results_total" + clamdAt + "found\",upstream=\"" + clamd + "\"} 2",
             // down from the start: no message tried it
             "quelt_engine_results_total" + clamdAt + "error\",upstream=\"" + stopped + "\"} 0",
             "quelt_engine_results_total" + spamdAt + "clean\",upstream=\"" +
                 Shared().spamd.socket + "\"} 3",
             "quelt_engine_duration_seconds_count{engine=\"clamd\",upstream=\"" + clamd + "\"} 5",
             "quelt_upstream_up{engine=\"clamd\",upstream=\"" + clamd + "\"} 1",
             "quelt_upstream_up{engine=\"clamd\",upstream=\"" + stopped + "\"} 0",
             "quelt_build_info{version=\"" VOREX_VERSION "\"} 1"})
        EXPECT_NE(text.find("\n" + line + "\n"), std::string::npos) << line << "\n" << text;
    const RunResult lint = RunProgram({"/usr/bin/promtool", "check", "metrics"}, text);
    EXPECT_EQ(lint.status, 0) << lint.out << lint.err;
    std::string log, lines, line;
    (void)daemon.Stop(&log);
    for (std::istringstream in(log); std::getline(in, line);) {
        if (line.compare(0, 13, "quelt-refd: {") != 0)
            continue;
        auto json = nlohmann::json::parse(line.substr(12));
        lines += json["verdict"].get<std::string>() + " " + json["note"].get<std::string>() + " " +
                 json["from"].dump() + json["to"].dump();
        for (auto& engine : json["engines"])
            lines += " " + engine["engine"].get<std::string>() + "@" +
                     engine["upstream"].get<std::string>() + ":" +
                     engine["result"].get<std::string>();
        lines += json["size"] > 0 && json["ms"] >= 0 ? "\n" : " bad size or ms\n";
    }
    const std::string infected = "reject infected: eicar.com.UNOFFICIAL "
                                 "\"<alice@corp.example>\"[\"<partner@other.example>\",\"<team+"
                                 "sales@corp.example>\"] clamd@" +
                                 clamd + ":found\n";
    const std::string clean =
        "pass clean \"<newsletter@sender.example>\"[\"<john.doe@corp.example>\"] clamd@" + clamd +
        ":clean spamd@" + Shared().spamd.socket + ":clean\n";
    EXPECT_EQ(lines, infected + infected + clean + clean + clean) << log;
}

// A wrong path in a farm is found at the start, not at the first message:
// one log line before the daemon listens, and its metric 0 at once; the
// member that answers is up.
TEST_F(Engines, UnreachableMemberIsDownFromTheStart)
{
    TempDir dir;
    const std::string missing = dir / "missing.sock";
    const struct {
        const char* engine;
        std::string live;
    } rows[] = {
        {"clamd", Shared().clamd.socket},
        {"spamd", Shared().spamd.socket},
        {"rspamd", Shared().rspamd.socket},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.engine);
        const std::string port = std::to_string(FreePort()),
                          option = std::string("--") + row.engine;
        RefDaemon daemon(basedir,
                         {option, missing, option, row.live, "--metrics", "127.0.0.1:" + port});
        const std::string down = row.engine + (" " + missing) + " down: ";
        const std::size_t at = daemon.startLog.find(down);
        EXPECT_NE(at, std::string::npos) << daemon.startLog;
        EXPECT_EQ(daemon.startLog.find(down, at + 1), std::string::npos) << daemon.startLog;
        EXPECT_NE(daemon.startLog.find("; 1 of 2 up\n"), std::string::npos) << daemon.startLog;
        const std::string text =
            RunProgram({"/usr/bin/curl", "-sf", "http://127.0.0.1:" + port + "/metrics"}).out;
        const std::string series =
            "quelt_upstream_up{engine=\"" + std::string(row.engine) + "\",upstream=\"";
        for (const std::string& line : {series + missing + "\"} 0", series + row.live + "\"} 1"})
            EXPECT_NE(text.find("\n" + line + "\n"), std::string::npos) << line << "\n" << text;
    }
}

// rspamd behind spamd (which only tags): rspamd's actions as verdicts,
// its own fields on top and never its Authentication-Results. A message
// signed with simple canonicalisation (any changed byte breaks it) still
// verifies after both engines put their lines on top. rspamd stopped: the
// error action.
TEST_F(Engines, RspamdActionsAndDkimSignature)
{
    TempDir keys;
    const auto dkim = [&](const char* mode, const std::string& bytes) {
        return RunProgram({DKIM_TOOL, mode, keys.Path().string()}, bytes).out;
    };
    const std::size_t envEnd = Clean.find("env-end\n") + 8;
    const auto asking = [&](const std::string& action) {
        return std::regex_replace(Clean, std::regex("\nSubject: [^\n]*"),
                                  "\nSubject: rspamd-action: " + action);
    };
    const auto on = [&](const std::string& spool, const std::string& lines) {
        return spool.substr(0, envEnd) + lines + spool.substr(envEnd);
    };
    const std::string gtube = Clean.substr(0, Clean.find("\n\n") + 2) + Gtube + "\n";
    const std::string signedSpool =
        Clean.substr(0, envEnd) + dkim("sign", asking("add header").substr(envEnd));
    const std::string fields = "X-Spam-Checker-Version: *\nX-Spam-Level: *\nX-Spam-Status: *\n",
                      milter = "X-Rspamd-Queue-Id: *\nX-Spamd-Result: *\n";
    const struct {
        const char* name;
        std::string spool, reply, after;
    } rows[] = {
        {"clean", Clean, PassLine + " clean\n", on(Clean, fields + milter)},
        {"gtube", gtube, RejectLine + " spam: rspamd score 15.00/15.00\n", gtube},
        {"softReject", asking("soft reject"),
         TempfailLine + " spam: rspamd score 0.00/15.00, soft reject\n", asking("soft reject")},
        // Without its greylist module's word, a greylist action only tags.
        {"greylist", asking("greylist"), PassLine + " spam: rspamd score 0.00/15.00, tagged\n",
         on(asking("greylist"), fields + "X-Rspamd-Pre-Result: *\n" + milter)},
        {"signedTagged", signedSpool, PassLine + " spam: rspamd score 0.00/15.00, tagged\n",
         on(signedSpool, fields + "X-Rspamd-Pre-Result: *\n" + milter)},
    };
    std::string jobs, replies;
    for (const auto& row : rows) {
        jobs += Spool(row.name, row.spool) + "\n";
        replies += row.reply;
    }
    {
        RefDaemon daemon(basedir,
                         {"--spamd", Shared().spamd.socket, "--rspamd", Shared().rspamd.socket});
        EXPECT_EQ(RunProgram(Args({"--interface", "0"}), jobs).out, replies);
    }
    for (const auto& row : rows)
        EXPECT_EQ(Masked(ReadFile(root + "/" + row.name)), row.after) << row.name;
    EXPECT_EQ(dkim("verify", ReadFile(root + "/signedTagged").substr(envEnd)), "verified\n");

    {
        // A pool of a stopped rspamd and the live one: every message is
        // answered (the stopped one is down from the start).
        RefDaemon pool(basedir,
                       {"--rspamd", basedir + "nothing.sock", "--rspamd", Shared().rspamd.socket});
        EXPECT_EQ(RunProgram(Args({"--interface", "0"}), Spool("p1", Clean) + "\n" +
                                                             Spool("p2", Clean) + "\n" +
                                                             Spool("p3", Clean) + "\n")
                      .out,
                  PassLine + " clean\n" + PassLine + " clean\n" + PassLine + " clean\n");
    }
    RefDaemon stopped(basedir, {"--rspamd", basedir + "nothing.sock"});
    EXPECT_EQ(RunProgram(Args({"--interface", "0", "--error-action", "tempfail"}),
                         Spool("down", Clean) + "\n")
                  .out,
              TempfailLine + " Internal error\n");
    EXPECT_EQ(ReadFile(root + "/down"), Clean);
}

// --check on a set-up of its own (a daemon as an account with the row's
// engines, a ZMailer configuration, a stand-in for the smtpserver wrapper's
// --check): all well with each engine alone and with clamd and spamd, then
// one fault per row, each named in a PROBLEM line.
TEST_F(Engines, CheckNamesEachFaultOfTheSetUp)
{
    const std::string msgs = basedir + "msgs";
    fs::create_directories(msgs);
    for (const auto& [path, mode] : {std::pair(basedir, 0750), std::pair(msgs, 01770)})
        ASSERT_TRUE(::chown(path.c_str(), 0, 65534) == 0 && ::chmod(path.c_str(), mode) == 0);
    const std::vector<std::string> engines = {
        "--clamd", Shared().clamd.socket, "--spamd", Shared().spamd.socket, "--spam-reject", "20"};
    const std::vector<std::string> clamd = {"--clamd", Shared().clamd.socket},
                                   spamd = {"--spamd", Shared().spamd.socket, "--spam-reject",
                                            "20"},
                                   rspamd = {"--rspamd", Shared().rspamd.socket};
    TempDir zmailer;
    const std::string stale = zmailer / "stopped.sock", wrapper = zmailer / "wrapper";
    ::close(PlayedDaemon::ListenOn(stale)); // a socket nobody listens on: spamd stopped
    const std::string good = "#!/bin/sh\necho 'ok filter options'\n";
    const std::string answers = "\nok daemon answers: '",
                      spamRejected = "\nok spam round trip: '" + RejectLine + " spam: ";
    // Rows with a problem run against the daemon with clamd and spamd; the
    // good set-ups name the daemon's engines and lines their report must hold.
    const struct {
        const char* name;
        std::vector<std::string> args;
        std::string wrapper, contentFilter, problem;
        std::vector<std::string> okLines;
    } rows[] = {
        {"goodSetUp",
         engines,
         good,
         "$MAILSHARE/wrapper",
         "",
         {answers, "\nok virus round trip (", spamRejected + "score "}},
        {"goodClamdAlone",
         clamd,
         good,
         "$MAILSHARE/wrapper",
         "",
         {answers, "\nok virus round trip (", "\nskipped spam round trip: "}},
        {"goodSpamdAlone",
         spamd,
         good,
         "$MAILSHARE/wrapper",
         "",
         {answers, "\nskipped virus round trip: ", spamRejected + "score "}},
        {"goodRspamdAlone",
         rspamd,
         good,
         "$MAILSHARE/wrapper",
         "",
         {"\nok rspamd at " + Shared().rspamd.socket + " answers GET /ping\n", answers,
          spamRejected + "rspamd score "}},
        {"wrongClamdPath",
         {"--clamd", zmailer / "clamd.sock"},
         good,
         "$MAILSHARE/wrapper",
         "PROBLEM clamd at " + zmailer / "clamd.sock: connect",
         {}},
        {"clamdWithoutDatabaseIsNamed",
         {"--clamd", zmailer / "clamd.sock"},
         good,
         "$MAILSHARE/wrapper",
         "clamav-daemon starts only once freshclam has downloaded a signature database",
         {}},
        {"stoppedSpamd",
         {"--spamd", stale, "--spam-reject", "20"},
         good,
         "$MAILSHARE/wrapper",
         "PROBLEM spamd at " + stale + ": connect",
         {}},
        {"farmWithAStoppedMember",
         {"--clamd", Shared().clamd.socket, "--clamd", zmailer / "clamd.sock"},
         good,
         "$MAILSHARE/wrapper",
         "PROBLEM clamd at " + zmailer / "clamd.sock: connect",
         {}},
        {"wrapperWithBadOption",
         engines,
         "#!/bin/sh\necho 'PROBLEM --error-action tmpfail: not an action (fix: ...)'\nexit 1\n",
         "$MAILSHARE/wrapper",
         "\nPROBLEM --error-action tmpfail: ",
         {}},
        {"missingWrapper",
         engines,
         good,
         zmailer / "gone",
         "PROBLEM " + zmailer / "smtpserver.conf line 2: contentfilter " + zmailer / "gone" +
             " is missing or not executable",
         {}},
        {"unitWithoutEngine",
         {"--defaults-file", zmailer / "default"},
         good,
         "$MAILSHARE/wrapper",
         "PROBLEM options from " + zmailer / "default: no engine: ",
         {}},
    };
    // The policy compiled by ZMailer's makedb, read by its dblook (the
    // policy's own faults are the real-ZMailer group's rows).
    WriteFile(zmailer / "policy.src", "[0.0.0.0]/0 = _default\n_default filtering +\n");
    ASSERT_EQ(ChildProcess({ZMAILER_PREFIX "/bin/makedb", "-p", "gdbm", zmailer / "smtp-policy",
                            zmailer / "policy.src"})
                  .Wait(),
              0);
    WriteFile(zmailer / "zmailer.conf", "# ZMailer\nMAILSHARE=" + zmailer.Path().string() +
                                            "\nMAILVAR=" + zmailer.Path().string() +
                                            "\nMAILBIN=" ZMAILER_PREFIX "/bin\n");
    WriteFile(zmailer / "default", "# none yet\nOPTIONS=\"\"\n");
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        WriteFile(wrapper, row.wrapper);
        fs::permissions(wrapper, fs::perms(0755));
        WriteFile(zmailer / "smtpserver.conf", "#\nPARAM contentfilter " + row.contentFilter +
                                                   "\nPARAM policydb gdbm $MAILVAR/smtp-policy\n");
        std::vector<std::string> check = {
            QUELT_REFD, "--check",     "--user",         "nobody",
            "--filter", VOREX_ZMAILER, "--zmailer-conf", zmailer / "zmailer.conf"};
        check.insert(check.end(), row.args.begin(), row.args.end());
        if (row.args[0] != "--defaults-file")
            check.insert(check.end(), {"--basedir", basedir});
        std::vector<std::string> daemonArgs = row.problem.empty() ? row.args : engines;
        daemonArgs.insert(daemonArgs.end(), {"--user", "nobody"});
        RefDaemon daemon(basedir, daemonArgs);
        std::string out;
        const int status = ChildProcess(check).Wait(&out);
        if (row.problem.empty()) {
            EXPECT_EQ(status, 0);
            EXPECT_FALSE(std::regex_search(out, std::regex("(^|\n)(?!ok |skipped |$)"))) << out;
            for (const std::string& line : row.okLines)
                EXPECT_NE(("\n" + out).find(line), std::string::npos) << line << "\n" << out;
        } else {
            EXPECT_EQ(status, 1);
            EXPECT_NE(out.find(row.problem), std::string::npos) << out;
        }
    }
    EXPECT_TRUE(fs::is_empty(msgs)) << "the test entries are gone";
}

} // namespace
