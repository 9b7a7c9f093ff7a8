// adapter/RouterStage.h: vorex-zmailer-filter --file, what the router-stage
// snippet in process.cf runs for each queued file. Starts the filter on that
// one file with the site's options and the secret in its environment (the
// snippet used to put it on the filter's command line, where every account
// could read it), lets the filter's reply line and exit status through, and
// waits for its end. A file that vorex-quarantine released (its mark is
// in $POSTOFFICE/vorex-released/, see shared/zmailer/ReleaseMark.h) is
// answered with the pass line without a check. Throws std::domain_error
// when the filter cannot be run.
#pragma once

#include <string>

#include "adapter/AdapterLog.h"
#include "adapter/SiteOptions.h"

// The filter's exit status, or 1 when it was killed.
// siteFault: why the site's options could not be read (empty when they
// were); a release goes through even then, anything else is refused.
int RunRouterStage(const std::string& filterPath, const SiteOptions& site,
                   const std::string& siteFault, const std::string& file, AdapterLog& log);
