// quarantine/ReleaseGuard.h: what must hold before a kept message goes back
// with the secret on top. The secret is safe only where the message passes
// the content filter again, which cuts its header line out: that is the
// local smtpserver with a content filter configured. Each check throws
// std::invalid_argument saying why the release is refused.
#pragma once

#include <string>

struct SmtpTarget {
    std::string host; // a literal loopback address
    unsigned short port = 25;
};

// "HOST:PORT" ("[::1]:25" for IPv6) naming a loopback address.
SmtpTarget ParseLoopbackTarget(const std::string& text);

// Where a ZMailer installation is found (zmailerConf, else $ZCONFIG, else
// /etc/zmailer.conf), its $MAILSHARE/smtpserver.conf must name an
// executable "PARAM contentfilter". Returns what was found, for the log.
std::string RequireContentFilter(const std::string& zmailerConf);

// The first line of the secret file; refused when it is empty or holds
// anything but printable ASCII.
std::string ReadSecret(const std::string& path);
