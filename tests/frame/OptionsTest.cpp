// ParseOptions on real argument vectors: the settings it leaves, the order of
// its checks with their exact texts, the log it sets up (a real file). The
// exits, the refused options and the start-up failures in the driver are the
// end-to-end tests'.
#include <cstdlib>
#include <exception>
#include <sstream>
#include <string>
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

// Accepted lines by the settings they leave ("i<interface> t<timeout>
// <basedir> a<error action> f<file> h<hash> u<user>"), refused ones by their
// text, the error action still at pass.
TEST_F(CommandLine, SettingsOrTheFirstFailureAndTheLogName)
{
    // The log file where only root can have chosen what it is. The account
    // (nobody) plants a link in a folder of its own; the other rows stand for
    // what it could leave elsewhere: a link, a second name of root's file, a
    // file of its own, a FIFO, a group-writable folder.
    const std::string setUp =
        "cd " + dir.Path().string() + " && echo root > kept && mkdir -m 755 own && chown " +
        "65534 own && setpriv --reuid=65534 --regid=65534 --clear-groups ln -s ../absent " +
        "own/filter.log && ln -s absent link.log && ln kept second.log && touch others.log && " +
        "chown 65534 others.log && mkfifo fifo.log && mkdir -m 775 group";
    ASSERT_EQ(std::system(setUp.c_str()), 0);
    const std::string refusedLog = "Error in init log system, a0";
    const struct {
        std::string args, expected;
        const char* secret = nullptr; // in VOREX_ZMAILER_HASH, the adapter's way
    } rows[] = {
        {"", "i1 t30 /var/vorex/ a1 f h uvorex"},
        {"--basedir ''", "i1 t30 / a1 f h uvorex"},
        {"-Z /etc/zmailer.conf user@example.org more", "i1 t30 /var/vorex/ a1 f h uvorex"},
        {"--time 5 --inter 0 --base=/q/ --error Discard", "i0 t5 /q/ a6 f h uvorex"},
        {"-t7 -b/x -Zconf", "i1 t7 /x/ a1 f h uvorex"},
        {"--file /spool/A1 --hash h", "i1 t30 /var/vorex/ a1 f/spool/A1 hh uvorex"},
        {"--help --bogus", "unrecognised option '--bogus', a0"},
        {"-t ten", "the argument ('ten') for option '--timeout' is invalid, a0"},
        {"-l loud", "Error in init log system, a0"},
        {"-i loud", "Error in init log system, a0"},
        {"--log-filename " + dir / "no-such-dir/filter.log", refusedLog},
        {"--log-filename " + dir / "own/filter.log", refusedLog},
        {"--log-filename " + dir / "link.log", refusedLog},
        {"--log-filename " + dir / "second.log", refusedLog},
        {"--log-filename " + dir / "others.log", refusedLog},
        {"--log-filename " + dir / "fifo.log", refusedLog},
        {"--log-filename " + dir / "group/filter.log", refusedLog},
        {"--interface=-1", "interface must be 0 or 1, a0"},
        {"--interface=7 -t 0", "interface must be 0 or 1, a0"},
        {"-t 0 -e bogus", "timeout must be > 0, a0"},
        {"-e cure --file /spool/A1", "error in param error-action, a0"},
        {"--file /spool/A1", "--file is defined, but --hash is not! Please, set it from "
                             "Sender/SecureHash param., a0"},
        {"--file /spool/A1", "i1 t30 /var/vorex/ a1 f/spool/A1 hfrom-env uvorex", "from-env"},
        {"--hash given", "i1 t30 /var/vorex/ a1 f hgiven uvorex", "from-env"},
        {"--file /spool/A1", "--file is defined, but --hash is not! Please, set it from "
                             "Sender/SecureHash param., a0", ""},
    };
    for (const auto& row : rows) {
        if (row.secret != nullptr)
            ::setenv("VOREX_ZMAILER_HASH", row.secret, 1);
        const std::string failure = Run(row.args);
        EXPECT_EQ(std::getenv("VOREX_ZMAILER_HASH"), nullptr) << "left for what the filter starts";
        const FilterSettings& s = filterSettings;
        const std::string a = "a" + std::to_string(s.errorAction);
        EXPECT_EQ(failure.empty()
                      ? "i" + std::to_string(s.interface) + " t" + std::to_string(s.timeout) + " " +
                            s.basedir + " " + a + " f" + s.file + " h" + s.hash + " u" + s.user
                      : failure + ", " + a,
                  row.expected)
            << row.args;
    }
    EXPECT_EQ(ReadFile(dir / "kept"), "root\n");
    EXPECT_EQ(ModeOf(dir / "absent") & ModeOf(dir / "group/filter.log"), 07777u);
    // The log's name changes only when one is given.
    Run("--log-name ''");
    EXPECT_EQ(Log.GetName(), "zmailer");
    Run("--log-name zfilter --id recv-7");
    EXPECT_EQ(Log.GetName() + logName + receiverId, "zfilterzfilterrecv-7");
}

} // namespace
