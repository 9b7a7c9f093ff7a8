// platform/receiver/ConfHolderShared.h: names shared with the daemon.
#pragma once

#include <string>

class ConfHolderShared
{
public:
    // ".msg": the message copy inside an entry directory.
    static const std::string& GetMsgFilename();
};
