// check/VxWorker.h: the worker owns the process's one Receiver and runs the
// message job. Constructing it brings the Receiver up or throws
// std::domain_error "can not initialize Receiver module".
#pragma once

#include <string>

#include "platform/receiver/Receiver.h"
#include "platform/receiver/RefHolder.h"

class VxWorker
{
public:
    explicit VxWorker(const std::string& receiverId);
    virtual ~VxWorker();
    VxWorker(const VxWorker&) = delete;
    VxWorker& operator=(const VxWorker&) = delete;

    // The message job: carries the spool file at spoolPath (used as given)
    // from its envelope to one reply line on standard output. Returns the
    // verdict answered, 1 for a message passed on its secure hash. Throws on
    // every failure without answering; the caller answers the error action.
    VerdictFlags ProcessFile(const char* spoolPath);

private:
    RefHolder<Receiver> receiver;
    const std::string& receiverId;
};
