// tests/faults/BoundaryTest.cpp: the root filter against the daemon's
// account. A second process, running as that account, plays a compromised
// daemon: between the filter's request and its answer it plants links, a
// FIFO or a directory in the entry, or swaps the entry itself. Whatever it
// does, the filter answers, nothing of root's reaches the spool file, and
// nothing outside the entry changes. Also the documented set-up with the
// real daemon as the account, and the secret gone from the command line.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "support/FilterSandbox.h"
#include "support/PlayedDaemon.h"
#include "support/RefDaemon.h"

namespace
{

namespace fs = boost::filesystem;

const uid_t Account = 65534; // nobody:nogroup
const std::string Secret = "root-only bytes\n";
const std::string Message = "from <a@example.org>\nto <b@example.net>\nenv-end\n"
                            "Subject: hello\n\nbody\n";
const std::vector<std::string> AsAccount = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534",
                                            "--clear-groups"};

class Boundary : public ::testing::Test, protected FilterSandbox
{
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root: the filter runs as root, the daemon as another account";
        // The documented set-up: the base directory is the account's.
        ASSERT_EQ(::chown(basedir.c_str(), Account, Account), 0);
        ASSERT_EQ(::chmod(basedir.c_str(), 0750), 0);
        WriteFile(secret, Secret);
        ASSERT_EQ(::chmod(secret.c_str(), 0600), 0);
        fs::create_directories(outside);
        WriteFile(outside + "/.msg", Secret);
    }

    std::vector<std::string> Args() const
    {
        return FilterSandbox::Args({"--user", "nobody", "-e", "tempfail"});
    }

    // What root owns outside the base directory, as it must stay.
    std::string RootState() const
    {
        return ReadFile(secret) + std::to_string(ModeOf(secret)) + ReadFile(outside + "/.msg") +
               std::to_string(std::distance(fs::directory_iterator(outside), {}));
    }

    const std::string secret = root + "/secret";
    const std::string outside = root + "/outside";
};

// Serves one request as the account: runs attack on the entry directory,
// then answers. Ends on its own when no request comes.
void PlayAccount(int listener, const std::function<void(const std::string&)>& attack,
                 const std::string& answer)
{
    if (::setgroups(0, nullptr) != 0 || ::setgid(Account) != 0 || ::setuid(Account) != 0)
        ::_exit(3);
    pollfd ready = {listener, POLLIN, 0};
    if (::poll(&ready, 1, PlayedDaemon::BoundMs) != 1)
        ::_exit(4);
    const int client = ::accept(listener, nullptr, nullptr);
    std::string request;
    char block[512];
    ssize_t count;
    while (request.find('\n') == std::string::npos &&
           (count = ::read(client, block, sizeof block)) > 0)
        request.append(block, static_cast<std::size_t>(count));
    attack(request.substr(6, request.find('\n') - 6)); // after "CHECK "
    (void)::write(client, answer.data(), answer.size());
    ::_exit(0);
}

TEST_F(Boundary, CompromisedAccountGetsNothingOfRoot)
{
    using Attack = std::function<void(const std::string& entry)>;
    const std::string outsideDir = outside;
    const std::string secretFile = secret;
    const struct {
        const char* name;
        Attack attack;
        std::string answer;
    } rows[] = {
        {"msgIsLinkToRootFile",
         [&](const std::string& e) {
             ::unlink((e + "/.msg").c_str());
             (void)::symlink(secretFile.c_str(), (e + "/.msg").c_str());
         },
         "513\n"},
        {"msgIsFifo",
         [](const std::string& e) {
             ::unlink((e + "/.msg").c_str());
             (void)::mkfifo((e + "/.msg").c_str(), 0660);
         },
         "513\n"},
        {"msgIsDirectory",
         [](const std::string& e) {
             ::unlink((e + "/.msg").c_str());
             (void)::mkdir((e + "/.msg").c_str(), 0770);
         },
         "513\n"},
        {"entrySwappedForLink",
         [&](const std::string& e) {
             (void)::rename(e.c_str(), (e + ".moved").c_str());
             (void)::symlink(outsideDir.c_str(), e.c_str());
         },
         "513\n"},
        {"linksOutBeforeWithdrawal",
         [&](const std::string& e) {
             (void)::symlink(secretFile.c_str(), (e + "/file").c_str());
             (void)::symlink(outsideDir.c_str(), (e + "/dir").c_str());
             (void)::mkdir((e + "/sub").c_str(), 0770);
             (void)::symlink(outsideDir.c_str(), (e + "/sub/dir").c_str());
         },
         "32\n"},
    };
    const std::string before = RootState();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string spool = Spool("spool", Message);
        const std::string socketPath = basedir + "quelt.sock";
        const int listener = PlayedDaemon::ListenOn(socketPath);
        const pid_t account = ::fork();
        if (account == 0)
            PlayAccount(listener, row.attack, row.answer);
        ::close(listener);

        const RunResult run = RunProgram(Args(), spool + "\n");
        int status = -1;
        ::kill(account, SIGKILL); // done already unless the filter never asked
        ::waitpid(account, &status, 0);
        ::unlink(socketPath.c_str());

        EXPECT_FALSE(run.hung);
        EXPECT_EQ(run.out, Hungry + TempfailLine + " Internal error\n");
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(ReadFile(spool), Message);
        EXPECT_EQ(RootState(), before);
    }
}

// The documented set-up end to end: the real daemon as the account reads
// and rewrites the entries the root filter hands it, and may remove the ones
// kept for it.
TEST_F(Boundary, DaemonAsTheAccountReachesEveryEntry)
{
    RefDaemon daemon(basedir, {"--add-header", "X-Checked: yes"}, AsAccount);
    const std::string clean = Spool("clean", Message);
    const std::string virus = Spool("virus", Message + Eicar + "\n");
    const RunResult run = RunProgram(Args(), clean + "\n" + virus + "\n");
    EXPECT_EQ(run.out, Hungry + PassLine + " clean\n" + Hungry + RejectLine +
                           " infected: EICAR-Test-File\n" + Hungry);
    EXPECT_EQ(ReadFile(clean), "from <a@example.org>\nto <b@example.net>\nenv-end\n"
                               "X-Checked: yes\nSubject: hello\n\nbody\n");
    ASSERT_EQ(EntryCount(), 1u);
    const std::string kept = fs::directory_iterator(basedir + "msgs")->path().string();
    std::vector<std::string> removal = AsAccount;
    removal.insert(removal.end(), {"/bin/rm", "-r", kept});
    EXPECT_EQ(RunProgram(removal).status, 0);
    EXPECT_EQ(EntryCount(), 0u);
}

TEST_F(Boundary, SecretLeavesTheCommandLine)
{
    for (const std::vector<std::string>& hash :
         {std::vector<std::string>{"--hash", "s3cret-value"}, {"--hash=s3cret-value"}}) {
        ChildProcess filter(FilterSandbox::Args(hash));
        ASSERT_EQ(filter.ReadStdoutUntil(Hungry), Hungry);
        const std::string cmdline = ReadFile("/proc/" + std::to_string(filter.Pid()) + "/cmdline");
        EXPECT_NE(cmdline.find("--hash"), std::string::npos);
        EXPECT_EQ(cmdline.find("s3cret"), std::string::npos) << cmdline;
        EXPECT_EQ(filter.Wait(), 0);
    }
}

} // namespace
