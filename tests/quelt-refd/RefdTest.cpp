// tests/quelt-refd/RefdTest.cpp: the reference daemon quelt-refd, with the
// real filter in front, as far as the filter's tests and the demo rely on
// it: its answers (in its log, byte for byte), its clean stop, its sweep of
// kept entries, --check and its refusals. A plain clean answer, the test
// string and a header added to a message (small, and larger than the read
// block) are the boundary tests' and the fault walk's.
#include <gtest/gtest.h>

#include "support/FilterSandbox.h"
#include "support/PlayedDaemon.h"
#include "support/RefDaemon.h"

namespace
{

namespace fs = boost::filesystem;

class QueltRefd : public ::testing::Test, protected FilterSandbox
{
protected:
    // One job through the filter in content-filter mode; its reply line.
    std::string Check(const std::string& name, const std::string& message)
    {
        const std::string spool = Spool(name, Envelope + message);
        return RunProgram(Args({"--interface", "0"}), spool + "\n").out;
    }

    const std::string Envelope = "from <a@x>\nto <b@y>\nenv-end\n";
};

TEST_F(QueltRefd, AnswersAndStops)
{
    const std::size_t block = 64 * 1024; // the daemon's read block
    const std::string mail = "Subject: hello\n\nbody\n", infected = "Subject: t\n\n" + Eicar + "\n";
    const std::string virus = "2 infected: EICAR-Test-File";
    const std::string rejected = RejectLine + " infected: EICAR-Test-File";
    const std::vector<std::string> later = {"--verdict", "4", "--note", "try later"};
    const struct {
        const char* name;
        std::vector<std::string> args;
        std::string msg, answer, reply;
    } rows[] = {
        {"testStringAcrossBlocks", {}, std::string(block - 30, 'a') + Eicar, virus, rejected},
        {"noHeaderAddedToInfected", {"--add-header", "X-Checked: yes"}, infected, virus, rejected},
        {"verdictWithNote", later, mail, "4 try later", TempfailLine + " try later"},
        {"verdictAlone", {"--verdict", "0"}, mail, "0", PassLine},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        RefDaemon daemon(basedir, row.args);
        EXPECT_EQ(Check(row.name, row.msg), row.reply + "\n");
        EXPECT_EQ(ReadFile(root + "/" + row.name), Envelope + row.msg);
        std::string log;
        EXPECT_EQ(daemon.Stop(&log), 0);
        EXPECT_NE(log.find("verdict " + row.answer + ", "), std::string::npos) << log;
        EXPECT_EQ(log.substr(log.size() - 21), "\nquelt-refd: stopped\n") << log;
        EXPECT_FALSE(fs::exists(basedir + "quelt.sock"));
    }
}

// Kept entries go at the start sweep (--keep-hours 0: any age) without a
// link being followed and only when the daemon's uid owns them; a client
// that sends nothing does not hold up the next one.
TEST_F(QueltRefd, SweepsKeptEntriesAndServesPastASilentClient)
{
    const std::string msgs = basedir + "msgs/", outside = basedir + "outside";
    WriteFile(outside, "keep me");
    fs::create_directories(msgs + "kept");
    fs::permissions(msgs, fs::perms(01770)); // as the filter makes it (it refuses others)
    fs::create_directories(msgs + "foreign");
    fs::create_symlink(outside, msgs + "kept/.msg");
    fs::create_symlink(basedir, msgs + "linkedDir");
    ASSERT_EQ(::chown((msgs + "foreign").c_str(), 65534, 65534), 0);

    RefDaemon daemon(basedir, {"--keep-hours", "0"});
    EXPECT_FALSE(fs::exists(msgs + "kept"));
    EXPECT_EQ(ReadFile(outside), "keep me");
    EXPECT_TRUE(fs::exists(msgs + "foreign"));
    EXPECT_TRUE(fs::is_symlink(msgs + "linkedDir"));
    const int silent = ConnectTo(basedir + "quelt.sock");
    ASSERT_GE(silent, 0);
    EXPECT_EQ(Check("clean", "Subject: hi\n\nbody\n"), PassLine + " clean\n");
    ::close(silent);
    EXPECT_NE(daemon.startLog.find("removed kept entry " + msgs + "kept (0 h old)\n"),
              std::string::npos)
        << daemon.startLog;
}

// --check against a test-engine daemon that dropped to an account: the
// daemon and the filter's round trip are well (the entries are gone after),
// the test engine is a problem; then a "msgs/" with the wrong mode is named
// with its fix.
TEST_F(QueltRefd, CheckFindsTheSetUpWellOrSaysWhatToFix)
{
    const std::string msgs = basedir + "msgs";
    // The package's layout: the filter gives "msgs/" the base directory's group.
    ASSERT_EQ(::chown(basedir.c_str(), 0, 65534), 0);
    ASSERT_EQ(::chmod(basedir.c_str(), 0750), 0);
    fs::create_directories(msgs);
    ASSERT_EQ(::chown(msgs.c_str(), 0, 65534), 0);
    ASSERT_EQ(::chmod(msgs.c_str(), 01770), 0);
    RefDaemon daemon(basedir, {"--user", "nobody"});
    const std::vector<std::string> check = {
        QUELT_REFD, "--check", "--basedir", basedir, "--user", "nobody", "--test-engine",
        "--filter", VOREX_ZMAILER};
    std::string out;
    EXPECT_EQ(ChildProcess(check).Wait(&out), 1) << out;
    for (const std::string& line : std::vector<std::string>{
             "PROBLEM engines: only the test engine", "ok daemon answers: '1 clean' to a clean message\n",
          "ok virus round trip (" VOREX_ZMAILER ", daemon, engine): '" + RejectLine +
              " infected: EICAR-Test-File'\n"})
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
    EXPECT_TRUE(fs::is_empty(msgs)) << "the test entry is gone";
    ASSERT_EQ(::chmod(msgs.c_str(), 0777), 0);
    EXPECT_EQ(ChildProcess(check).Wait(&out), 1);
    EXPECT_NE(out.find("(fix: chown root:nogroup " + msgs + " && chmod 1770 " + msgs + ")\n"),
              std::string::npos)
        << out;
}

// Engines' bytes are not trusted: a CR or ESC in a clamd signature name
// does not reach the reply line, a spamd field with a control byte in any
// of its lines is dropped whole (only clean X-Spam-* fields stay), and a
// score that is not a finite number is an engine failure.
TEST_F(QueltRefd, HostileEngineAnswersReachNeitherReplyNorSpool)
{
    const std::string engine = root + "/engine.sock", mail = "Subject: hi\n\nbody\n";
    const std::string spamd = "SPAMD/1.1 0 EX_OK\r\nSpam: False ; 1.0 / 5.0\r\n\r\nX-Spam-Flag: ";
    // The engine, its answer, the reply line, the header lines put into the message.
    const std::vector<std::string> rows[] = {
        {"--clamd", std::string("fd[9]: Evil\rName\x1b FOUND") + '\0',
         RejectLine + " infected: Evil?Name?\n", ""},
        {"--spamd",
         spamd + "NO\r\nX-Spam-Status: No\rFrom: <e@x>\r\nX-Spam-Level: *\r\n\tFrom: x\x1b\r\n"
                 "X-Spam-Checker-Version: 3\r\n\tfolded\r\nFrom: <e@x>\r\n\r\n",
         PassLine + " clean\n", "X-Spam-Flag: NO\nX-Spam-Checker-Version: 3\n\tfolded\n"},
        {"--spamd", "SPAMD/1.1 0 EX_OK\r\nSpam: True ; nan / 5.0\r\n\r\nX-Spam-Flag: YES\r\n\r\n",
         RejectLine + " Internal error\n", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row[1]);
        const bool clamd = row[0] == "--clamd";
        // The played engine holds one conversation, so it comes up after the
        // daemon's ping at the start (which finds it down); a message still
        // tries a pool whose members are all down, and the prober waits.
        RefDaemon daemon(basedir, {row[0], engine, clamd ? "--engine-timeout" : "--spam-reject",
                                   "5", "--revive-seconds", "3600"});
        PlayedDaemon played(
            engine, [&](const std::string&) { return row[1]; },
            clamd ? std::string(2, '\0') : "\n");
        EXPECT_EQ(Check("spool", mail), row[2]);
        EXPECT_EQ(ReadFile(root + "/spool"), Envelope + row[3] + mail);
    }
}

// Under systemd's socket unit the daemon takes the listening descriptor it
// is given, and leaves the socket file to systemd when it stops.
TEST_F(QueltRefd, TakesTheSocketSystemdMade)
{
    const std::string socketPath = basedir + "quelt.sock";
    ChildProcess activated({"/usr/bin/systemd-socket-activate", "-l", socketPath, "--", QUELT_REFD,
                            "--log-stderr", "--basedir", basedir, "--test-engine"});
    ASSERT_NE(activated.ReadStderrUntil("Listening on").find("Listening on"), std::string::npos);
    EXPECT_EQ(Check("activated", "Subject: hi\n\nbody\n"), PassLine + " clean\n");
    activated.Signal(SIGTERM);
    EXPECT_EQ(activated.Wait(), 0);
    EXPECT_TRUE(fs::exists(socketPath));
}

// Each refused value names itself on the first line and ends with status 2,
// before anything is bound.
TEST_F(QueltRefd, RefusesBadOptions)
{
    const std::string test = "--test-engine";
    const std::vector<std::vector<std::string>> rows = {
        {test, "--max-checks", "0", "--max-checks needs at least 1"},
        {test, "--facility", "nowhere", "unknown --facility nowhere"},
        {test, "--engine-timeout", "0", "--engine-timeout needs at least 1"},
        {test, "--add-header", "no colon", "--add-header needs one line 'Name: value'"},
        {test, "--note", "a\nb", "--note must be one line"},
        {test, "--limits-exceeded", "maybe", "--limits-exceeded needs reject, tempfail or pass"},
        {test, "--spam-reject", "x", "--spam-reject needs a score such as 10 or 7.5"},
        {test, "--spam-reject", "5", "--spam-reject needs --spamd"},
        {test, "--verdict", "-1", "--verdict needs a number from 0 to 4294967295"},
        {"--log-stderr", "--user", "nobody",
         "no engine: give --clamd, --spamd and/or --rspamd (OPTIONS in /etc/default/quelt-refd)"},
        {"--log-stderr", "--verdict", "1", "--verdict is a test-only option: it needs --test-engine"},
        {test, "--clamd", "/c.sock", "--test-engine is for tests alone, not with a real engine"},
        {test, "--bogus", "x", "unrecognised option '--bogus'"},
        {test, "--metrics", "9733", "--metrics needs HOST:PORT"},
        {test, "--log-format", "xml", "--log-format needs plain or json"},
        {test, "--log-addresses", "--log-stderr", "--log-addresses needs --log-format json"},
    };
    for (const auto& row : rows) {
        std::string err;
        ChildProcess daemon({QUELT_REFD, "--basedir", basedir, row[0], row[1], row[2]});
        EXPECT_EQ(daemon.Wait(nullptr, &err), 2) << row[1];
        EXPECT_EQ(err, "quelt-refd: " + row[3] + " (see --help)\n");
    }
}

} // namespace
