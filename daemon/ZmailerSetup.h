// daemon/ZmailerSetup.h: ZMailer's side of --check, where a
// ZMailer installation is found (zmailer.conf: the file given, else
// $ZCONFIG, else /etc/zmailer.conf): smtpserver.conf under $MAILSHARE names
// an executable content filter, that wrapper's own --check finds its
// options good, and the compiled policy smtpserver reads ("PARAM policydb")
// gives "filtering +" to [0.0.0.0]/0 and every other address line
// (smtpserver runs no content filter for a client without it).
#pragma once

#include <string>

class CheckReport;

// zmailerConf: empty for the usual places.
void CheckZmailerSetup(CheckReport& report, const std::string& zmailerConf);
