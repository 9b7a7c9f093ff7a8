// platform/receiver/MsgEntryImpl.h: the library's MsgEntry, internal to the
// library. Owns the entry's id, its directory path and the daemon's note; the
// directory itself is made by Receiver::CreateMsgEntry before construction.
#pragma once

#include <string>

#include "platform/receiver/Receiver.h"
#include "platform/receiver/RefCounted.h"

class MsgEntryImpl final : public RefCounted<MsgEntry>
{
public:
    MsgEntryImpl(std::string id, std::string dir);

    bool SetOwner(int32_t uid, int32_t gid) override;
    const char* GetDir() override { return dir.c_str(); }
    const char* GetId() override { return id.c_str(); }
    const char* GetReplyText() override { return replyText.c_str(); }
    bool Remove() override;

    // Keeps the daemon's note for GetReplyText; ProcessMsg sets it once per
    // conversation, empty when no note came.
    void SetReplyText(std::string text) { replyText = std::move(text); }

private:
    ~MsgEntryImpl() override = default;

    const std::string id;
    const std::string dir;
    std::string replyText;
};
