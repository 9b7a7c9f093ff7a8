// tests/quelt-refd/HostileEngineTest.cpp: quelt-refd, with the real filter
// in front, against engines played by the test that answer what no sound
// engine does: JSON nested too deep, a line that never ends, an answer that
// never ends, folded lines of blanks alone, limit answers, a greylist
// action nobody greylisted. The daemon must stay alive and small, answer
// within its deadline, keep such bytes out of the spool file and keep a sound
// member up. Then the metrics listener with idle connections open.
#include <fstream>

#include <gtest/gtest.h>

#include "Engines.h"
#include "HostileEngine.h"
#include "support/FilterSandbox.h"
#include "support/RefDaemon.h"

namespace
{

// The daemon's resident memory at its peak, for one hostile answer. Under
// AddressSanitizer freed blocks wait in its quarantine (256 MiB) before
// reuse, so that build gets room for it; a runaway read (gigabytes) still
// fails both.
#ifdef __SANITIZE_ADDRESS__
constexpr long PeakBoundKiB = 512 * 1024;
#else
constexpr long PeakBoundKiB = 64 * 1024;
#endif

const std::string Envelope = "from <a@x>\nto <b@y>\nenv-end\n";
const std::string Message = "Subject: hi\n\nbody\n";
const std::string Internal = TempfailLine + " Internal error\n";

// The daemon's peak resident size so far, in KiB.
long PeakKiB(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line))
        if (line.compare(0, 6, "VmHWM:") == 0)
            return std::stol(line.substr(6));
    return -1;
}

std::string Http(const std::string& body)
{
    return "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

HostileEngine::Answer Reply(const std::string& bytes)
{
    return [bytes](HostileEngine& engine, int client) { (void)engine.Send(client, bytes); };
}

HostileEngine::Answer Flood(const std::string& head, const std::string& repeat)
{
    return
        [head, repeat](HostileEngine& engine, int client) { engine.Flood(client, head, repeat); };
}

std::string Rspamd(const std::string& action, const std::string& more)
{
    return Http(R"({"action":")" + action + R"(","score":6,"required_score":15)" + more + "}");
}

class HostileEngines : public ::testing::Test, protected FilterSandbox
{
};

TEST_F(HostileEngines, DaemonStaysAliveSmallAndOnTime)
{
    const std::string deep = std::string(400000, '[') + std::string(400000, ']');
    const std::string spamdHead = "SPAMD/1.1 0 EX_OK\r\nSpam: False ; 1.0 / 5.0\r\n\r\n";
    const std::string streamEnd = Message + std::string(4, '\0'); // zINSTREAM's last chunk
    const std::string tagged = PassLine + " spam: rspamd score 6.00/15.00, tagged\n";
    const struct {
        const char* name;
        std::string option;
        bool tcp;
        HostileEngine::Answer answer;
        std::vector<std::string> args;
        std::string reply, headers;
        std::string logged; // empty: an answer about the message, its member stays up
    } rows[] = {
        {"rspamdHeadersNestedDeep",
         "--rspamd",
         false,
         Reply(Rspamd("add header", R"(,"milter":{"add_headers":{"X-Spam-Deep":)" + deep + "}}")),
         {},
         Internal,
         "",
         "rspamd answer nested deeper than 64"},
        {"rspamdChunkExtensionNeverEnds",
         "--rspamd",
         false,
         Flood("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n10;", std::string(65536, 'e')),
         {},
         Internal,
         "",
         "rspamd answer line longer than 81920 bytes"},
        {"spamdAnswerNeverEnds",
         "--spamd",
         false,
         Flood(spamdHead + "X-Spam-Flag: NO\r\n\r\n", std::string(65536, 'x') + "\r\n"),
         {"--engine-timeout", "2"},
         Internal,
         "",
         "receive timed out"},
        {"rspamdBlankFoldedLines",
         "--rspamd",
         false,
         Reply(Rspamd("add header", R"(,"milter":{"add_headers":{"X-Spam-Report":)"
                                    R"("first\n \t\n second\n  ","X-Rspamd-Server":"host"}})")),
         {},
         tagged,
         "X-Rspamd-Server: host\nX-Spam-Report: first\n second\n",
         ""},
        {"spamdBlankFoldedLines",
         "--spamd",
         false,
         Reply(spamdHead + "X-Spam-Status: No, score=1.0\r\n \t \r\n\ttests=NONE\r\n"
                           "X-Spam-Flag: NO\r\n   \r\n\r\n"),
         {},
         PassLine + " clean\n",
         "X-Spam-Status: No, score=1.0\n\ttests=NONE\nX-Spam-Flag: NO\n",
         ""},
        {"rspamdGreylistActionAlone",
         "--rspamd",
         false,
         Reply(Rspamd("greylist",
                      R"(,"symbols":{"R_SPF_ALLOW":{"name":"R_SPF_ALLOW","score":-0.2}})")),
         {},
         tagged,
         "X-Spam-Status: Yes, score=6.00 required=15.00 (rspamd)\n",
         ""},
        {"rspamdGreylisted",
         "--rspamd",
         false,
         Reply(Rspamd("greylist", R"(,"symbols":{"GREYLIST":{"name":"GREYLIST","score":0,)"
                                  R"("options":["greylisted","Wed, 25 Nov 2026 16:40:00 UTC"]}})")),
         {},
         TempfailLine + " spam: rspamd score 6.00/15.00, greylist\n",
         "",
         ""},
        {"clamdTcpStreamLimit",
         "--clamd",
         true,
         Reply(std::string("INSTREAM size limit exceeded. ERROR") + '\0'),
         {"--limits-exceeded", "reject"},
         RejectLine + " not checked: INSTREAM size limit exceeded\n",
         "",
         ""},
        {"clamdUnixStreamLimit",
         "--clamd",
         false,
         Reply(std::string("fd[10]: INSTREAM size limit exceeded. ERROR") + '\0'),
         {},
         TempfailLine + " not checked: INSTREAM size limit exceeded\n",
         "",
         ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string end = row.option != "--clamd" ? Message
                                : row.tcp               ? streamEnd
                                                        : std::string(2, '\0'); // zFILDES
        HostileEngine engine(row.tcp ? "" : root + "/engine.sock", end, row.answer);
        std::vector<std::string> args = {row.option, engine.Address()};
        args.insert(args.end(), row.args.begin(), row.args.end());
        RefDaemon daemon(basedir, args);
        const std::string spool = Spool(row.name, Envelope + Message);
        EXPECT_EQ(
            RunProgram(Args({"--interface", "0", "--error-action", "tempfail"}), spool + "\n").out,
            row.reply);
        EXPECT_EQ(ReadFile(spool), Envelope + row.headers + Message);
        const long peak = PeakKiB(daemon.Pid());
        EXPECT_GT(peak, 0);
        EXPECT_LT(peak, PeakBoundKiB) << "KiB at the peak";
        std::string log;
        EXPECT_EQ(daemon.Stop(&log), 0) << log;
        if (row.logged.empty()) {
            EXPECT_EQ(log.find(" down: "), std::string::npos) << log;
        } else {
            EXPECT_NE(log.find(row.logged), std::string::npos) << log;
        }
    }
}

// Twenty clients connect to the metrics listener and send nothing; a
// scrape is still answered, and a wrong path gets its 404.
TEST_F(HostileEngines, MetricsAnsweredWhileIdleConnectionsAreOpen)
{
    const std::string port = std::to_string(FreePort());
    RefDaemon daemon(basedir, {"--metrics", "127.0.0.1:" + port});
    boost::asio::io_context io;
    std::vector<boost::asio::ip::tcp::socket> idle;
    for (int at = 0; at < 20; ++at) {
        idle.emplace_back(io);
        idle.back().connect({boost::asio::ip::address_v4::loopback(),
                             static_cast<unsigned short>(std::stoi(port))});
    }
    const std::string url = "http://127.0.0.1:" + port;
    const RunResult scrape =
        RunProgram({"/usr/bin/curl", "-sf", "--max-time", "8", url + "/metrics"});
    EXPECT_EQ(scrape.status, 0);
    EXPECT_NE(scrape.out.find("\nquelt_build_info{version=\"" VOREX_VERSION "\"} 1\n"),
              std::string::npos)
        << scrape.out;
    const RunResult wrong = RunProgram({"/usr/bin/curl", "-s", "--max-time", "8", "-o", "/dev/null",
                                        "-w", "%{http_code}", url + "/x"});
    EXPECT_EQ(wrong.out, "404");
}

} // namespace
