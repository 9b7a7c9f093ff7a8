// platform/receiver/ConfHolderShared.cpp: file names shared with the daemon.
#include "platform/receiver/ConfHolderShared.h"

const std::string& ConfHolderShared::GetMsgFilename()
{
    // Built on first use, so no static-initialisation order can see it empty.
    static const std::string msgFilename(".msg");
    return msgFilename;
}
