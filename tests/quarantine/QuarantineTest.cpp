// tests/quarantine/QuarantineTest.cpp: a message a real clamd rejected
// through the real filter is kept, listed with its verdict, refused for
// release where the router queue is unknown or the account planted a link,
// then released into a router queue folder with every byte the filter
// recorded. (Release through the real router: tests/zmailer.)
#include <sys/stat.h>

#include <regex>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "quelt-refd/Engines.h"
#include "support/FilterSandbox.h"
#include "support/RefDaemon.h"

namespace
{

namespace fs = boost::filesystem;

unsigned long InodeOf(const std::string& path)
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

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

    // ZMailer's queue folders, as a release finds them through zmailer.conf.
    const std::string postoffice = root + "/postoffice", zmailerConf = root + "/zmailer.conf";
    for (const char* queue : {"/public", "/router"})
        fs::create_directories(postoffice + queue);
    const std::vector<std::string> release = {"--zmailer-conf", zmailerConf, "release"};
    const struct {
        const char* name;
        std::string entry, zmailerConf, fault;
    } refusals[] = {
        {"outsideMsgs", "../x", "POSTOFFICE=" + postoffice, "no entry name"},
        {"linkedEntry", "linked", "POSTOFFICE=" + postoffice, "open " + msgs + "linked error:"},
        {"linkedMsg", "planted", "POSTOFFICE=" + postoffice,
         "planted/.msg error:Too many levels of symbolic links"},
        {"noPostoffice", entry, "MAILSHARE=" + root, "names no POSTOFFICE"},
        {"postofficeMissing", entry, "POSTOFFICE=" + root + "/nonexistent",
         "open " + root + "/nonexistent (POSTOFFICE in"},
    };
    const std::string before = Files(entry);
    for (const auto& row : refusals) {
        WriteFile(zmailerConf, row.zmailerConf + "\n");
        std::vector<std::string> args = release;
        args.push_back(row.entry);
        RunResult run = Tool(args);
        EXPECT_EQ(run.status, 1) << row.name;
        EXPECT_NE(run.err.find(row.fault), std::string::npos) << row.name << ": " << run.err;
        EXPECT_TRUE(fs::is_empty(postoffice + "/router") && fs::is_empty(postoffice + "/public"))
            << row.name;
        EXPECT_EQ(Files(entry), before) << row.name;
        EXPECT_EQ(ReadFile(hidden + "/.msg"), original) << row.name;
        EXPECT_TRUE(fs::is_symlink(msgs + "linked") && fs::is_symlink(msgs + "planted/.msg"))
            << row.name;
    }

    // Released: the filter's record, queued for the router under its inode
    // number, with a mark for the router stage; no secret anywhere.
    WriteFile(zmailerConf, "POSTOFFICE=" + postoffice + "\n");
    std::vector<std::string> args = release;
    args.push_back(entry);
    RunResult run = Tool(args);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "released " + entry +
                           " from <alice@corp.example> to <partner@other.example>, "
                           "<team+sales@corp.example>\n");
    ASSERT_EQ(std::distance(fs::directory_iterator(postoffice + "/router"), {}), 1);
    const fs::path queued = fs::directory_iterator(postoffice + "/router")->path();
    EXPECT_EQ(queued.filename().string(), std::to_string(InodeOf(queued.string())));
    EXPECT_EQ(ReadFile(queued.string()),
              "from <alice@corp.example>\nto <partner@other.example>\n"
              "to <team+sales@corp.example>\nenv-end\n" + infected.substr(envelope.size()));
    EXPECT_EQ(std::distance(fs::directory_iterator(postoffice + "/vorex-released"), {}), 1);
    EXPECT_TRUE(fs::is_empty(postoffice + "/public"));
    EXPECT_FALSE(fs::exists(msgs + entry));

    EXPECT_EQ(Tool({"delete", "planted"}).status, 0);
    EXPECT_FALSE(fs::exists(msgs + "planted"));
    EXPECT_EQ(ReadFile(hidden + "/.msg"), original) << "delete removes the link, not its target";
}

} // namespace
