// adapter/SiteOptions.h: the site's filter options, read from the
// configuration file (options separated by blanks and line ends, "#" to the
// end of the line a comment, no quoting), and what the adapter itself takes
// from them: the error action it answers with, smtpserver's interface and
// the filter's --timeout. Throws std::invalid_argument (or the option
// parser's error) on an unusable file; what was read by then stays in the
// record, and the error action stays tempfail unless it was read.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct SiteOptions {
    std::vector<std::string> tokens; // as written in the file
    std::vector<std::string> passOn;       // the tokens without --interface and --hash
    std::vector<std::string> routerPassOn; // nor --error-action and --file
    bool read = false;               // the file was read (its options may be bad)
    int32_t errorAction = 8;         // tempfail until the options are read
    std::string errorActionText;     // as given, empty when absent
    bool hungry = true;              // smtpserver's side speaks interface 1
    int timeout = 30;                // the filter's --timeout in seconds
    std::string basedir = "/var/vorex/"; // the filter's --basedir, ending in "/"
    std::string secret;              // first line of the secret file, or empty
    std::string secretFault;         // why there is none
};

// Reads the secret file, then the configuration file into site.
void ReadSiteOptions(const std::string& configPath, const std::string& secretPath,
                     SiteOptions& site);

// The action code of an --error-action value (pass, reject, discard or
// tempfail, case and surrounding blanks ignored), or -1.
int32_t ErrorActionCode(const std::string& text);

// The filter's command line: the site's options (their --interface left
// out) and --interface 1, which the adapter always speaks with the filter.
std::vector<std::string> FilterCommand(const std::string& filter, const SiteOptions& site);

// The router stage's command line for one queued file: the site's options
// without those that make the content-filter mode (--interface,
// --error-action), then --error-action tempfail, so that every failure
// freezes the file, and --file.
std::vector<std::string> RouterCommand(const std::string& filter, const SiteOptions& site,
                                       const std::string& file);

// The filter's environment: this process's, with the secret (when there is
// one) in SecretVariable instead of on the command line, where every
// account could read it.
std::vector<std::string> FilterEnvironment(const SiteOptions& site);
