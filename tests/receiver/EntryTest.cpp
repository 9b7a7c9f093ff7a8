// tests/receiver/EntryTest.cpp: Init's refusals, the entry directories
// (names, modes, uniqueness), SetOwner, and the entries whose path the
// request line cannot carry. That every object goes with its last reference
// is the fixture's check after each test. The conversation itself is the
// end-to-end tests'.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "platform/receiver/Descriptor.h"
#include "platform/receiver/EntryFiles.h"
#include "platform/receiver/Receiver.h"
#include "platform/receiver/RefHolder.h"
#include "support/TempDir.h"

namespace
{

// A Receiver brought up on a fresh base directory, and the check that
// every library object is gone at the end.
class ReceiverFixture : public ::testing::Test
{
protected:
    void TearDown() override { EXPECT_EQ(RefObjectLiveCount(), 0); }

    std::string Base() const { return temp.Path().string() + "/"; }

    RefHolder<Receiver> MakeReceiver(int32_t timeout = 10, const char* id = "test")
    {
        RefHolder<Receiver> receiver(CreateReceiver());
        EXPECT_TRUE(
            receiver->Init(Base().c_str(), id, ReceiverInitFlags, timeout, 1, 0, 0, 0, 0, 0));
        return receiver;
    }

    // How many captured lines at a level ("ERROR", "WARN") contain text.
    static long LinesWith(const LogCapture& log, const std::string& level, const std::string& text)
    {
        const std::vector<std::string> lines = log.Lines();
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.rfind(level + " ", 0) == 0 && line.find(text) != std::string::npos;
        });
    }

    TempDir temp;
};

using ReceiverInit = ReceiverFixture;
using ReceiverEntry = ReceiverFixture;

std::string OwnerOf(const std::string& path)
{
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0)
        return "none";
    return std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);
}

TEST_F(ReceiverInit, Refusals)
{
    TempDir withMsgsFile, plain, open, setgid; // a "msgs/" anyone could have rearranged
    WriteFile(withMsgsFile / "msgs", "x");
    for (const auto& [base, mode] :
         {std::pair<TempDir*, mode_t>{&plain, 0770}, {&open, 01777}, {&setgid, 03770}})
        ASSERT_EQ(::mkdir((*base / "msgs").c_str(), 0700) | ::chmod((*base / "msgs").c_str(), mode),
                  0);
    const auto folder = [](const TempDir& base) { return base.Path().string() + "/"; };
    const struct {
        std::string basedir;
        int32_t timeout;
        std::string cause;
    } rows[] = {
        {temp / "missing/", 10, "receiver base directory"},
        {"", 10, "receiver base directory not given"},
        {folder(withMsgsFile), 10, "can not open entries folder"},
        {Base(), 0, "receiver timeout 0 is not above 0"},
        {folder(plain), 10, " mode 0770, not uid"},
        {folder(open), 10, " mode 1777, not uid"},
        {folder(setgid), 10, " mode 3770, not uid"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.cause);
        LogCapture log;
        RefHolder<Receiver> receiver(CreateReceiver());
        EXPECT_FALSE(receiver->Init(row.basedir.c_str(), "id", ReceiverInitFlags, row.timeout, 1, 0,
                                    0, 0, 0, 0));
        EXPECT_EQ(LinesWith(log, "ERROR", row.cause), 1) << log.Text();
        EXPECT_EQ(receiver->CreateMsgEntry(), nullptr);
    }
    // "msgs" gone after a good start: no entry, and the cause.
    RefHolder<Receiver> receiver = MakeReceiver();
    boost::filesystem::remove(temp / "msgs");
    WriteFile(temp / "msgs", "not a folder");
    LogCapture log;
    EXPECT_EQ(receiver->CreateMsgEntry(), nullptr);
    EXPECT_EQ(LinesWith(log, "ERROR", "can not make entry directory " + Base() + "msgs/"), 1);
}

// "msgs/" is the filter's, of the base directory's group (the daemon's
// account), sticky, whatever the umask; a sticky folder of the filter's own
// with another group and mode is brought to that state. Entries keep the umask.
TEST_F(ReceiverInit, EntriesFolderIsStickyAndOfTheBaseGroup)
{
    const std::string base = temp.Path().string(); // without the final "/"
    ASSERT_EQ(::chown(base.c_str(), ::geteuid(), 65534), 0);
    for (bool earlier : {false, true}) {
        SCOPED_TRACE(earlier ? "earlier folder" : "new folder");
        boost::filesystem::remove_all(temp / "msgs");
        if (earlier) {
            ASSERT_EQ(::mkdir((temp / "msgs").c_str(), 0700) |
                          ::chmod((temp / "msgs").c_str(), 01700),
                      0);
        }
        RefHolder<Receiver> receiver(CreateReceiver());
        const mode_t oldMask = ::umask(027);
        const bool ready =
            receiver->Init(base.c_str(), "", ReceiverInitFlags, 10, 1, 0, 0, 0, 0, 0);
        RefHolder<MsgEntry> entry(ready ? receiver->CreateMsgEntry() : nullptr);
        (void)::umask(oldMask); // umask cannot fail
        ASSERT_TRUE(entry);
        EXPECT_EQ(ModeOf(temp / "msgs"), 01770u);
        EXPECT_EQ(OwnerOf(temp / "msgs"), std::to_string(::geteuid()) + ":65534");
        EXPECT_EQ(ModeOf(entry->GetDir()), 0750u);
        EXPECT_EQ(std::string(entry->GetDir()), base + "/msgs/" + entry->GetId());
    }
}

// The id's prefix (each byte outside [A-Za-z0-9._-] as "_"), the time in
// seconds, the process id, a sequence; unique across receivers of a process.
TEST_F(ReceiverEntry, NamesFromIdTimeProcessAndSequence)
{
    const char* const rows[][2] = {
        {"", ""}, {"x.y_z-9", "x.y_z-9."}, {"../a b/c:\xc3\xbc", ".._a_b_c___."}};
    const std::string name = "(\\d+)\\." + std::to_string(::getpid()) + "\\.\\d+";
    // The clock the names are read from: std::time reads a coarser one that
    // may still show the last second when the entry already has the next.
    const auto now = [] {
        timespec t;
        (void)::clock_gettime(CLOCK_REALTIME, &t);
        return static_cast<long>(t.tv_sec);
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row[0]);
        RefHolder<Receiver> receiver = MakeReceiver(10, row[0]);
        const long before = now();
        RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
        ASSERT_TRUE(entry);
        const std::string id = entry->GetId();
        const std::regex form(std::regex_replace(row[1], std::regex("\\."), "\\.") + name);
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(id, parts, form)) << id;
        EXPECT_TRUE(std::stol(parts[1]) >= before && std::stol(parts[1]) <= now());
        EXPECT_EQ(std::string(entry->GetDir()), Base() + "msgs/" + id);
        EXPECT_TRUE(boost::filesystem::is_directory(entry->GetDir()));
    }
    RefHolder<Receiver> first = MakeReceiver(), second = MakeReceiver(); // same id and base
    std::vector<RefHolder<MsgEntry>> entries;
    std::set<std::string> ids;
    for (int i = 0; i < 200; ++i) {
        entries.emplace_back((i % 2 ? first : second)->CreateMsgEntry());
        ASSERT_TRUE(entries.back());
        ids.insert(entries.back()->GetId());
    }
    EXPECT_EQ(ids.size(), entries.size());
}

// The files the filter made are handed over through their descriptors: a
// second name of root's file put in place of ".msg" is not handed over.
TEST_F(ReceiverEntry, SetOwnerHandsOverWhatTheFilterMadeNotWhatHoldsItsName)
{
    RefHolder<Receiver> receiver = MakeReceiver();
    RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
    const std::string dir = entry->GetDir(), outside = temp / "outside", moved = dir + "/moved";
    std::string cause;
    for (const std::string& file : {dir + "/.envelope", dir + "/.msg"})
        EXPECT_TRUE(Descriptor(CreateEntryFile(file, 0660, cause)).IsValid()) << cause;
    WriteFile(outside, "x");
    ASSERT_EQ(::rename((dir + "/.msg").c_str(), moved.c_str()) |
                  ::link(outside.c_str(), (dir + "/.msg").c_str()),
              0);
    EXPECT_TRUE(entry->SetOwner(65534, 65534));
    for (const std::string& path : {dir, dir + "/.envelope", moved})
        EXPECT_EQ(OwnerOf(path), "65534:65534") << path;
    EXPECT_EQ(OwnerOf(outside), "0:0");
}

// A socket path too long for the address, an entry path with a line end
// (it would end the request early), an entry of no receiver: the daemon
// error without a connection, and the cause logged.
TEST_F(ReceiverEntry, RequestsTheLineCannotCarryAreRefused)
{
    for (const std::string& name : {std::string(120, 'd'), std::string("line\nend")}) {
        const std::string dir = temp / name;
        ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
        LogCapture log;
        RefHolder<Receiver> receiver(CreateReceiver());
        ASSERT_TRUE(
            receiver->Init((dir + "/").c_str(), "", ReceiverInitFlags, 10, 1, 0, 0, 0, 0, 0));
        RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
        EXPECT_EQ(receiver->ProcessMsg(entry.Get(), 0, 0, 0, 0), VerdictDaemonError);
        EXPECT_EQ(receiver->ProcessMsg(nullptr, 0, 0, 0, 0), VerdictDaemonError);
        const std::string cause = name.size() > 100 ? "daemon socket path too long: " + dir
                                                    : "with a line end can not be sent to daemon";
        EXPECT_EQ(LinesWith(log, "ERROR", cause), 1) << log.Text();
    }
}

} // namespace
