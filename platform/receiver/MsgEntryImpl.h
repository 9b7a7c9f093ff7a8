// platform/receiver/MsgEntryImpl.h: the library's MsgEntry, internal to the
// library. Owns the entry's id, its directory path, the daemon's note and a
// descriptor of the directory that Receiver::CreateMsgEntry made: every file
// operation inside the entry goes through that descriptor, so an entry that
// the daemon's account renames or replaces by a link cannot redirect one.
// The files the filter creates in it are kept open too, and handed over
// through those descriptors, never by name.
#pragma once

#include <sys/stat.h>

#include <list>
#include <memory>
#include <string>

#include "platform/receiver/Descriptor.h"
#include "platform/receiver/Receiver.h"
#include "platform/receiver/RefCounted.h"

class MsgEntryImpl final : public RefCounted<MsgEntry>
{
public:
    // entries: the open "msgs/" folder; dirFd: the entry directory id in it,
    // just made and opened without following a link, and status its file
    // status. Takes dirFd.
    MsgEntryImpl(std::string id, std::string dir, std::shared_ptr<const Descriptor> entries,
                 int dirFd, const struct stat& status);

    bool SetOwner(int32_t uid, int32_t gid) override;
    const char* GetDir() override { return dir.c_str(); }
    const char* GetId() override { return id.c_str(); }
    const char* GetReplyText() override { return replyText.c_str(); }
    bool Remove() override;

    // Keeps the daemon's note for GetReplyText; ProcessMsg sets it once per
    // conversation, empty when no note came.
    void SetReplyText(std::string text) { replyText = std::move(text); }

    int DirFd() const { return dirFd.Get(); }
    // Keeps fd, a file just created in the entry, for SetOwner. Takes fd.
    void KeepFile(int fd) { files.emplace_back(fd); }
    // True when the entry's name in "msgs/" is still the directory this
    // entry made; otherwise false with the cause.
    bool InPlace(std::string& cause) const;

    // The live entry whose directory path is dir, or null: how the file
    // helpers find the pinned descriptor behind a path.
    static MsgEntryImpl* Find(const std::string& dir);

private:
    ~MsgEntryImpl() override;

    const std::string id;
    const std::string dir;
    const std::shared_ptr<const Descriptor> entries;
    Descriptor dirFd;
    std::list<Descriptor> files; // created in the entry, in creation order
    dev_t device = 0;
    ino_t inode = 0;
    std::string replyText;
};
