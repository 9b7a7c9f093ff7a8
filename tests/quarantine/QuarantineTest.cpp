// tests/quarantine/QuarantineTest.cpp: a message a real clamd rejected
// through the real filter is kept, listed with its verdict, refused for
// release where the secret could leak or the account planted a link, then
// released to a stand-in SMTP receiver; the real filter with the secret
// passes the received message with every byte of the original.
#include <regex>
#include <thread>

#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "quelt-refd/Engines.h"
#include "support/FilterSandbox.h"
#include "support/RefDaemon.h"

namespace
{

namespace fs = boost::filesystem;
namespace asio = boost::asio;

const std::string Secret = "c0ffee15600d";

// Answers one SMTP session with 220/250/354/250 and records the envelope
// and the message as it was before the transfer's CRLF and dot stuffing.
struct StandInSmtp {
    asio::io_context io;
    asio::ip::tcp::acceptor acceptor{io, {asio::ip::address_v4::loopback(), 0}};
    std::string envelope, message;

    void Serve()
    {
        asio::ip::tcp::socket socket(io);
        acceptor.accept(socket);
        asio::streambuf input;
        const auto say = [&](const std::string& line) { asio::write(socket, asio::buffer(line)); };
        say("220 stand-in\r\n");
        for (bool data = false;;) {
            boost::system::error_code closed;
            asio::read_until(socket, input, "\r\n", closed);
            if (closed)
                return;
            std::string line;
            std::istream stream(&input);
            std::getline(stream, line);
            line.pop_back(); // the CR
            if (data && line == ".") {
                data = false;
                say("250 queued\r\n");
            } else if (data) {
                message += (line.rfind('.', 0) == 0 ? line.substr(1) : line) + "\n";
            } else if (line == "DATA") {
                data = true;
                say("354 go on\r\n");
            } else {
                if (line.rfind("MAIL", 0) == 0 || line.rfind("RCPT", 0) == 0)
                    envelope += line + "\n";
                say(line == "QUIT" ? "221 bye\r\n" : "250 ok\r\n");
            }
        }
    }
    // True when nobody connected since the last Serve.
    bool Untouched()
    {
        acceptor.non_blocking(true);
        asio::ip::tcp::socket socket(io);
        boost::system::error_code error;
        acceptor.accept(socket, error);
        return error == asio::error::would_block;
    }
};

class Quarantine : public ::testing::Test, protected FilterSandbox
{
protected:
    RunResult Tool(std::vector<std::string> args) const
    {
        args.insert(args.begin(), {VOREX_QUARANTINE, "--basedir", basedir});
        return RunProgram(args);
    }
    // The entry's files, as a fingerprint that shows any change.
    std::string Files(const std::string& entry) const
    {
        std::string all;
        for (const char* name : {"/.envelope", "/.msg", "/.decision"})
            all += ReadFile(basedir + "msgs/" + entry + name) + "|";
        return all;
    }
};

TEST_F(Quarantine, RejectedListedRefusedReleasedAndPassedAgain)
{
    // Lines the transfer must dot-stuff, one of them a lone dot.
    const std::string infected = ReadFile(EXAMPLE_SPOOL "/05-eicar-attachment.spool") + ".\n..x\n";
    const std::string envelope = infected.substr(0, infected.find("env-end\n") + 8);
    Clamd clamd;
    {
        RefDaemon daemon(basedir, {"--clamd", clamd.socket});
        RunResult run = RunProgram(Args({"--interface", "0"}), Spool("infected", infected) + "\n");
        ASSERT_EQ(run.out, RejectLine + " infected: eicar.com.UNOFFICIAL\n") << run.err;
    }
    const std::string msgs = basedir + "msgs/";
    ASSERT_EQ(EntryCount(), 1u);
    const std::string entry = fs::directory_iterator(msgs)->path().filename().string();
    const std::string original = ReadFile(msgs + entry + "/.msg");

    RunResult list = Tool({"list"});
    EXPECT_TRUE(std::regex_search(
        list.out, std::regex(entry + "  [0-9]+m  " + std::to_string(original.size()) +
                             "  reject  <alice@corp\\.example> -> <partner@other\\.example>,"
                             "<team\\+sales@corp\\.example>  infected: eicar\\.com\\.UNOFFICIAL\n")))
        << list.out << list.err;
    const nlohmann::json json = nlohmann::json::parse(Tool({"list", "--json"}).out);
    EXPECT_EQ(json["entries"][0]["verdict"], "reject");
    EXPECT_NE(json["entries"][0]["engines"].get<std::string>().find("clamd"), std::string::npos);

    // The account's moves, played by the account: an entry that is a link to
    // a copy only root can read, an entry whose ".msg" is such a link.
    const std::string hidden = root + "/hidden";
    fs::create_directories(hidden);
    fs::copy_file(msgs + entry + "/.msg", hidden + "/.msg");
    fs::copy_file(msgs + entry + "/.envelope", hidden + "/.envelope");
    fs::create_directories(msgs + "planted");
    fs::copy_file(msgs + entry + "/.envelope", msgs + "planted/.envelope");
    ASSERT_EQ(::chmod(msgs.c_str(), 01777), 0);
    ASSERT_EQ(::chown((msgs + "planted").c_str(), 65534, 65534), 0);
    RunResult account = RunProgram({"/usr/bin/setpriv", "--reuid", "nobody", "--regid", "nogroup",
                                    "--clear-groups", "/bin/sh", "-c",
                                    "ln -s " + hidden + " " + msgs + "linked && ln -s " + hidden +
                                        "/.msg " + msgs + "planted/.msg"});
    ASSERT_EQ(account.status, 0) << account.err;
    ASSERT_EQ(::chmod(msgs.c_str(), 01770), 0); // the filter wants its own mode back

    StandInSmtp smtp;
    const std::string target = "127.0.0.1:" + std::to_string(smtp.acceptor.local_endpoint().port());
    const std::string zmailerConf = root + "/zmailer.conf", secretFile = root + "/secret";
    WriteFile(secretFile, Secret + "\n");
    WriteFile(zmailerConf, "MAILSHARE=" + root + "/share\n");
    fs::create_directories(root + "/share");
    const std::vector<std::string> release = {"--smtp", target, "--secret-file", secretFile,
                                              "--zmailer-conf", zmailerConf, "release"};
    const struct {
        const char* name;
        std::string entry, smtpserverConf, smtp, fault;
    } refusals[] = {
        {"outsideMsgs", "../x", "PARAM contentfilter " VOREX_ZMAILER, target, "no entry name"},
        {"linkedEntry", "linked", "PARAM contentfilter " VOREX_ZMAILER, target,
         "open " + msgs + "linked error:"},
        {"linkedMsg", "planted", "PARAM contentfilter " VOREX_ZMAILER, target,
         "planted/.msg error:Too many levels of symbolic links"},
        {"noContentFilter", entry, "PARAM contentfilter /nonexistent", target,
         "names no executable PARAM contentfilter"},
        {"notLoopback", entry, "PARAM contentfilter " VOREX_ZMAILER, "192.0.2.1:25",
         "not a loopback address"},
    };
    const std::string before = Files(entry);
    for (const auto& row : refusals) {
        WriteFile(root + "/share/smtpserver.conf", row.smtpserverConf + "\n");
        std::vector<std::string> args = release;
        args[1] = row.smtp;
        args.push_back(row.entry);
        RunResult run = Tool(args);
        EXPECT_EQ(run.status, 1) << row.name;
        EXPECT_NE(run.err.find(row.fault), std::string::npos) << row.name << ": " << run.err;
        EXPECT_TRUE(smtp.Untouched()) << row.name;
        EXPECT_EQ(Files(entry), before) << row.name;
        EXPECT_EQ(ReadFile(hidden + "/.msg"), original) << row.name;
        EXPECT_TRUE(fs::is_symlink(msgs + "linked") && fs::is_symlink(msgs + "planted/.msg"))
            << row.name;
    }

    WriteFile(root + "/share/smtpserver.conf", "PARAM contentfilter " VOREX_ZMAILER "\n");
    smtp.acceptor.non_blocking(false);
    std::thread server([&smtp] { smtp.Serve(); });
    std::vector<std::string> args = release;
    args.push_back(entry);
    RunResult run = Tool(args);
    server.join();
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(smtp.envelope, "MAIL FROM:<alice@corp.example>\nRCPT TO:<partner@other.example>\n"
                             "RCPT TO:<team+sales@corp.example>\n");
    EXPECT_EQ(smtp.message, "X-Vorex-Hash: " + Secret + "\n" + original);
    EXPECT_FALSE(fs::exists(msgs + entry));

    // Back through the filter: passed unchecked (the daemon's pass would
    // carry its note), the header cut, the spool file the original byte for
    // byte.
    RefDaemon daemon(basedir);
    RunResult again = RunProgram(Args({"--interface", "0", "--hash", Secret}), Spool("back", envelope + smtp.message) + "\n");
    EXPECT_EQ(again.out, PassLine + "\n") << again.err;
    EXPECT_EQ(ReadFile(root + "/back"), infected);

    EXPECT_EQ(Tool({"delete", "planted"}).status, 0);
    EXPECT_FALSE(fs::exists(msgs + "planted"));
    EXPECT_EQ(ReadFile(hidden + "/.msg"), original) << "delete removes the link, not its target";
}

} // namespace
