// quarantine/RouterQueue.h: a release goes straight into ZMailer's router
// queue, as ZMailer's own local submission does (written in
// $POSTOFFICE/public/, then renamed into $POSTOFFICE/router/ under its
// inode number), not through smtpserver: no secret travels with it, so no
// copy of one can stay behind in a freezer or reach a recipient, and a
// refusal there cannot leave half a release. A mark in the postoffice (see
// shared/zmailer/ReleaseMark.h) tells the router stage, when process.cf runs
// one, that this file is a release and is not to be checked again.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "shared/fd/Fd.h"

struct RouterQueue {
    std::string postofficePath;
    Fd postoffice, publicDir, router;
};

// Finds the queue from zmailer.conf (given, else $ZCONFIG, else
// /etc/zmailer.conf). Throws std::invalid_argument saying where it looked
// when there is no configuration or no POSTOFFICE in it, std::domain_error
// when a folder cannot be opened.
RouterQueue FindRouterQueue(const std::string& zmailerConf);

// Queues the message (length bytes of messageFd from offset) for sender
// ("<>" is the null sender) and recipients, marked as entry's release.
// Returns the queued file's name in router/. On any failure nothing is left
// in the queue and the failure is thrown (std::domain_error).
std::string QueueRelease(const RouterQueue& queue, const std::string& entry,
                         const std::string& sender, const std::vector<std::string>& recipients,
                         int messageFd, off_t offset, off_t length);
