// tests/receiver/RefdTest.cpp: the reference daemon quelt-refd as far as the
// filter's tests and the demo rely on it: its answers byte for byte, its
// changes to ".msg", its clean stop, its sweep of kept entries and --check.
// A plain clean answer, the test string and a header added to a small
// message are the boundary and e2e tests' (with the real filter in front).
#include <poll.h>
#include <sys/socket.h>

#include "ReceiverFixture.h"
#include "support/ChildProcess.h"
#include "support/PlayedDaemon.h"
#include "support/RefDaemon.h"
#include "support/Replies.h"

namespace
{

namespace fs = boost::filesystem;

// Sends request, closes the sending side and returns all the daemon answers
// before it closes the connection.
std::string Exchange(const std::string& socketPath, const std::string& request)
{
    const int fd = ConnectTo(socketPath);
    std::string answer = fd < 0 ? "no connection" : "";
    pollfd ready = {fd, POLLIN, 0};
    char block[4096];
    ssize_t count;
    if (fd >= 0 && ::write(fd, request.data(), request.size()) == ssize_t(request.size()) &&
        ::shutdown(fd, SHUT_WR) == 0)
        while (::poll(&ready, 1, ChildProcess::BoundMs) == 1 &&
               (count = ::read(fd, block, sizeof block)) > 0)
            answer.append(block, static_cast<std::size_t>(count));
    ::close(fd);
    return answer;
}

using QueltRefd = ReceiverFixture;

TEST_F(QueltRefd, AnswersAndStops)
{
    const std::size_t block = 64 * 1024; // the daemon's read block
    const std::vector<std::string> add = {"--add-header", "X-Vorex-Checked: clean"};
    const std::string mail = "Subject: hello\n\nbody\n", infected = "Subject: t\n\n" + Eicar + "\n";
    const std::string large = "Subject: big\n\n" + std::string(3 * block + 17, 'b') + "\n";
    const std::string virus = "2 infected: EICAR-Test-File\n";
    const struct {
        const char* name;
        std::vector<std::string> args;
        std::string msg, answer;
        bool headerAdded;
    } rows[] = {
        {"testStringAcrossBlocks", {}, std::string(block - 30, 'a') + Eicar, virus, false},
        {"addHeaderLarge", add, large, "513 clean\n", true},
        {"addHeaderInfected", add, infected, virus, false},
        {"verdictWithNote",
         {"--verdict", "4", "--note", "try later"},
         mail,
         "4 try later\n",
         false},
        {"verdictAlone", {"--verdict", "0"}, mail, "0\n", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string dir = Base() + "msgs/" + row.name;
        fs::create_directories(dir);
        WriteFile(dir + "/.msg", row.msg);
        RefDaemon daemon(Base(), row.args);

        EXPECT_EQ(Exchange(SocketPath(), "CHECK " + dir + "\n"), row.answer);
        EXPECT_EQ(ReadFile(dir + "/.msg"), (row.headerAdded ? add[1] + "\n" : "") + row.msg);
        EXPECT_FALSE(fs::exists(dir + "/.msg.refd-new"));
        std::string log;
        EXPECT_EQ(daemon.Stop(&log), 0);
        const std::string verdict = "verdict " + row.answer.substr(0, row.answer.size() - 1) + ", ";
        EXPECT_NE(log.find(verdict), std::string::npos) << log;
        EXPECT_EQ(log.substr(log.size() - 21), "\nquelt-refd: stopped\n") << log;
        EXPECT_FALSE(fs::exists(SocketPath()));
    }
}

// Kept entries go at the start sweep (--keep-hours 0: any age) without a
// link being followed and only when the daemon's uid owns them; a client
// that sends nothing does not hold up the next one.
TEST_F(QueltRefd, SweepsKeptEntriesAndServesPastASilentClient)
{
    const std::string msgs = Base() + "msgs/", outside = Base() + "outside";
    WriteFile(outside, "keep me");
    fs::create_directories(msgs + "kept");
    fs::create_directories(msgs + "foreign");
    fs::create_symlink(outside, msgs + "kept/.msg");
    fs::create_symlink(Base(), msgs + "linkedDir");
    ASSERT_EQ(::chown((msgs + "foreign").c_str(), 65534, 65534), 0);

    RefDaemon daemon(Base(), {"--keep-hours", "0"});
    EXPECT_FALSE(fs::exists(msgs + "kept"));
    EXPECT_EQ(ReadFile(outside), "keep me");
    EXPECT_TRUE(fs::exists(msgs + "foreign"));
    EXPECT_TRUE(fs::is_symlink(msgs + "linkedDir"));
    const int silent = ConnectTo(SocketPath());
    ASSERT_GE(silent, 0);
    fs::create_directories(msgs + "clean"); // after the sweep
    WriteFile(msgs + "clean/.msg", "Subject: hi\n\nbody\n");
    EXPECT_EQ(Exchange(SocketPath(), "CHECK " + msgs + "clean\n"), "1 clean\n");
    ::close(silent);
    EXPECT_NE(daemon.startLog.find("removed kept entry " + msgs + "kept (0 h old)\n"),
              std::string::npos)
        << daemon.startLog;
}

// --check against a daemon that dropped to an account: all well, then a
// "msgs/" with the wrong mode is named with its fix.
TEST_F(QueltRefd, CheckFindsTheSetUpWellOrSaysWhatToFix)
{
    const std::string msgs = Base() + "msgs";
    fs::create_directories(msgs);
    ASSERT_EQ(::chown(msgs.c_str(), 0, 65534), 0);
    ASSERT_EQ(::chmod(msgs.c_str(), 01770), 0);
    RefDaemon daemon(Base(), {"--user", "nobody"});
    const std::vector<std::string> check = {QUELT_REFD, "--check", "--basedir",
                                            Base(),     "--user",  "nobody"};
    std::string out;
    EXPECT_EQ(ChildProcess(check).Wait(&out), 0) << out;
    EXPECT_NE(out.find("ok:      round trip: the daemon answered '1 clean'\nall is well\n"),
              std::string::npos)
        << out;
    EXPECT_TRUE(fs::is_empty(msgs)) << "the test entry is gone";
    ASSERT_EQ(::chmod(msgs.c_str(), 0777), 0);
    EXPECT_EQ(ChildProcess(check).Wait(&out), 1);
    EXPECT_NE(out.find("fix: chown root:nogroup " + msgs + " && chmod 1770 " + msgs + "\n"),
              std::string::npos)
        << out;
}

// Each refused value names itself on the first line and ends with status 2,
// before anything is bound.
TEST_F(QueltRefd, RefusesBadOptions)
{
    const std::vector<std::vector<std::string>> rows = {
        {"--max-checks", "0", "--max-checks needs at least 1"},
        {"--facility", "nowhere", "unknown --facility nowhere"},
        {"--engine-timeout", "0", "--engine-timeout needs at least 1"},
        {"--add-header", "no colon", "--add-header needs one line 'Name: value'"},
        {"--note", "a\nb", "--note must be one line"},
        {"--limits-exceeded", "maybe", "--limits-exceeded needs reject, tempfail or pass"},
        {"--spam-reject", "x", "--spam-reject needs a score such as 10 or 7.5"},
        {"--spam-reject", "5", "--spam-reject needs --spamd"},
        {"--verdict", "-1", "--verdict needs a number from 0 to 4294967295"},
    };
    for (const auto& row : rows) {
        std::string err;
        ChildProcess daemon({QUELT_REFD, "--basedir", Base(), row[0], row[1]});
        EXPECT_EQ(daemon.Wait(nullptr, &err), 2) << row[0];
        EXPECT_EQ(err.substr(0, err.find('\n')), "quelt-refd: " + row[2]);
    }
}

} // namespace
