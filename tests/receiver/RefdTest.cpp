// tests/receiver/RefdTest.cpp: the reference daemon quelt-refd as far as the
// filter's tests and the demo rely on it: its answers byte for byte, its
// changes to ".msg", and its clean stop.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "ReceiverFixture.h"
#include "support/RefDaemon.h"
#include "support/Replies.h"

namespace
{

const std::size_t Block = 64 * 1024; // the daemon's read block

// Sends request, closes the sending side and returns all the daemon answers
// before it closes the connection.
std::string Exchange(const std::string& socketPath, const std::string& request)
{
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
    std::string answer;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size()) &&
        ::shutdown(fd, SHUT_WR) == 0) {
        char block[4096];
        pollfd ready = {fd, POLLIN, 0};
        ssize_t count;
        while (::poll(&ready, 1, ChildProcess::BoundMs) == 1 &&
               (count = ::read(fd, block, sizeof block)) > 0)
            answer.append(block, static_cast<std::size_t>(count));
    } else {
        answer = "no connection";
    }
    ::close(fd);
    return answer;
}

class QueltRefd : public ReceiverFixture
{
};

TEST_F(QueltRefd, AnswersAndStops)
{
    const std::vector<std::string> addHeader = {"--add-header", "X-Vorex-Checked: clean"};
    const std::string mail = "Subject: hello\n\nbody\n";
    const std::string infected = "Subject: t\n\n" + Eicar + "\n";
    const std::string acrossBlocks = std::string(Block - 30, 'a') + Eicar;
    const std::string large = "Subject: big\n\n" + std::string(3 * Block + 17, 'b') + "\n";
    const std::string infectedNote = "2 infected: EICAR-Test-File\n";
    const struct {
        const char* name;
        std::vector<std::string> args;
        std::string msg;
        std::string answer;
        bool headerAdded;
    } rows[] = {
        {"plain", {}, mail, "1 clean\n", false},
        {"testString", {}, infected, infectedNote, false},
        {"testStringAcrossBlocks", {}, acrossBlocks, infectedNote, false},
        {"addHeader", addHeader, mail, "513 clean\n", true},
        {"addHeaderLarge", addHeader, large, "513 clean\n", true},
        {"addHeaderInfected", addHeader, infected, infectedNote, false},
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
        boost::filesystem::create_directories(dir);
        WriteFile(dir + "/.msg", row.msg);
        RefDaemon daemon(Base(), row.args);

        EXPECT_EQ(Exchange(SocketPath(), "CHECK " + dir + "\n"), row.answer);
        EXPECT_EQ(ReadFile(dir + "/.msg"), (row.headerAdded ? addHeader[1] + "\n" : "") + row.msg);
        EXPECT_FALSE(boost::filesystem::exists(dir + "/.msg.refd-new"));
        std::string log;
        EXPECT_EQ(daemon.Stop(&log), 0);
        const std::string verdict = "verdict " + row.answer.substr(0, row.answer.size() - 1) + ", ";
        EXPECT_NE(log.find(verdict), std::string::npos) << log;
        EXPECT_EQ(log.substr(log.size() - 21), "\nquelt-refd: stopped\n") << log;
        EXPECT_FALSE(boost::filesystem::exists(SocketPath()));
    }
}

} // namespace

namespace
{

// Kept entries go at the start sweep (--keep-hours 0: any age) without a
// link being followed and only when the daemon's uid owns them; a client
// that sends nothing does not hold up the next one.
TEST_F(QueltRefd, SweepsKeptEntriesAndServesPastASilentClient)
{
    const std::string msgs = Base() + "msgs/", outside = Base() + "outside";
    WriteFile(outside, "keep me");
    boost::filesystem::create_directories(msgs + "kept");
    boost::filesystem::create_directories(msgs + "foreign");
    boost::filesystem::create_symlink(outside, msgs + "kept/.msg");
    boost::filesystem::create_symlink(Base(), msgs + "linkedDir");
    ASSERT_EQ(::chown((msgs + "foreign").c_str(), 65534, 65534), 0);

    RefDaemon daemon(Base(), {"--keep-hours", "0"});
    EXPECT_FALSE(boost::filesystem::exists(msgs + "kept"));
    EXPECT_EQ(ReadFile(outside), "keep me");
    EXPECT_TRUE(boost::filesystem::exists(msgs + "foreign"));
    EXPECT_TRUE(boost::filesystem::is_symlink(msgs + "linkedDir"));

    int silent = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, SocketPath().c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::connect(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    boost::filesystem::create_directories(msgs + "clean");
    WriteFile(msgs + "clean/.msg", "Subject: hi\n\nbody\n");
    EXPECT_EQ(Exchange(SocketPath(), "CHECK " + msgs + "clean\n"), "1 clean\n");
    ::close(silent);
    std::string log;
    EXPECT_EQ(daemon.Stop(&log), 0);
    EXPECT_NE(daemon.startLog.find("removed kept entry " + msgs + "kept (0 h old)\n"),
              std::string::npos)
        << daemon.startLog;
}

} // namespace

namespace
{

// --check against a daemon that dropped to an account: all well, then a
// "msgs/" with the wrong mode is named with its fix.
TEST_F(QueltRefd, CheckFindsTheSetUpWellOrSaysWhatToFix)
{
    const std::string msgs = Base() + "msgs";
    boost::filesystem::create_directories(msgs);
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
    EXPECT_TRUE(boost::filesystem::is_empty(msgs)) << "the test entry is gone";

    ASSERT_EQ(::chmod(msgs.c_str(), 0777), 0);
    EXPECT_EQ(ChildProcess(check).Wait(&out), 1);
    EXPECT_NE(out.find("fix: chown root:nogroup " + msgs + " && chmod 1770 " + msgs + "\n"),
              std::string::npos)
        << out;
}

} // namespace
