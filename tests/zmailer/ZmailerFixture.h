// tests/zmailer/ZmailerFixture.h: what the zmailer group's test files
// share: the engines (started once), the messages, and the fixture that
// gives each test a ZMailer tree of its own.
#pragma once

#include <regex>

#include <gtest/gtest.h>

#include "ZmailerSite.h"
#include "support/RefDaemon.h"

namespace zmailer_test
{

using Words = std::vector<std::string>;

inline const std::string Basedir = "/var/vorex/";
inline const std::string Filter = "/usr/local/sbin/vorex-zmailer";
inline const std::string Gtube = "XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-ANTI-UBE-TEST-EMAIL*C.34X";
inline const std::string Head = "From: Alice <alice@example.org>\nTo: bob@example.net\n"
                         "Subject: quarterly figures\nMessage-ID: <q3@example.org>\n";
inline const std::string Clean = Head + "\nThe figures are attached.\n.leading dot\n";
// A client that waited this long was let go by smtpserver's own time limit
// for a silent filter (120 s), not by an answer of ours.
inline constexpr double AnsweredWithinSeconds = 60;

struct SharedEngines {
    Clamd clamd;
    Spamd spamd;
};
inline SharedEngines& Engines()
{
    static SharedEngines engines;
    return engines;
}

// The engines' fields with their folded lines, values masked.
inline std::string Masked(const std::string& bytes)
{
    static const std::regex field("(^|\n)(X-Spam-[^:\n]*):[^\n]*(\n[ \t][^\n]*)*");
    return std::regex_replace(bytes, field, "$1$2: *");
}

// The message part of a spool file: what follows "env-end\n".
inline std::string MessagePart(const std::string& spool)
{
    const std::size_t end = spool.find("env-end\n");
    return end == std::string::npos ? "(no env-end) " + spool : spool.substr(end + 8);
}

inline Words AsVorex(Words args)
{
    args.insert(args.end(), {"--user", "vorex"});
    return args;
}

class Zmailer : public ::testing::Test
{
protected:
    // The one file in a queue folder, empty when there is none; more than
    // one fails the row.
    std::string OnlyFile(const std::string& queue)
    {
        const std::set<std::string> files = FilesBelow(site.Postoffice(queue));
        EXPECT_LE(files.size(), 1u) << queue;
        return files.empty() ? "" : site.Postoffice(queue + "/" + *files.begin());
    }

    // The filter process of a running job (the adapter's child), 0 when
    // none came within the bound.
    static pid_t FilterInAJob()
    {
        for (int waited = 0; waited < ChildProcess::BoundMs; waited += 20) {
            if (fs::directory_iterator(Basedir + "msgs") != fs::directory_iterator())
                for (const auto& proc : fs::directory_iterator("/proc"))
                    if (ReadProc(proc.path().string() + "/comm") == "vorex-zmailer\n")
                        return std::atoi(proc.path().filename().c_str());
            (void)::poll(nullptr, 0, 20);
        }
        return 0;
    }

    ZmailerSite site;
};

} // namespace zmailer_test
