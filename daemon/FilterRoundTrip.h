// daemon/FilterRoundTrip.h: the end-to-end part of --check: the
// installed filter, run as the router stage runs it, checks a throw-away
// spool file holding the anti-virus test string, then one holding the spam
// test string, through the running daemon and its engines. Each must come
// back refused (the spam one only tagged where spamd does not reject). The
// spool files and the entries the filter made are removed afterwards.
#pragma once

#include <string>

class CheckReport;

struct RoundTripSettings {
    std::string filter;  // the filter program
    std::string baseDir; // ends with "/"
    std::string user;    // the daemon's account
    bool virusEngine = false;
    bool spamEngine = false;
    bool spamReject = false;
};

void CheckFilterRoundTrips(CheckReport& report, const RoundTripSettings& settings);
