// tests/receiver/RefdTest.cpp: the reference daemon quelt-refd as the tests
// and the demo use it: its answers byte for byte, its changes to ".msg", its
// start-up over stale and live sockets and its clean stop.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "ReceiverFixture.h"
#include "support/PlayedDaemon.h"
#include "support/RefDaemon.h"

namespace
{

const std::string TestString =
    "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
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
        while (::poll(&ready, 1, PlayedDaemon::BoundMs) == 1 &&
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
protected:
    // A fresh entry directory with .msg, or without one when msg is null.
    std::string MakeEntry(const std::string& name, const std::string* msg)
    {
        std::string dir = Base() + "msgs/" + name;
        boost::filesystem::create_directories(dir);
        if (msg != nullptr)
            WriteFile(dir + "/.msg", *msg);
        return dir;
    }
};

TEST_F(QueltRefd, Answers)
{
    struct Row {
        const char* name;
        std::vector<std::string> args;
        std::string msg;
        std::string answer;
        std::string msgAfter;
    };
    const std::string header = "X-Vorex-Checked: clean";
    const std::string mail = "Subject: hello\n\nbody\n";
    const std::string infected = "Subject: t\n\n" + TestString + "\n";
    const std::string large = "Subject: big\n\n" + std::string(3 * Block + 17, 'b') + "\n";
    std::string nearMiss = infected;
    nearMiss[nearMiss.size() - 2] = '#';
    const std::string split = TestString.substr(0, 30) + "\n" + TestString.substr(30);
    const std::string infectedNote = "2 infected: EICAR-Test-File\n";
    const std::string acrossBlocks = std::string(Block - 30, 'a') + TestString;
    const std::string lastByteNext = std::string(Block - 67, 'a') + TestString;
    const std::string thirdBlock = std::string(2 * Block + 5, 'a') + TestString + "\n";
    const Row rows[] = {
        {"plain", {}, mail, "1 clean\n", mail},
        {"testString", {}, infected, infectedNote, infected},
        {"testStringAcrossBlocks", {}, acrossBlocks, infectedNote, acrossBlocks},
        {"testStringLastByteInNextBlock", {}, lastByteNext, infectedNote, lastByteNext},
        {"testStringInThirdBlock", {}, thirdBlock, infectedNote, thirdBlock},
        {"nearMiss", {}, nearMiss, "1 clean\n", nearMiss},
        {"splitByALine", {}, split, "1 clean\n", split},
        {"addHeader", {"--add-header", header}, mail, "513 clean\n", header + "\n" + mail},
        {"addHeaderLarge", {"--add-header", header}, large, "513 clean\n", header + "\n" + large},
        {"addHeaderInfected", {"--add-header", header}, infected, infectedNote, infected},
        {"verdictWithNote",
         {"--verdict", "4", "--note", "try later"},
         infected,
         "4 try later\n",
         infected},
        {"verdictAlone", {"--verdict", "0"}, mail, "0\n", mail},
        {"verdictLeavesMsg", {"--verdict", "1", "--add-header", header}, mail, "1\n", mail},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string dir = MakeEntry(row.name, &row.msg);
        RefDaemon daemon(Base(), row.args);

        EXPECT_EQ(Exchange(SocketPath(), "CHECK " + dir + "\n"), row.answer);
        EXPECT_EQ(ReadFile(dir + "/.msg"), row.msgAfter);
        EXPECT_FALSE(boost::filesystem::exists(dir + "/.msg.refd-new"));
        std::string log;
        EXPECT_EQ(daemon.Stop(&log), 0);
        EXPECT_NE(log.find("quelt-refd: " + dir + ": " + row.answer), std::string::npos) << log;
    }
}

TEST_F(QueltRefd, BadRequestIsClosedUnanswered)
{
    const std::string mail = "Subject: x\n\n";
    const std::string dir = MakeEntry("good", &mail);
    RefDaemon daemon(Base());
    for (const std::string& request :
         std::vector<std::string>{"HELLO\n", "CHECK \n", "check " + dir + "\n", "CHECK " + dir})
        EXPECT_EQ(Exchange(SocketPath(), request), "") << request;
    EXPECT_EQ(Exchange(SocketPath(), "CHECK " + dir + "\n"), "1 clean\n");
}

TEST_F(QueltRefd, StaleSocketIsReplaced)
{
    ::close(PlayedDaemon::ListenOn(SocketPath()));
    const std::string mail = "Subject: x\n\n";
    const std::string dir = MakeEntry("e", &mail);
    RefDaemon daemon(Base());
    EXPECT_EQ(Exchange(SocketPath(), "CHECK " + dir + "\n"), "1 clean\n");
}

TEST_F(QueltRefd, RefusesASocketThatAnswers)
{
    const std::string mail = "Subject: x\n\n";
    const std::string dir = MakeEntry("e", &mail);
    RefDaemon first(Base());
    ChildProcess second({QUELT_REFD, "--basedir", Base()});
    std::string said;
    EXPECT_EQ(second.Wait(nullptr, &said), 1);
    EXPECT_EQ(said, "quelt-refd: another daemon answers on " + SocketPath() + "; not started\n");
    EXPECT_EQ(Exchange(SocketPath(), "CHECK " + dir + "\n"), "1 clean\n");
}

TEST_F(QueltRefd, StopsCleanlyOnSignal)
{
    for (int signal : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(signal);
        ChildProcess daemon({QUELT_REFD, "--basedir", Base()});
        EXPECT_EQ(daemon.ReadStderrUntil("\n"), "quelt-refd: listening on " + SocketPath() + "\n");
        daemon.Signal(signal);
        std::string said;
        EXPECT_EQ(daemon.Wait(nullptr, &said), 0);
        EXPECT_EQ(said, "quelt-refd: stopped\n");
        EXPECT_FALSE(boost::filesystem::exists(SocketPath()));
    }
}

} // namespace
