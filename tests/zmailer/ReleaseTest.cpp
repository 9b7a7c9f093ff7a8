// tests/zmailer/ReleaseTest.cpp: vorex-quarantine release against the real
// ZMailer. Messages a real clamd refused through smtpserver are kept; the
// vorex account (played for real) rewrites, plants and moves what it can;
// a release sends what the root filter recorded or nothing, goes through
// the router once, with or without the router-stage snippet, and leaves no
// secret anywhere in the postoffice. The secret itself is watched for on
// every command line and environment an unprivileged account can read
// while filters start and the router stage runs.
#include <sys/stat.h>

#include <fstream>
#include <set>

#include <gtest/gtest.h>

#include "ZmailerFixture.h"
#include "support/Replies.h"
#include "support/SmtpClient.h"

namespace
{

using namespace zmailer_test;

const std::string Quarantine = "/usr/local/sbin/vorex-quarantine";
const std::string Adapter = "/usr/local/sbin/vorex-zmailer-filter";

// A shell command run as the vorex account; its status.
int AsAccount(const std::string& command)
{
    ChildProcess child({"/usr/bin/setpriv", "--reuid", "vorex", "--regid", "vorex",
                        "--clear-groups", "/bin/sh", "-c", command});
    std::string out, err;
    const int status = child.Wait(&out, &err);
    if (status != 0)
        ADD_FAILURE() << "as vorex: " << command << ": " << out << err;
    return status;
}

std::set<std::string> Entries()
{
    std::set<std::string> names;
    for (const auto& item : fs::directory_iterator(Basedir + "msgs"))
        names.insert(item.path().filename().string());
    return names;
}

// Every file under the postoffice holding text, by path.
std::set<std::string> Holding(const ZmailerSite& site, const std::string& text)
{
    std::set<std::string> found;
    for (const std::string& file : FilesBelow(site.Postoffice("")))
        if (ReadFile(site.Postoffice(file)).find(text) != std::string::npos)
            found.insert(file);
    return found;
}

class Release : public Zmailer
{
protected:
    // Sends a message the engines refuse; the entry the filter kept.
    std::string KeptVirus(const std::string& messageId)
    {
        const std::set<std::string> before = Entries();
        const SmtpOutcome got =
            SmtpClient::Send(site.port, "alice@example.org", {"bob@example.net", "carol@example.net"},
                             "Message-ID: <" + messageId + ">\n" + Virus);
        EXPECT_EQ(got.code, 550) << got.text;
        std::string kept;
        for (const std::string& name : Entries())
            if (!before.count(name))
                kept = name;
        EXPECT_FALSE(kept.empty()) << "no entry kept for " << messageId;
        return kept;
    }

    // vorex-quarantine release; status and what it printed.
    int Run(const std::vector<std::string>& args, std::string& said,
            const std::vector<std::string>& environment = {})
    {
        std::vector<std::string> argv = {Quarantine};
        argv.insert(argv.end(), args.begin(), args.end());
        ChildProcess tool(argv, "", environment);
        std::string out, err;
        const int status = tool.Wait(&out, &err);
        said = out + err;
        return status;
    }

    // Starts the router, waits until it took every file, stops it.
    void Route()
    {
        site.StartRouter();
        for (int waited = 0; waited < ChildProcess::BoundMs &&
                             !FilesBelow(site.Postoffice("router")).empty();
             waited += 50)
            (void)::poll(nullptr, 0, 50);
        site.Stop("router");
    }

    const std::string Virus =
        MessagePart(ReadFile(EXAMPLE_SPOOL "/05-eicar-attachment.spool"));
    const std::string Recorded =
        "from <alice@example.org>\nto <bob@example.net>\nto <carol@example.net>\n";
};

TEST_F(Release, SendsWhatTheFilterRecordedOrNothing)
{
    RefDaemon daemon(Basedir, AsVorex({"--clamd", Engines().clamd.socket}));
    site.StartSmtpserver();
    const std::string target = KeptVirus("target@example.org");
    const std::string other = KeptVirus("other@example.org");
    site.Stop("smtpserver");
    const std::string msgs = Basedir + "msgs/";
    const std::string record = ReadFile(msgs + target + "/.original");
    EXPECT_EQ(record.substr(0, record.find("env-end\n")),
              "entry " + target + "\nsize " + std::to_string(MessagePart(record).size()) + "\n" +
                  Recorded);
    struct stat status;
    ASSERT_EQ(::stat((msgs + target + "/.original").c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 0u);
    EXPECT_EQ(status.st_mode & 07777, 0600u);

    const std::string conf = "--zmailer-conf=" + site.zconfig, bare = site.dir / "bare.conf";
    WriteFile(bare, "MAILSHARE=/nonexistent\n");
    const std::string t = msgs + target, o = msgs + other;
    const struct {
        const char* name;
        std::string account;             // what the vorex account does first
        std::vector<std::string> args;   // vorex-quarantine's arguments
        std::vector<std::string> env;    // its environment, empty for the test's
        std::string fault;               // in what it says
    } refusals[] = {
        {"envelopeRewritten",
         "printf 'from <boss@corp.example>\\nto <victim@elsewhere.example>\\n' > " + t +
             "/.envelope.new && mv " + t + "/.envelope.new " + t + "/.envelope",
         {conf, "release", target}, {}, "/.envelope no longer says what the filter recorded"},
        // The other entry's record swapped in (the account can rename what
        // it cannot read), then put back and a copy of its own planted.
        {"recordMovedIn", "mv " + t + "/.original " + t + "/.saved && mv " + o + "/.original " + t +
                              "/.original",
         {conf, "release", target}, {}, "was written for another entry"},
        {"recordPlanted",
         "mv " + t + "/.original " + o + "/.original && cp " + o + "/.envelope " + t + "/.original",
         {conf, "release", target}, {}, "is not the filter's"},
        {"recordRemoved", "rm -f " + t + "/.original", {conf, "release", target}, {},
         "/.original is missing"},
        {"controlBytesInTheName", "mkdir '" + msgs + "\033]2;owned\007'",
         {conf, "release", "\033]2;owned\007"}, {}, "?]2;owned?"},
        {"noConfiguration", "true", {"release", other}, {"PATH=/usr/bin:/bin"},
         "no ZMailer configuration at /etc/zmailer.conf"},
        {"configurationWithoutPostoffice", "true", {"--zmailer-conf=" + bare, "release", other}, {},
         "bare.conf names no POSTOFFICE"},
    };
    for (const auto& row : refusals) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(AsAccount(row.account), 0);
        std::string said;
        EXPECT_EQ(Run(row.args, said, row.env), 1) << said;
        EXPECT_NE(said.find(row.fault), std::string::npos) << said;
        EXPECT_EQ(said.find('\033'), std::string::npos) << "control bytes reach the terminal";
        EXPECT_EQ(FilesBelow(site.Postoffice("router")), std::set<std::string>());
        EXPECT_EQ(FilesBelow(site.Postoffice("public")), std::set<std::string>());
        EXPECT_TRUE(fs::exists(msgs + target) && fs::exists(msgs + other));
    }
    // The account cannot leave a mark for the router stage either.
    std::string said;
    ASSERT_EQ(Run({conf, "release", other}, said), 0) << said;
    EXPECT_EQ(AsAccount("! touch " + site.Postoffice("vorex-released/x") + " 2>/dev/null"), 0);
}

TEST_F(Release, DeliveredOnceUncheckedWithAndWithoutTheRouterStage)
{
    RefDaemon daemon(Basedir, AsVorex({"--clamd", Engines().clamd.socket}));
    site.StartSmtpserver();
    const std::string withStage = KeptVirus("with@example.org");
    const std::string withoutStage = KeptVirus("without@example.org");
    site.Stop("smtpserver");
    for (const std::string& entry : {withoutStage, withStage}) {
        const bool stage = entry == withStage;
        const std::string original = MessagePart(ReadFile(Basedir + "msgs/" + entry + "/.original"));
        SCOPED_TRACE(stage ? "router stage installed" : "no router stage");
        if (stage)
            site.InstallSnippet(SNIPPET);
        site.Clear();
        fs::remove_all(site.Postoffice("vorex-released"));
        std::string said;
        ASSERT_EQ(Run({"--zmailer-conf=" + site.zconfig, "release", entry}, said), 0) << said;
        EXPECT_EQ(said, "released " + entry +
                            " from <alice@example.org> to <bob@example.net>, <carol@example.net>\n");
        EXPECT_FALSE(fs::exists(Basedir + "msgs/" + entry));
        const std::set<std::string> before = Entries();
        Route();
        const std::string queued = OnlyFile("queue");
        ASSERT_FALSE(queued.empty()) << "not routed";
        EXPECT_EQ(MessagePart(ReadFile(queued)), original);
        EXPECT_EQ(FilesBelow(site.Postoffice("freezer")), std::set<std::string>());
        // The router stage takes the mark; without one it stays for a day.
        EXPECT_EQ(FilesBelow(site.Postoffice("vorex-released")).size(), stage ? 0u : 1u);
        EXPECT_EQ(Holding(site, "X-Vorex-Hash"), std::set<std::string>());
        EXPECT_EQ(Holding(site, Secret), std::set<std::string>());
        EXPECT_EQ(Entries(), before) << "kept again";
    }
}

// A mark that does not match its file (a file that reuses the inode of a
// release, a mark left over) lets nothing through: the file is checked.
TEST_F(Release, RouterStageChecksWhatNoMarkMatches)
{
    RefDaemon daemon(Basedir, AsVorex({"--clamd", Engines().clamd.socket}));
    site.InstallSnippet(SNIPPET);
    const std::string spool = "from <mallory@example.org>\nto <bob@example.net>\nenv-end\n" + Virus;
    const std::string draft = site.Postoffice("public/draft");
    WriteFile(draft, spool);
    struct stat status;
    ASSERT_EQ(::stat(draft.c_str(), &status), 0);
    char name[64];
    std::snprintf(name, sizeof name, "%llx-%llx", static_cast<unsigned long long>(status.st_dev),
                  static_cast<unsigned long long>(status.st_ino));
    fs::create_directories(site.Postoffice("vorex-released"));
    fs::permissions(site.Postoffice("vorex-released"), fs::perms(0700));
    WriteFile(site.Postoffice("vorex-released/") + name,
              "size " + std::to_string(spool.size()) + "\nmtime 1.000000000\nentry stale\n");
    fs::permissions(site.Postoffice("vorex-released/") + name, fs::perms(0600));
    fs::rename(draft, site.Postoffice("router/" + std::to_string(status.st_ino)));
    Route();
    EXPECT_EQ(OnlyFile("queue"), "");
    EXPECT_EQ(ReadFile(OnlyFile("freezer")), spool);
    EXPECT_EQ(FilesBelow(site.Postoffice("vorex-released")), std::set<std::string>()) << "stale mark kept";
}

// The secret on any command line or environment an unprivileged account can
// read, counted by such an account polling /proc while the adapter starts
// the filter again and again and while the router stage runs.
TEST_F(Release, SecretNeverReadableByAnotherAccount)
{
    RefDaemon daemon(Basedir, AsVorex({}));
    const std::string watcher =
        "import os, sys\n"
        "secret, stop = sys.stdin.readline().strip().encode(), sys.argv[1]\n"
        "hits = filters = 0\n"
        "seen = set()\n"
        "while not os.path.exists(stop):\n"
        "    for pid in os.listdir('/proc'):\n"
        "        if not pid.isdigit(): continue\n"
        "        for part in ('cmdline', 'environ'):\n"
        "            try:\n"
        "                with open('/proc/%s/%s' % (pid, part), 'rb') as f: text = f.read()\n"
        "            except OSError: continue\n"
        "            if secret in text: hits += 1\n"
        "            if part == 'cmdline' and text.startswith(b'/usr/local/sbin/vorex-zmailer\\0'):\n"
        "                seen.add(pid)\n"
        "print(hits, len(seen))\n";
    const std::string stop = site.dir / "stop";
    WriteFile(site.dir / "watch.py", watcher);

    // Job lines naming no file: each fails its filter, which the adapter
    // starts again for the next one.
    const int runs = 1000;
    const std::string hashed = "from <alice@example.org>\nto <bob@example.net>\nenv-end\n" + Head +
                               "X-Vorex-Hash: " + Secret + "\n\nReturned.\n";
    const struct {
        const char* name;
        bool routerStage;
    } rows[] = {{"adapterRestartsTheFilter", false}, {"routerStage", true}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove(stop);
        ChildProcess watch({"/usr/bin/setpriv", "--reuid", "nobody", "--regid", "nogroup",
                            "--clear-groups", "/usr/bin/python3", site.dir / "watch.py", stop});
        watch.Write(Secret + "\n"); // never its command line: it would find itself
        if (row.routerStage) {
            const std::string queue = site.Postoffice("router");
            for (int run = 0; run < runs; ++run) {
                WriteFile(queue + "/queued", hashed);
                ChildProcess stage({Adapter, "--file", "queued"}, queue);
                std::string out;
                ASSERT_EQ(stage.Wait(&out), 0) << out;
                ASSERT_EQ(out.compare(0, 2, "0 "), 0) << out;
            }
            EXPECT_EQ(ReadFile(queue + "/queued"), "from <alice@example.org>\nto <bob@example.net>\n"
                                                   "env-end\n" + Head + "\nReturned.\n");
        } else {
            // One job at a time, each answered with a reply and "#hungry"
            // (a sanitizer build starts the filter slowly).
            ChildProcess adapter({Adapter});
            ASSERT_EQ(adapter.ReadStdoutUntil(Hungry), Hungry);
            int answered = 0;
            for (int job = 0; job < runs; ++job) {
                adapter.Write("/nonexistent/" + std::to_string(job) + "\n");
                const std::string said = adapter.ReadStdoutUntil(Hungry);
                answered += std::count(said.begin(), said.end(), '\n') == 2 ? 1 : 0;
            }
            EXPECT_EQ(answered, runs);
            EXPECT_EQ(adapter.Wait(), 0);
        }
        WriteFile(stop, "");
        std::string counts;
        ASSERT_EQ(watch.Wait(&counts), 0) << counts;
        int hits = -1, filters = 0;
        std::istringstream(counts) >> hits >> filters;
        EXPECT_EQ(hits, 0) << "the secret was read";
        EXPECT_GT(filters, 0) << "the watcher saw no filter: it proved nothing";
    }
}

} // namespace
