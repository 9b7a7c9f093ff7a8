// tests/zmailer/ZmailerTest.cpp: what the real ZMailer does with our
// programs. smtpserver runs the installed adapter as its content filter,
// quelt-refd (as the vorex account) with private clamd and spamd behind it;
// a real SMTP client sends, and each row checks the client's reply, how
// long it waited, and where ZMailer left the file with which bytes. The
// router runs the shipped router-stage snippet on files put into its queue.
// quelt-refd --check reads this set-up as it reads a site's.
#include <thread>

#include <regex>

#include <gtest/gtest.h>

#include "ZmailerFixture.h"
#include "support/Replies.h"
#include "support/SmtpClient.h"

namespace
{

using namespace zmailer_test;

TEST_F(Zmailer, SmtpserverAnswersEachVerdictAndQueuesOnlyCheckedMail)
{
    const std::string hashed = Head + "X-Vorex-Hash: " + Secret + "\n\nReturned by the daemon.\n";
    const std::string virus = MessagePart(ReadFile(EXAMPLE_SPOOL "/05-eicar-attachment.spool"));
    const std::string spam = Head + "\n" + Gtube + "\n";
    const std::string spamFields = "X-Spam-Checker-Version: *\nX-Spam-Flag: *\nX-Spam-Level: *\n"
                                   "X-Spam-Status: *\n";
    const std::string tempfail = "451 4.3.0 Content-Policy accept-into-freezer-1 msg: Temporary "
                                 "rejected by Vorex Quelt. Try later. Internal error; ";
    const struct {
        const char* name;
        std::string trouble; // clamd, clamd+spamd, down, silent, killed, no filter
        std::string message;
        int code;
        std::string reply;   // the start of the client's last reply
        std::string where;   // router (queued), freezer, or gone
        std::string queued;  // the queued message part, X-Spam-* values masked
    } rows[] = {
        {"clean", "clamd", Clean, 250, "250 2.6.0 Okey. Go ahead! clean", "router", Clean},
        {"virus", "clamd", virus, 550,
         "550 5.7.1 Content-Policy reject msg: Rejected by Vorex Quelt! infected: "
         "eicar.com.UNOFFICIAL;",
         "gone", ""},
        {"spamHeaders", "clamd+spamd", spam, 250, "250 2.6.0 Okey. Go ahead! spam: score", "router",
         spamFields + spam},
        {"returnedWithTheSecret", "clamd+spamd", hashed, 250, "250 2.6.0 Okey. Go ahead!", "router",
         Head + "\nReturned by the daemon.\n"},
        {"daemonDown", "down", Clean, 451, tempfail, "freezer", ""},
        {"daemonSilent", "silent", Clean, 451, tempfail, "freezer", ""},
        {"filterKilled", "killed", Clean, 451, tempfail, "freezer", ""},
        {"noFilterProgram", "no filter", Clean, 451, tempfail, "freezer", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        site.Clear();
        std::unique_ptr<RefDaemon> daemon;
        int silent = -1;
        if (row.trouble == "clamd")
            daemon = std::make_unique<RefDaemon>(Basedir, AsVorex({"--clamd", Engines().clamd.socket}));
        if (row.trouble == "clamd+spamd")
            daemon = std::make_unique<RefDaemon>(
                Basedir, AsVorex({"--clamd", Engines().clamd.socket, "--spamd",
                                  Engines().spamd.socket}));
        if (row.trouble == "killed")
            daemon = std::make_unique<RefDaemon>(Basedir, AsVorex({"--delay-ms", "30000"}));
        if (row.trouble == "silent")
            silent = PlayedDaemon::ListenOn(Basedir + "quelt.sock");
        if (row.trouble == "no filter")
            fs::rename(Filter, Filter + ".away");
        site.StartSmtpserver();
        pid_t killed = 0;
        std::thread killer([&] {
            if (row.trouble == "killed" && (killed = FilterInAJob()) > 0)
                (void)::kill(killed, SIGKILL);
        });
        const SmtpOutcome got =
            SmtpClient::Send(site.port, "alice@example.org", {"bob@example.net"}, row.message);
        killer.join();
        EXPECT_EQ(got.code, row.code) << got.text;
        EXPECT_EQ(got.text.compare(0, row.reply.size(), row.reply), 0) << got.text;
        EXPECT_LT(got.seconds, AnsweredWithinSeconds);
        EXPECT_EQ(killed > 0, row.trouble == "killed");
        const std::string queued = OnlyFile("router"), frozen = OnlyFile("freezer");
        EXPECT_EQ(queued.empty() ? frozen.empty() ? "gone" : "freezer" : "router", row.where);
        if (!queued.empty()) {
            EXPECT_EQ(Masked(MessagePart(ReadFile(queued))), Masked(row.queued));
        }
        site.Stop("smtpserver");
        if (row.trouble == "no filter")
            fs::rename(Filter + ".away", Filter);
        (void)::close(silent);
        daemon.reset();
        fs::remove(Basedir + "quelt.sock");
    }
}

TEST_F(Zmailer, FourClientsAtOnceShareTwoFilters)
{
    RefDaemon daemon(Basedir, AsVorex({"--delay-ms", "500"}));
    site.StartSmtpserver();
    SmtpOutcome got[4];
    std::vector<std::thread> clients;
    for (int client = 0; client < 4; ++client)
        clients.emplace_back([&, client] {
            got[client] = SmtpClient::Send(site.port, "alice@example.org",
                                           {"bob" + std::to_string(client) + "@example.net"}, Clean);
        });
    for (std::thread& client : clients)
        client.join();
    for (const SmtpOutcome& each : got) {
        EXPECT_EQ(each.code, 250) << each.text;
        EXPECT_LT(each.seconds, AnsweredWithinSeconds);
    }
    const std::set<std::string> queued = FilesBelow(site.Postoffice("router"));
    ASSERT_EQ(queued.size(), 4u);
    for (const std::string& file : queued)
        EXPECT_EQ(MessagePart(ReadFile(site.Postoffice("router/" + file))), Clean);
}

TEST_F(Zmailer, RouterRunsTheShippedSnippet)
{
    const std::string envelope = "from <alice@example.org>\nto <bob@example.net>\nenv-end\n";
    const std::string hashed = Head + "X-Vorex-Hash: " + Secret + "\n\nReturned.\n";
    const struct {
        const char* name;
        std::string spool;
        std::string secret; // in /etc/vorex/secure-hash
        std::string where;  // queue (routed) or freezer
        std::string routed; // the message part routed
    } rows[] = {
        {"pass", envelope + Clean, Secret, "queue", Clean},
        {"refuse", envelope + Head + "\n" + Eicar + "\n", Secret, "freezer", ""},
        {"secretLineCut", envelope + hashed, Secret, "queue", Head + "\nReturned.\n"},
        {"noSecret", envelope + Clean, "", "freezer", ""},
    };
    site.InstallSnippet(SNIPPET);
    RefDaemon daemon(Basedir, AsVorex({}));
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        site.Clear();
        WriteFile("/etc/vorex/secure-hash", row.secret + "\n");
        const std::string name = site.Submit(row.spool);
        site.StartRouter();
        for (int waited = 0; waited < ChildProcess::BoundMs &&
                             fs::exists(site.Postoffice("router/" + name));
             waited += 50)
            (void)::poll(nullptr, 0, 50);
        site.Stop("router");
        const std::string queued = OnlyFile("queue"), frozen = OnlyFile("freezer");
        EXPECT_EQ(queued.empty() ? frozen.empty() ? "gone" : "freezer" : "queue", row.where);
        EXPECT_EQ(FilesBelow(site.Postoffice("transport")).size(), queued.empty() ? 0u : 1u);
        if (!queued.empty()) {
            EXPECT_EQ(MessagePart(ReadFile(queued)), row.routed);
        }
        if (!frozen.empty()) {
            EXPECT_EQ(ReadFile(frozen), row.spool);
        }
    }
    WriteFile("/etc/vorex/secure-hash", Secret + "\n");
}

TEST_F(Zmailer, CheckReadsTheCompiledPolicy)
{
    const Words engine = {"--clamd", Engines().clamd.socket};
    RefDaemon daemon(Basedir, AsVorex(engine));
    const struct {
        const char* name;
        std::string policy;
        std::string problem; // the PROBLEM line's start, empty for none
    } rows[] = {
        {"everyClientFiltered",
         "[127.0.0.0]/8 relaycustnet + relaytarget + filtering +\n"
         "[0.0.0.0]/0 relaycustnet - filtering + = _rest\n_rest relaytarget +\n",
         ""},
        {"filteringThroughAnAlias",
         "[0.0.0.0]/0 = _default\n_default filtering + relaycustnet -\n", ""},
        {"defaultNotFiltered", "[0.0.0.0]/0 relaycustnet -\n", "PROBLEM [0.0.0.0]/0: "},
        {"ownNetworkNotFiltered",
         "[127.0.0.0]/8 relaycustnet + = _full_rights\n_full_rights relaytarget +\n"
         "[0.0.0.0]/0 filtering +\n",
         "PROBLEM [127.0.0.0]/8: "},
        {"noDefault", "[127.0.0.0]/8 filtering +\n", "PROBLEM [0.0.0.0]/0: "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        site.Policy(row.policy);
        Words args = {QUELT_REFD, "--check", "--zmailer-conf", site.zconfig, "--basedir",
                      Basedir,    "--filter", Filter,         "--user",       "vorex"};
        args.insert(args.end(), engine.begin(), engine.end());
        ChildProcess check(args);
        std::string said;
        const int status = check.Wait(&said);
        const std::size_t problem = said.find("PROBLEM");
        EXPECT_EQ(status, row.problem.empty() ? 0 : 1) << said;
        EXPECT_EQ(problem == std::string::npos ? "" : said.substr(problem, row.problem.size()),
                  row.problem)
            << said;
        if (!row.problem.empty()) {
            EXPECT_NE(said.find("filtering +"), std::string::npos) << said;
        }
    }
}

} // namespace
