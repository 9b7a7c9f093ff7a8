// tests/support/FilterSandbox.h: the real vorex-zmailer run as ZMailer runs
// it, in a fresh directory with a base directory of its own: the command line
// with the test's settings, one run with all its input at once, the entries
// it leaves behind.
#pragma once

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "support/ChildProcess.h"
#include "support/Replies.h"
#include "support/TempDir.h"

struct RunResult {
    std::string out, err;
    int status = -1;
    bool hung = false;
};

// Runs argv with input on its standard input at once, as ChildProcess does.
inline RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input = "",
                            const std::string& workDir = "",
                            const std::vector<std::string>& environment = {})
{
    ChildProcess child(argv, workDir, environment);
    child.Write(input);
    RunResult run;
    run.status = child.Wait(&run.out, &run.err);
    run.hung = child.Hung();
    return run;
}

class FilterSandbox
{
public:
    FilterSandbox() { boost::filesystem::create_directories(basedir); }

    // ZMailer's own option, the test's settings (no change of user, the
    // sandbox's base directory and log file, 10 s) unless extra gives that
    // option itself, then extra.
    std::vector<std::string> Args(const std::vector<std::string>& extra) const
    {
        const std::string defaults[][2] = {{"--user", ""},
                                           {"--basedir", basedir},
                                           {"--log-filename", basedir + "zmailer.log"},
                                           {"--timeout", "10"}};
        std::vector<std::string> args = {VOREX_ZMAILER, "-Z", "/etc/zmailer/zmailer.conf"};
        for (const auto& option : defaults)
            if (std::find(extra.begin(), extra.end(), option[0]) == extra.end())
                args.insert(args.end(), {option[0], option[1]});
        args.insert(args.end(), extra.begin(), extra.end());
        return args;
    }

    // A spool file of these bytes in the sandbox; returns its path.
    std::string Spool(const std::string& name, const std::string& bytes) const
    {
        WriteFile(root + "/" + name, bytes);
        return root + "/" + name;
    }

    std::size_t EntryCount() const
    {
        boost::system::error_code missing; // no msgs directory: an end iterator, 0
        return static_cast<std::size_t>(
            std::distance(boost::filesystem::directory_iterator(basedir + "msgs", missing), {}));
    }

    TempDir dir;
    // Without links, so that paths the program reports compare as strings.
    const std::string root = boost::filesystem::canonical(dir.Path()).string();
    const std::string basedir = root + "/base/";
};
