// platform/receiver/Receiver.h: the receiver library's interface as the
// filter uses it. A Receiver hands messages to the checking daemon; each
// message lives in a MsgEntry, a directory under the base directory.
// Objects come from the library with no reference taken: the caller takes one
// at once (RefHolder) and drops it when done.
#pragma once

#include <cstdint>

#include "platform/receiver/RefObject.h"
#include "shared/conversation/Conversation.h"

// The flags the filter always passes to Receiver::Init.
constexpr uint32_t ReceiverInitFlags = 0x4804;

class MsgEntry : public virtual RefObject
{
public:
    // Hands the entry directory and its files to that account. A failure is
    // logged at warn level and returned, never thrown.
    virtual bool SetOwner(int32_t uid, int32_t gid) = 0;
    // The entry directory, without a final "/".
    virtual const char* GetDir() = 0;
    // The entry's id: the directory's own name.
    virtual const char* GetId() = 0;
    // The daemon's note for the reply line; empty when none came. Still valid
    // after Remove.
    virtual const char* GetReplyText() = 0;
    // Deletes the entry directory and everything in it.
    virtual bool Remove() = 0;
};

class Receiver : public virtual RefObject
{
public:
    // Brings the Receiver up on base directory basedir (ending in "/") with the
    // receiver id and the time limit for one message in seconds. False when
    // basedir is no directory, its "msgs/" folder cannot be made, or timeout is
    // not above 0. Does not contact the daemon.
    virtual bool Init(const char* basedir, const char* receiverId, uint32_t flags, int32_t timeout,
                      int32_t one, int32_t zero1, int32_t zero2, int32_t zero3, int32_t zero4,
                      int32_t zero5) = 0;
    // A new entry directory, or null when none can be made.
    virtual MsgEntry* CreateMsgEntry() = 0;
    // Asks the daemon for its verdict on the prepared entry. Never throws and
    // never waits longer than the time limit; any failure of the conversation
    // is logged and answered VerdictDaemonError.
    virtual VerdictFlags ProcessMsg(MsgEntry* entry, int32_t zero1, int32_t zero2, int32_t zero3,
                                    int32_t zero4) = 0;
    // Tells the daemon that the flush after the entry's message was written
    // back into the spool file failed, for its count. Never throws; a
    // failure is logged.
    virtual void ReportFsyncFailed(MsgEntry* entry) = 0;
};

extern "C" Receiver* CreateReceiver();
