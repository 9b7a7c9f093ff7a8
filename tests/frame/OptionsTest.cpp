// ParseOptions on real argument vectors: the settings it leaves, each start-up
// failure with its exact text, the log it sets up (a real file). The --help
// and --version exits are the end-to-end tests' (they end the process).
#include <exception>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frame/FilterSettings.h"
#include "frame/Options.h"
#include "platform/log/LogClass.h"
#include "support/TempDir.h"

namespace
{

template <class... Text> std::vector<std::string> Args(Text... args)
{
    return {args...};
}

class CommandLine : public ::testing::Test
{
protected:
    void SetUp() override
    {
        filterSettings = FilterSettings();
        receiverId.clear();
        logName.clear();
        logFilename.clear();
        Log.SetName("zmailer"); // as the driver names it before parsing
    }

    // Runs ParseOptions on "vorex-zmailer" and args; the log goes to logPath
    // unless args name a log file themselves.
    void Run(std::vector<std::string> args)
    {
        bool hasLogFile = false;
        for (const std::string& arg : args)
            hasLogFile = hasLogFile || arg.rfind("--log-filename", 0) == 0;
        if (!hasLogFile)
            args.insert(args.begin(), {"--log-filename", logPath});
        args.insert(args.begin(), "/usr/libexec/some-other-name");
        std::vector<char*> argv;
        for (std::string& arg : args)
            argv.push_back(&arg[0]);
        argv.push_back(nullptr);
        ParseOptions(static_cast<int>(args.size()), argv.data(), filterSettings);
    }

    // What Run throws, or "" when it does not.
    std::string Failure(const std::vector<std::string>& args)
    {
        try {
            Run(args);
        } catch (const std::exception& e) {
            return e.what();
        }
        return "";
    }

    TempDir dir;
    const std::string logPath = dir / "filter.log";
};

TEST_F(CommandLine, AcceptedLinesAndTheSettingsTheyLeave)
{
    struct Row {
        const char* name;
        std::vector<std::string> args;
        int32_t interface;
        int32_t timeout;
        std::string basedir;
        int32_t errorAction;
        std::string file;
        std::string hash;
    };
    // clang-format off
    const Row rows[] = {
        {"defaults", {}, 1, 30, "/var/vorex/", 1, "", ""},
        {"basedir gets its slash", {"-b", "/srv/q"}, 1, 30, "/srv/q/", 1, "", ""},
        {"basedir keeps its slash", {"--basedir=/srv/q/"}, 1, 30, "/srv/q/", 1, "", ""},
        {"empty basedir is root", {"--basedir", ""}, 1, 30, "/", 1, "", ""},
        {"error action any case", {"--error-action=TempFail"}, 1, 30, "/var/vorex/", 8, "", ""},
        {"zmailer arguments ignored", {"-Z", "/etc/zmailer.conf", "user@example.org", "more"}, 1, 30, "/var/vorex/", 1, "", ""},
        {"abbreviated long names", {"--time", "5", "--inter", "0", "--base", "/q", "--error", "discard"}, 0, 5, "/q/", 6, "", ""},
        {"short values attached", {"-t7", "-b/x", "-Zconf"}, 1, 7, "/x/", 1, "", ""},
        {"router stage", {"--file", "/spool/A1", "--hash", "h"}, 1, 30, "/var/vorex/", 1, "/spool/A1", "h"},
    };
    // clang-format on
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        ASSERT_NO_THROW(Run(row.args));
        EXPECT_EQ(filterSettings.interface, row.interface);
        EXPECT_EQ(filterSettings.timeout, row.timeout);
        EXPECT_EQ(filterSettings.basedir, row.basedir);
        EXPECT_EQ(filterSettings.errorAction, row.errorAction);
        EXPECT_EQ(filterSettings.file, row.file);
        EXPECT_EQ(filterSettings.hash, row.hash);
        EXPECT_EQ(filterSettings.user, "vorex");
    }
}

TEST_F(CommandLine, FailuresLeaveErrorActionAtPass)
{
    const std::string wrongLog = dir / "no-such-dir/filter.log";
    struct Row {
        const char* name;
        std::vector<std::string> args;
        std::string text;
    };
    const Row rows[] = {
        {"unknown option", Args("--bogus"), "unrecognised option '--bogus'"},
        {"unknown option beats help", Args("--help", "--bogus"), "unrecognised option '--bogus'"},
        {"timeout not a number", Args("-t", "ten"),
         "the argument ('ten') for option '--timeout' is invalid"},
        {"unknown log level", Args("-l", "loud"), "Error in init log system"},
        {"unknown ipc level", Args("-i", "loud"), "Error in init log system"},
        {"log file cannot be opened", Args("--log-filename", wrongLog), "Error in init log system"},
        {"interface negative", Args("--interface=-1"), "interface must be 0 or 1"},
        {"interface 2", Args("--interface", "2"), "interface must be 0 or 1"},
        {"timeout 0", Args("-t", "0"), "timeout must be > 0"},
        {"interface checked before timeout", Args("--interface=7", "-t", "0"),
         "interface must be 0 or 1"},
        {"timeout checked before error action", Args("-t", "0", "-e", "bogus"),
         "timeout must be > 0"},
        {"additional action", Args("-e", "quarantine"), "error in param error-action"},
        {"error action checked before file", Args("-e", "cure", "--file", "/spool/A1"),
         "error in param error-action"},
        {"file without hash", Args("--file", "/spool/A1"),
         "--file is defined, but --hash is not! Please, set it from Sender/SecureHash param."},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        EXPECT_EQ(Failure(row.args), row.text);
        EXPECT_EQ(filterSettings.errorAction, 0);
    }
}

TEST_F(CommandLine, LogNameOnlyWhenGiven)
{
    Run({"--log-name", ""});
    EXPECT_EQ(Log.GetName(), "zmailer");
    Run({"--log-name", "zfilter", "--id", "recv-7"});
    EXPECT_EQ(Log.GetName(), "zfilter");
    EXPECT_EQ(logName, "zfilter");
    EXPECT_EQ(receiverId, "recv-7");
}

TEST_F(CommandLine, RefusedErrorActionLogsTheParserFault)
{
    EXPECT_EQ(Failure({"--error-action", "quarantine"}), "error in param error-action");
    EXPECT_NE(ReadFile(logPath).find(
                  "] ERROR null - Find wrong value 'quarantine' for param 'ProcessingErrors' "
                  "during action parse. Wait one of following:pass | reject | discard | "
                  "tempfail\n"),
              std::string::npos)
        << ReadFile(logPath);
}

} // namespace
