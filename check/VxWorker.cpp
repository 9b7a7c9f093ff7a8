// check/VxWorker.cpp: the worker's life: bring the Receiver up once, hold it
// until shutdown.
#include "check/VxWorker.h"

#include <stdexcept>

#include "frame/FilterSettings.h"
#include "platform/log/LogClass.h"

VxWorker::VxWorker(const std::string& receiverId)
    : receiver(CreateReceiver()), receiverId(receiverId)
{
    if (!receiver)
        throw std::domain_error("can not initialize Receiver module");
    if (!receiver->Init(filterSettings.basedir.c_str(), receiverId.c_str(), ReceiverInitFlags,
                        filterSettings.timeout, 1, 0, 0, 0, 0, 0))
        throw std::domain_error("can not initialize Receiver module");
    if (Log.isDebugEnabled())
        Log.forcedLog(LogClass::Debug, "base dir = " + filterSettings.basedir +
                                           " timeout=" + std::to_string(filterSettings.timeout));
}

VxWorker::~VxWorker() = default;
