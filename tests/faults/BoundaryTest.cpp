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

#include <string>
#include <tuple>
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
        // The documented set-up: the base directory is root's, of the
        // account's group.
        ASSERT_EQ(::chown(basedir.c_str(), 0, Account), 0);
        ASSERT_EQ(::chmod(basedir.c_str(), 0750), 0);
        WriteFile(secret, Secret);
        ASSERT_EQ(::chmod(secret.c_str(), 0600), 0);
        fs::create_directories(outside);
        WriteFile(outside + "/.msg", Secret);
    }

    const std::vector<std::string> args = Args({"--user", "nobody", "-e", "tempfail"});
    // What root owns outside the base directory, as it must stay.
    std::string RootState() const
    {
        return ReadFile(secret) + std::to_string(ModeOf(secret)) + ReadFile(outside + "/.msg") +
               std::to_string(std::distance(fs::directory_iterator(outside), {}));
    }

    const std::string secret = root + "/secret", outside = root + "/outside";
};

// What the account does to the entry: each step an operation on a path in
// it ("" is the entry itself) and, for a link, its target in the sandbox.
struct Step {
    char op; // 'u'nlink, 'l'ink, 'f'ifo, 'd'irectory, 'm'ove aside, 't'runcate
    const char* path;
    const char* target = ""; // for 't' the new size
};

// Serves one request as the account: runs the steps on the entry directory,
// then answers. Ends on its own when no request comes.
void PlayAccount(int listener, const std::vector<Step>& steps, const std::string& answer,
                 const std::string& root)
{
    if (::setgroups(0, nullptr) != 0 || ::setgid(Account) != 0 || ::setuid(Account) != 0)
        ::_exit(3);
    pollfd ready = {listener, POLLIN, 0};
    if (::poll(&ready, 1, PlayedDaemon::BoundMs) != 1)
        ::_exit(4);
    const int client = ::accept(listener, nullptr, nullptr);
    std::string request;
    char block[512];
    for (ssize_t count; request.find('\n') == std::string::npos &&
                        (count = ::read(client, block, sizeof block)) > 0;)
        request.append(block, static_cast<std::size_t>(count));
    const std::string entry = request.substr(6, request.find('\n') - 6); // after "CHECK "
    for (const Step& step : steps) {
        const std::string path = entry + step.path, target = root + "/" + step.target;
        const char* at = path.c_str();
        (void)(step.op == 'u'   ? ::unlink(at)
               : step.op == 'l' ? ::symlink(target.c_str(), at)
               : step.op == 'f' ? ::mkfifo(at, 0660)
               : step.op == 'd' ? ::mkdir(at, 0770)
               : step.op == 't' ? ::truncate(at, std::atol(step.target))
                                : ::rename(at, (path + ".moved").c_str()));
    }
    (void)::write(client, answer.data(), answer.size());
    ::_exit(0);
}

TEST_F(Boundary, CompromisedAccountGetsNothingOfRoot)
{
    const struct {
        const char* name;
        std::vector<Step> steps;
        std::string answer;
    } rows[] = {
        {"msgIsLinkToRootFile", {{'u', "/.msg"}, {'l', "/.msg", "secret"}}, "513\n"},
        {"msgIsFifo", {{'u', "/.msg"}, {'f', "/.msg"}}, "513\n"},
        {"msgIsDirectory", {{'u', "/.msg"}, {'d', "/.msg"}}, "513\n"},
        {"entrySwappedForLink", {{'m', ""}, {'l', "", "outside"}}, "513\n"},
        // The copy back: 8 MiB (past the received size plus 1 MiB), a hole.
        {"msgGrownPastAllowance", {{'t', "/.msg", "8388608"}}, "513\n"},
        {"msgWithHole", {{'t', "/.msg", "65536"}}, "513\n"},
        {"linksOutBeforeWithdrawal",
         {{'l', "/file", "secret"},
          {'l', "/dir", "outside"},
          {'d', "/sub"},
          {'l', "/sub/dir", "outside"}},
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
            PlayAccount(listener, row.steps, row.answer, root);
        ::close(listener);

        const RunResult run = RunProgram(args, spool + "\n");
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

// Where the account owns the base directory (the earlier layout), it can
// put a "msgs/" of its own, set-group-id, where the filter's belongs: the
// filter refuses to start rather than make entries in it.
TEST_F(Boundary, FilterRefusesAnEntriesFolderOfTheAccount)
{
    ASSERT_EQ(::chown(basedir.c_str(), Account, Account), 0);
    std::vector<std::string> swap = AsAccount;
    swap.insert(swap.end(), {"/bin/sh", "-c", "cd " + basedir + " && mkdir -m 3770 msgs"});
    ASSERT_EQ(RunProgram(swap).status, 0);
    const RunResult run = RunProgram(
        Args({"--user", "nobody", "-e", "tempfail", "--log-filename", root + "/log"}), "x\n");
    EXPECT_EQ(run.out, TempfailLine + " Internal error\n");
    EXPECT_EQ(run.err, "error: can not initialize Receiver module\n");
    EXPECT_EQ(run.status, 1);
}

// The documented set-up end to end: the real daemon, started as root, binds
// and becomes the account; as such it reads and rewrites the entries the
// root filter hands it, and the account may remove the ones kept for it.
TEST_F(Boundary, DaemonAsTheAccountReachesEveryEntry)
{
    RefDaemon daemon(basedir, {"--add-header", "X-Checked: yes", "--user", "nobody"});
    // Made by root with the account's group at bind, never changed by path.
    struct stat socket;
    ASSERT_EQ(::lstat((basedir + "quelt.sock").c_str(), &socket), 0);
    EXPECT_EQ(std::make_tuple(socket.st_uid, socket.st_gid, socket.st_mode & 07777),
              std::make_tuple(0u, Account, 0660u));
    const std::string clean = Spool("clean", Message);
    const std::string virus = Spool("virus", Message + Eicar + "\n");
    const RunResult run = RunProgram(args, clean + "\n" + virus + "\n");
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
