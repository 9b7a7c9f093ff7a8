// tests/receiver/EntryTest.cpp: Init's refusals, the entry directories
// (names, modes, uniqueness), SetOwner, Remove and the reference count.
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <regex>
#include <set>

#include "ReceiverFixture.h"
#include "support/PlayedDaemon.h"

namespace
{

class UmaskScope
{
public:
    explicit UmaskScope(mode_t mask) : old(::umask(mask)) {}
    ~UmaskScope() { (void)::umask(old); } // umask cannot fail
    UmaskScope(const UmaskScope&) = delete;
    UmaskScope& operator=(const UmaskScope&) = delete;

private:
    mode_t old;
};

mode_t ModeOf(const std::string& path)
{
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class ReceiverInit : public ReceiverFixture
{
};
class ReceiverEntry : public ReceiverFixture
{
};

TEST_F(ReceiverInit, Refusals)
{
    struct Row {
        const char* name;
        std::string basedir;
        int32_t timeout;
        const char* cause;
    };
    WriteFile(temp / "file", "x");
    TempDir withMsgsFile;
    WriteFile(withMsgsFile / "msgs", "x");
    const Row rows[] = {
        {"noBaseDirectory", temp / "missing/", 10, "receiver base directory"},
        {"baseIsAFile", temp / "file/", 10, "receiver base directory"},
        {"emptyBase", "", 10, "receiver base directory not given"},
        {"msgsIsAFile", withMsgsFile.Path().string() + "/", 10, "can not make entries folder"},
        {"timeoutZero", Base(), 0, "receiver timeout 0 is not above 0"},
        {"timeoutNegative", Base(), -1, "receiver timeout -1 is not above 0"},
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

TEST_F(ReceiverInit, MakesEntriesFolderLessTheUmask)
{
    UmaskScope mask(027);
    std::string base = temp.Path().string(); // without the final "/"
    RefHolder<Receiver> receiver(CreateReceiver());
    ASSERT_TRUE(receiver->Init(base.c_str(), "", ReceiverInitFlags, 10, 1, 0, 0, 0, 0, 0));
    EXPECT_EQ(ModeOf(temp / "msgs"), 0750u);
    RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
    ASSERT_TRUE(entry);
    EXPECT_EQ(ModeOf(entry->GetDir()), 0750u);
    EXPECT_EQ(std::string(entry->GetDir()), base + "/msgs/" + entry->GetId());
}

TEST_F(ReceiverEntry, NamesFromIdTimeProcessAndSequence)
{
    struct Row {
        const char* id;
        const char* prefix;
    };
    const Row rows[] = {
        {"filter", "filter."},   {"", ""},
        {"x.y_z-9", "x.y_z-9."}, {"a b/c:d", "a_b_c_d."},
        {"../up", ".._up."},     {"\xc3\xbc", "__."},
    };
    const std::regex rest("([0-9]+)\\." + std::to_string(::getpid()) + "\\.[0-9]+");
    for (const Row& row : rows) {
        SCOPED_TRACE(row.id);
        RefHolder<Receiver> receiver = MakeReceiver(10, row.id);
        std::time_t before = std::time(nullptr);
        RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
        std::time_t after = std::time(nullptr);
        ASSERT_TRUE(entry);

        const std::string id = entry->GetId();
        EXPECT_EQ(id.compare(0, std::strlen(row.prefix), row.prefix), 0) << id;
        std::smatch parts;
        const std::string tail = id.substr(std::min(id.size(), std::strlen(row.prefix)));
        ASSERT_TRUE(std::regex_match(tail, parts, rest)) << id;
        std::time_t stamp = std::stol(parts[1]);
        EXPECT_TRUE(stamp >= before && stamp <= after) << id;
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

// A name that is already taken is skipped for the next sequence number.
TEST_F(ReceiverEntry, TakenNameIsSkipped)
{
    RefHolder<Receiver> receiver = MakeReceiver(10, "");
    RefHolder<MsgEntry> first(receiver->CreateMsgEntry());
    ASSERT_TRUE(first);
    const std::string id = first->GetId(); // time.pid.sequence
    const std::size_t lastDot = id.rfind('.');
    const long stamp = std::stol(id);
    const std::string middle = id.substr(id.find('.'), lastDot - id.find('.') + 1);
    const std::string next = std::to_string(std::stol(id.substr(lastDot + 1)) + 1);
    std::set<std::string> taken;
    for (long second = stamp; second <= stamp + 2; ++second) {
        taken.insert(std::to_string(second) + middle + next);
        boost::filesystem::create_directory(Base() + "msgs/" + *taken.rbegin());
        WriteFile(Base() + "msgs/" + *taken.rbegin() + "/foreign", "x");
    }

    RefHolder<MsgEntry> second(receiver->CreateMsgEntry());
    ASSERT_TRUE(second);
    EXPECT_EQ(taken.count(second->GetId()), 0u) << second->GetId();
    EXPECT_TRUE(boost::filesystem::is_empty(second->GetDir()));
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

TEST_F(ReceiverEntry, SetOwnerHandsOverDirectoryAndFiles)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to give files away";
    struct Row {
        const char* name;
        std::vector<std::string> files;
    };
    const Row rows[] = {
        {"envelopeAndMessage", {".envelope", ".msg"}},
        {"messageOnly", {".msg"}},
        {"emptyEntry", {}},
    };
    RefHolder<Receiver> receiver = MakeReceiver();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
        const std::string dir = entry->GetDir();
        for (const std::string& name : row.files)
            WriteFile(dir + "/" + name, "x");

        EXPECT_TRUE(entry->SetOwner(65534, 65534));
        std::vector<std::string> paths = {dir};
        for (const std::string& name : row.files)
            paths.push_back(dir + "/" + name);
        for (const std::string& path : paths) {
            struct stat status;
            ASSERT_EQ(::stat(path.c_str(), &status), 0) << path;
            EXPECT_EQ(status.st_uid, 65534u) << path;
            EXPECT_EQ(status.st_gid, 65534u) << path;
        }
    }
}

// A link planted as ".msg" is handed over itself; what it points to is not.
TEST_F(ReceiverEntry, SetOwnerDoesNotFollowLinks)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to give files away";
    RefHolder<Receiver> receiver = MakeReceiver();
    RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
    const std::string outside = temp / "outside";
    WriteFile(outside, "x");
    const std::string link = std::string(entry->GetDir()) + "/.msg";
    ASSERT_EQ(::symlink(outside.c_str(), link.c_str()), 0);

    EXPECT_TRUE(entry->SetOwner(65534, 65534));
    struct stat status;
    ASSERT_EQ(::stat(outside.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 0u);
    ASSERT_EQ(::lstat(link.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 65534u);
}

TEST_F(ReceiverEntry, SetOwnerFailureIsWarnedAndReturned)
{
    RefHolder<Receiver> receiver = MakeReceiver();
    RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
    ASSERT_TRUE(entry->Remove());
    LogCapture log;
    EXPECT_FALSE(entry->SetOwner(65534, 65534));
    EXPECT_EQ(LinesWith(log, "WARN", entry->GetDir()).size(), 1u) << log.Text();
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
        PlayedDaemon daemon(SocketPath(), "1 clean after all\n", PlayedDaemon::After::Close);
        EXPECT_EQ(receiver->ProcessMsg(entry.Get(), 0, 0, 0, 0), 1u);
    }

    EXPECT_TRUE(entry->Remove());
    EXPECT_FALSE(boost::filesystem::exists(dir));
    EXPECT_STREQ(entry->GetReplyText(), "clean after all");
    EXPECT_TRUE(entry->Remove()); // nothing left to delete is no failure
}

// Objects come with no reference: the holder's one reference is the last.
TEST_F(ReceiverEntry, EveryObjectGoesWithItsLastReference)
{
    RefHolder<Receiver> receiver = MakeReceiver();
    RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
    EXPECT_EQ(RefObjectLiveCount(), 2);
    entry->AddRef();
    entry->Release();
    EXPECT_EQ(RefObjectLiveCount(), 2);
    entry.Reset();
    EXPECT_EQ(RefObjectLiveCount(), 1);
    receiver.Reset();
    EXPECT_EQ(RefObjectLiveCount(), 0);
}

} // namespace
