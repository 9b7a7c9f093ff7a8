// adapter/SetupCheck.h: --check. Runs the filter with the site's options on
// a throw-away spool file, as smtpserver would, against the daemon the
// options name, and says what it found on standard output, one line each:
// "ok <what>" or "PROBLEM <what> (fix: <how>)". Returns 1 when any line is a
// PROBLEM, else 0. quelt-refd's --check prints these lines as they are.
// Throws std::domain_error when the temporary spool file cannot be made.
#pragma once

#include <chrono>
#include <string>

#include "adapter/SiteOptions.h"

struct CheckInputs {
    std::string configPath, secretPath, filterPath;
    SiteOptions site;
    std::string siteFault; // why the configuration is unusable, if it is
    std::chrono::seconds jobLimit;
};

int RunSetupCheck(const CheckInputs& inputs);
