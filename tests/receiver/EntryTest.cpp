// tests/receiver/EntryTest.cpp: Init's refusals, the entry directories
// (names, modes, uniqueness), SetOwner and Remove. That every object goes
// with its last reference is the fixture's check after each test.
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <set>

#include "ReceiverFixture.h"
#include "support/PlayedDaemon.h"

namespace
{

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
    struct Row {
        const char* name;
        std::string basedir;
        int32_t timeout;
        const char* cause;
    };
    TempDir withMsgsFile;
    WriteFile(withMsgsFile / "msgs", "x");
    const Row rows[] = {
        {"noBaseDirectory", temp / "missing/", 10, "receiver base directory"},
        {"emptyBase", "", 10, "receiver base directory not given"},
        {"msgsIsAFile", withMsgsFile.Path().string() + "/", 10, "can not open entries folder"},
        {"timeoutZero", Base(), 0, "receiver timeout 0 is not above 0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        LogCapture log;
        RefHolder<Receiver> receiver(CreateReceiver());
        EXPECT_FALSE(receiver->Init(row.basedir.c_str(), "id", ReceiverInitFlags, row.timeout, 1, 0,
                                    0, 0, 0, 0));
        EXPECT_EQ(LinesWith(log, "ERROR", row.cause).size(), 1u) << log.Text();
        EXPECT_EQ(receiver->CreateMsgEntry(), nullptr);
    }
}

// "msgs/" is the filter's, of the base directory's group (the daemon's
// account), sticky, whatever the umask; a folder left root:root 0770 by an
// earlier version is brought to that state. Entries keep the umask.
TEST_F(ReceiverInit, EntriesFolderIsStickyAndOfTheBaseGroup)
{
    const std::string base = temp.Path().string(); // without the final "/"
    ASSERT_EQ(::chown(base.c_str(), ::geteuid(), 65534), 0);
    for (bool earlier : {false, true}) {
        SCOPED_TRACE(earlier ? "earlier folder" : "new folder");
        boost::filesystem::remove_all(temp / "msgs");
        if (earlier) {
            ASSERT_EQ(::mkdir((temp / "msgs").c_str(), 0770), 0);
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

TEST_F(ReceiverEntry, NamesFromIdTimeProcessAndSequence)
{
    struct Row {
        const char* id;
        const char* prefix;
    };
    const Row rows[] = {
        {"", ""},
        {"x.y_z-9", "x.y_z-9."},
        {"a b/c:d", "a_b_c_d."},
        {"../up", ".._up."},
        {"\xc3\xbc", "__."}, // each byte of a multibyte character
    };
    const std::string pid = "." + std::to_string(::getpid()) + ".";
    auto isNumber = [](const std::string& text) {
        return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.id);
        RefHolder<Receiver> receiver = MakeReceiver(10, row.id);
        const std::time_t before = std::time(nullptr);
        RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
        const std::time_t after = std::time(nullptr);
        ASSERT_TRUE(entry);

        // The prefix, the time in seconds, the process id, the sequence.
        const std::string id = entry->GetId();
        const std::size_t prefixLength = std::strlen(row.prefix);
        const std::size_t at = id.find(pid, prefixLength);
        ASSERT_EQ(id.substr(0, prefixLength), row.prefix);
        ASSERT_NE(at, std::string::npos) << id;
        const std::string stamp = id.substr(prefixLength, at - prefixLength);
        EXPECT_TRUE(isNumber(stamp) && std::stol(stamp) >= before && std::stol(stamp) <= after)
            << id;
        EXPECT_TRUE(isNumber(id.substr(at + pid.size()))) << id;
        EXPECT_EQ(std::string(entry->GetDir()), Base() + "msgs/" + id);
        EXPECT_TRUE(boost::filesystem::is_directory(entry->GetDir()));
    }
}

TEST_F(ReceiverEntry, UniqueWithinTheProcess)
{
    RefHolder<Receiver> first = MakeReceiver();
    RefHolder<Receiver> second = MakeReceiver(); // same id, same base
    std::vector<RefHolder<MsgEntry>> entries;
    std::set<std::string> ids;
    for (int i = 0; i < 100; ++i) {
        for (Receiver* receiver : {first.Get(), second.Get()}) {
            entries.emplace_back(receiver->CreateMsgEntry());
            ASSERT_TRUE(entries.back());
            ids.insert(entries.back()->GetId());
        }
    }
    EXPECT_EQ(ids.size(), entries.size());
}

TEST_F(ReceiverEntry, NoEntryWhenTheFolderIsGone)
{
    RefHolder<Receiver> receiver = MakeReceiver();
    boost::filesystem::remove(temp / "msgs");
    WriteFile(temp / "msgs", "not a folder");
    LogCapture log;
    EXPECT_EQ(receiver->CreateMsgEntry(), nullptr);
    EXPECT_EQ(LinesWith(log, "ERROR", "can not make entry directory " + Base() + "msgs/").size(),
              1u)
        << log.Text();
}

// One entry with both files, one with a link planted as ".msg": the link is
// handed over itself, what it points to is not.
TEST_F(ReceiverEntry, SetOwnerHandsOverDirectoryAndFilesButNoLinkTarget)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to give files away";
    RefHolder<Receiver> receiver = MakeReceiver();
    RefHolder<MsgEntry> both(receiver->CreateMsgEntry());
    RefHolder<MsgEntry> linked(receiver->CreateMsgEntry());
    const std::string bothDir = both->GetDir(), linkedDir = linked->GetDir();
    WriteFile(bothDir + "/.envelope", "x");
    WriteFile(bothDir + "/.msg", "x");
    const std::string outside = temp / "outside";
    WriteFile(outside, "x");
    ASSERT_EQ(::symlink(outside.c_str(), (linkedDir + "/.msg").c_str()), 0);

    EXPECT_TRUE(both->SetOwner(65534, 65534));
    EXPECT_TRUE(linked->SetOwner(65534, 65534));
    for (const std::string& path :
         {bothDir, bothDir + "/.envelope", bothDir + "/.msg", linkedDir, linkedDir + "/.msg"})
        EXPECT_EQ(OwnerOf(path), "65534:65534") << path;
    EXPECT_EQ(OwnerOf(outside), "0:0");
}

TEST_F(ReceiverEntry, RemoveDeletesEverythingAndKeepsTheNote)
{
    RefHolder<Receiver> receiver = MakeReceiver();
    RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
    const std::string dir = entry->GetDir();
    WriteFile(dir + "/.envelope", "from <a@example.org>\n");
    WriteFile(dir + "/.msg", "Subject: x\n\nbody\n");
    boost::filesystem::create_directory(dir + "/daemon");
    WriteFile(dir + "/daemon/state", "x");
    {
        PlayedDaemon daemon(SocketPath(), "1 clean after all\n");
        EXPECT_EQ(receiver->ProcessMsg(entry.Get(), 0, 0, 0, 0), 1u);
    }

    EXPECT_TRUE(entry->Remove());
    EXPECT_FALSE(boost::filesystem::exists(dir));
    EXPECT_STREQ(entry->GetReplyText(), "clean after all");
    EXPECT_TRUE(entry->Remove()); // nothing left to delete is no failure
}

} // namespace
