// tests/support/Replies.h: the bytes ZMailer reads from the filter, as the
// tests expect them: the readiness marker and the reply lines (without their
// line end, since a note may follow), and the test virus the daemon knows.
#pragma once

#include <string>

const std::string Hungry = "#hungry\n";
const std::string PassLine = "0 250 2.6.0 Okey. Go ahead!";
const std::string RejectLine = "-1 550 5.7.1 Rejected by Vorex Quelt!";
const std::string DiscardLine = "-1 250 2.7.1 Discarded by Vorex Quelt!";
const std::string TempfailLine = "1 451 4.3.0 Temporary rejected by Vorex Quelt. Try later.";
const std::string Eicar = "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
