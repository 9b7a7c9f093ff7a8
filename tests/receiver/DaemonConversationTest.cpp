// tests/receiver/DaemonConversationTest.cpp: ProcessMsg against a daemon
// played by the test: the request bytes, the flags and note it reads back,
// and the logged cause of every way the conversation can fail (a daemon that
// never answers is the message job's test).
#include <sys/stat.h>

#include "ReceiverFixture.h"
#include "support/PlayedDaemon.h"

namespace
{

struct AnswerRow {
    const char* name;
    std::string answer;
    VerdictFlags flags;
    std::string note;
    const char* cause; // in the error line; null when the answer is good
};

std::vector<AnswerRow> AnswerRows()
{
    const std::string longest = "1 " + std::string(8189, 'a') + "\n"; // 8192 bytes
    return {
        {"passWithNote", "1 clean\n", 1, "clean", nullptr},
        {"passWithoutNote", "1\n", 1, "", nullptr},
        {"carriageReturnDropped", "513 clean\r\n", 513, "clean", nullptr},
        {"noteKeepsItsBlanks", "2 a  b \n", 2, "a  b ", nullptr},
        {"highestFlags", "4294967295\n", 0xFFFFFFFF, "", nullptr},
        {"bytesAfterTheLineIgnored", "4 later\nnoise", 4, "later", nullptr},
        {"lineOfExactlyTheLimit", longest, 1, std::string(8189, 'a'), nullptr},
        {"lineBeyondTheLimit", "1 " + std::string(8190, 'a') + "\n", VerdictDaemonError, "",
         "longer than 8192 bytes"},
        {"outOfRange", "4294967296 x\n", VerdictDaemonError, "", "bad verdict flags"},
        {"negative", "-1 x\n", VerdictDaemonError, "", "bad verdict flags"},
        {"tabAfterFlags", "1\tclean\n", VerdictDaemonError, "", "bad verdict flags"},
        {"emptyLine", "\n", VerdictDaemonError, "", "bad verdict flags"},
        {"closedInsideTheLine", "1 clean", VerdictDaemonError, "",
         "closed the connection before a full answer line"},
    };
}

class DaemonConversation : public ReceiverFixture
{
};

TEST_F(DaemonConversation, AnswerLines)
{
    for (const AnswerRow& row : AnswerRows()) {
        SCOPED_TRACE(row.name);
        {
            LogCapture log;
            RefHolder<Receiver> receiver = MakeReceiver();
            RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
            PlayedDaemon daemon(SocketPath(), row.answer);

            EXPECT_EQ(receiver->ProcessMsg(entry.Get(), 0, 0, 0, 0), row.flags);
            EXPECT_EQ(daemon.Finish(), "CHECK " + std::string(entry->GetDir()) + "\n");
            EXPECT_EQ(entry->GetReplyText(), row.note);
            std::vector<std::string> errors = LinesWith(log, "ERROR", "");
            if (row.cause == nullptr) {
                EXPECT_TRUE(errors.empty()) << log.Text();
            } else {
                EXPECT_EQ(errors.size(), 1u) << log.Text();
                EXPECT_EQ(LinesWith(log, "ERROR", row.cause), errors);
                EXPECT_EQ(LinesWith(log, "ERROR", SocketPath()), errors);
            }
        }
        EXPECT_EQ(RefObjectLiveCount(), 0);
    }
}

// A new conversation forgets the note of the one before.
TEST_F(DaemonConversation, NoteIsClearedByAFailedConversation)
{
    RefHolder<Receiver> receiver = MakeReceiver();
    RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
    {
        PlayedDaemon daemon(SocketPath(), "2 spam\n");
        EXPECT_EQ(receiver->ProcessMsg(entry.Get(), 0, 0, 0, 0), 2u);
    }
    EXPECT_EQ(receiver->ProcessMsg(entry.Get(), 0, 0, 0, 0), VerdictDaemonError);
    EXPECT_STREQ(entry->GetReplyText(), "");
}

// No socket file, then a stale one that nobody listens on.
TEST_F(DaemonConversation, NobodyListening)
{
    for (int error : {ENOENT, ECONNREFUSED}) {
        SCOPED_TRACE(error);
        if (error == ECONNREFUSED)
            ::close(PlayedDaemon::ListenOn(SocketPath()));
        LogCapture log;
        RefHolder<Receiver> receiver = MakeReceiver();
        RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());

        EXPECT_EQ(receiver->ProcessMsg(entry.Get(), 0, 0, 0, 0), VerdictDaemonError);
        const std::string cause =
            "can not connect to daemon at " + SocketPath() + ":" + std::strerror(error);
        EXPECT_EQ(LinesWith(log, "ERROR", cause).size(), 1u) << log.Text();
    }
}

TEST_F(DaemonConversation, SocketPathTooLong)
{
    const std::string deep = temp / std::string(120, 'd');
    ASSERT_EQ(::mkdir(deep.c_str(), 0700), 0);
    LogCapture log;
    RefHolder<Receiver> receiver(CreateReceiver());
    ASSERT_TRUE(receiver->Init((deep + "/").c_str(), "", ReceiverInitFlags, 10, 1, 0, 0, 0, 0, 0));
    RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());

    EXPECT_EQ(receiver->ProcessMsg(entry.Get(), 0, 0, 0, 0), VerdictDaemonError);
    EXPECT_EQ(LinesWith(log, "ERROR", "daemon socket path too long: " + deep).size(), 1u)
        << log.Text();
}

TEST_F(DaemonConversation, RefusedWithoutInitOrEntry)
{
    RefHolder<Receiver> idle(CreateReceiver());
    RefHolder<Receiver> receiver = MakeReceiver();
    RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());

    EXPECT_EQ(idle->ProcessMsg(entry.Get(), 0, 0, 0, 0), VerdictDaemonError);
    EXPECT_EQ(receiver->ProcessMsg(nullptr, 0, 0, 0, 0), VerdictDaemonError);
}

} // namespace
