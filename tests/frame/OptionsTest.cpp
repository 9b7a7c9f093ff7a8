// ParseOptions on real argument vectors: the settings it leaves, the order of
// its checks with their exact texts, the log it sets up (a real file). The
// exits, the refused options and the start-up failures in the driver are the
// end-to-end tests'.
#include <exception>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "frame/FilterSettings.h"
#include "frame/Options.h"
#include "platform/log/LogClass.h"
#include "support/TempDir.h"

namespace
{

class CommandLine : public ::testing::Test
{
protected:
    // ParseOptions on a fresh state with words split at blanks ("''" is an
    // empty word); the log goes to logPath unless words name one. What it throws, or "".
    std::string Run(const std::string& words)
    {
        filterSettings = FilterSettings();
        receiverId.clear();
        logName.clear();
        logFilename.clear();
        Log.SetName("zmailer"); // as the driver names it before parsing
        std::vector<std::string> args = {"/usr/libexec/other-name"};
        if (words.find("--log-filename") == std::string::npos)
            args.insert(args.end(), {"--log-filename", logPath});
        std::istringstream in(words);
        for (std::string word; in >> word;)
            args.push_back(word == "''" ? "" : word);
        std::vector<char*> argv;
        for (std::string& arg : args)
            argv.push_back(&arg[0]);
        argv.push_back(nullptr);
        try {
            ParseOptions(static_cast<int>(args.size()), argv.data(), filterSettings);
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
    const struct {
        const char* args;
        int32_t interface, timeout;
        const char* basedir;
        int32_t errorAction;
        const char* file;
        const char* hash;
    } rows[] = {
        {"", 1, 30, "/var/vorex/", 1, "", ""},
        {"--basedir ''", 1, 30, "/", 1, "", ""},
        {"-Z /etc/zmailer.conf user@example.org more", 1, 30, "/var/vorex/", 1, "", ""},
        {"--time 5 --inter 0 --base=/q/ --error Discard", 0, 5, "/q/", 6, "", ""},
        {"-t7 -b/x -Zconf", 1, 7, "/x/", 1, "", ""},
        {"--file /spool/A1 --hash h", 1, 30, "/var/vorex/", 1, "/spool/A1", "h"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.args);
        ASSERT_EQ(Run(row.args), "");
        const FilterSettings& s = filterSettings;
        EXPECT_EQ(std::make_tuple(s.interface, s.timeout, s.basedir, s.errorAction, s.file, s.hash,
                                  s.user),
                  std::make_tuple(row.interface, row.timeout, std::string(row.basedir),
                                  row.errorAction, std::string(row.file), std::string(row.hash),
                                  std::string("vorex")));
    }
}

TEST_F(CommandLine, FailuresLeaveErrorActionAtPass)
{
    const struct {
        std::string args;
        const char* text;
    } rows[] = {
        {"--help --bogus", "unrecognised option '--bogus'"},
        {"-t ten", "the argument ('ten') for option '--timeout' is invalid"},
        {"-l loud", "Error in init log system"},
        {"-i loud", "Error in init log system"},
        {"--log-filename " + dir / "no-such-dir/filter.log", "Error in init log system"},
        {"--interface=-1", "interface must be 0 or 1"},
        {"--interface=7 -t 0", "interface must be 0 or 1"},
        {"-t 0 -e bogus", "timeout must be > 0"},
        {"-e cure --file /spool/A1", "error in param error-action"},
        {"--file /spool/A1",
         "--file is defined, but --hash is not! Please, set it from Sender/SecureHash param."},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Run(row.args), row.text) << row.args;
        EXPECT_EQ(filterSettings.errorAction, 0) << row.args;
    }
}

TEST_F(CommandLine, LogNameOnlyWhenGivenAndParserFaultsLogged)
{
    Run("--log-name ''");
    EXPECT_EQ(Log.GetName(), "zmailer");
    Run("--log-name zfilter --id recv-7");
    EXPECT_EQ(Log.GetName() + logName + receiverId, "zfilterzfilterrecv-7");
    EXPECT_EQ(Run("--error-action quarantine"), "error in param error-action");
    EXPECT_NE(ReadFile(logPath).find(
                  "] ERROR null - Find wrong value 'quarantine' for param 'ProcessingErrors' "
                  "during action parse. Wait one of following:pass | reject | discard | "
                  "tempfail\n"),
              std::string::npos)
        << ReadFile(logPath);
}

} // namespace
