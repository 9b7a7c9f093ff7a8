// tests/receiver/DaemonConversationTest.cpp: ProcessMsg against a daemon
// played by the test: the request bytes, the flags and note it reads back,
// and the logged cause of every way the conversation can fail.
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "ReceiverFixture.h"
#include "platform/receiver/Descriptor.h"
#include "support/PlayedDaemon.h"

namespace
{

// Answers that are no played daemon: no socket file, a socket nobody listens
// on, a listener that takes the request and never answers.
const std::string NoSocket = "\1none", Stale = "\1stale", Silent = "\1silent";
const VerdictFlags Error = VerdictDaemonError;

using DaemonConversation = ReceiverFixture;

TEST_F(DaemonConversation, AnswerLinesAndFailures)
{
    const std::string bad = "bad verdict flags", at = " at " + SocketPath(), a(8189, 'a');
    const std::string conn = "can not connect to daemon" + at + ":";
    const struct {
        const char* name;
        std::string answer;
        VerdictFlags flags;
        std::string note;
        std::string cause; // in the one error line; empty when the answer is good
    } rows[] = {
        {"passWithNote", "1 clean\n", 1, "clean", ""},
        {"carriageReturnDropped", "513 clean\r\n", 513, "clean", ""},
        {"noteKeepsItsBlanks", "2 a  b \n", 2, "a  b ", ""},
        {"highestFlags", "4294967295\n", 0xFFFFFFFF, "", ""},
        {"bytesAfterTheLineIgnored", "4 later\nnoise", 4, "later", ""},
        {"lineOfExactlyTheLimit", "1 " + a + "\n", 1, a, ""},
        {"lineBeyondTheLimit", "1 " + a + "a\n", Error, "", "longer than 8192 bytes"},
        {"outOfRange", "4294967296 x\n", Error, "", bad + " from daemon" + at},
        {"negative", "-1 x\n", Error, "", bad},
        {"tabAfterFlags", "1\tclean\n", Error, "", bad},
        {"emptyLine", "\n", Error, "", bad},
        {"closedMidLine", "1 clean", Error, "", "closed the connection before a full answer"},
        {"noSocket", NoSocket, Error, "", conn + "No such file or directory"},
        {"nobodyListens", Stale, Error, "", conn + "Connection refused"},
        {"silent", Silent, Error, "", "no answer from daemon" + at + " within 1 s"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        {
            LogCapture log;
            RefHolder<Receiver> receiver = MakeReceiver(1);
            RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
            std::unique_ptr<PlayedDaemon> daemon;
            Descriptor listener(row.answer == Stale || row.answer == Silent
                                    ? PlayedDaemon::ListenOn(SocketPath())
                                    : -1);
            if (row.answer == Stale)
                listener.Close();
            else if (row.answer != Silent && row.answer != NoSocket)
                daemon = std::make_unique<PlayedDaemon>(SocketPath(), row.answer);

            EXPECT_EQ(receiver->ProcessMsg(entry.Get(), 0, 0, 0, 0), row.flags);
            EXPECT_EQ(daemon ? daemon->Finish() : "",
                      daemon ? "CHECK " + std::string(entry->GetDir()) + "\n" : "");
            EXPECT_EQ(entry->GetReplyText(), row.note);
            const std::vector<std::string> errors = LinesWith(log, "ERROR", "");
            EXPECT_EQ(errors.size(), row.cause.empty() ? 0u : 1u) << log.Text();
            EXPECT_EQ(LinesWith(log, "ERROR", row.cause), errors); // holds for none, too
            EXPECT_EQ(LinesWith(log, "ERROR", SocketPath()), errors);
            (void)::unlink(SocketPath().c_str());
        }
        EXPECT_EQ(RefObjectLiveCount(), 0);
    }
}

// A new conversation forgets the note of the one before; nothing is asked
// without an initialised receiver or an entry, or over a path too long or
// with a line end.
TEST_F(DaemonConversation, RefusalsAndAForgottenNote)
{
    RefHolder<Receiver> receiver = MakeReceiver();
    RefHolder<MsgEntry> entry(receiver->CreateMsgEntry());
    {
        PlayedDaemon daemon(SocketPath(), "2 spam\n");
        EXPECT_EQ(receiver->ProcessMsg(entry.Get(), 0, 0, 0, 0), 2u);
    }
    EXPECT_EQ(receiver->ProcessMsg(entry.Get(), 0, 0, 0, 0), Error);
    EXPECT_STREQ(entry->GetReplyText(), "");
    RefHolder<Receiver> idle(CreateReceiver());
    EXPECT_EQ(idle->ProcessMsg(entry.Get(), 0, 0, 0, 0), Error);
    EXPECT_EQ(receiver->ProcessMsg(nullptr, 0, 0, 0, 0), Error);
    for (const std::string& name : {std::string(120, 'd'), std::string("line\nend")}) {
        const std::string dir = temp / name;
        ASSERT_EQ(::mkdir(dir.c_str(), 0700), 0);
        LogCapture log;
        RefHolder<Receiver> odd(CreateReceiver());
        ASSERT_TRUE(odd->Init((dir + "/").c_str(), "", ReceiverInitFlags, 10, 1, 0, 0, 0, 0, 0));
        RefHolder<MsgEntry> oddEntry(odd->CreateMsgEntry());
        EXPECT_EQ(odd->ProcessMsg(oddEntry.Get(), 0, 0, 0, 0), Error);
        const std::string cause = name.size() > 100 ? "daemon socket path too long: " + dir
                                                    : "with a line end can not be sent to daemon";
        EXPECT_EQ(LinesWith(log, "ERROR", cause).size(), 1u) << log.Text();
    }
}

} // namespace
