// daemon/FilterRoundTrip.cpp: the test strings are built from two
// halves, so that this program's own file never holds them whole (a virus
// scanner would flag the daemon). The filter's entries are found by its
// process id, which their names carry.
#include "FilterRoundTrip.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

#include "BoundedRun.h"
#include "CheckReport.h"
#include "EngineSocket.h"
#include "shared/fd/Fd.h"
#include "Sweeper.h"
#include "shared/conversation/Conversation.h"

namespace
{

// Longer than the filter's own default limit (30 s), so that the filter
// answers first.
constexpr int FilterLimitSeconds = 60;

const std::string Eicar = std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-") +
                          "ANTIVIRUS-TEST-FILE!$H+H*";
const std::string Gtube = std::string("XJS*C4JDBQADN1.NSBN3*2IDNEN*GTUBE-STANDARD-") +
                          "ANTI-UBE-TEST-EMAIL*C.34X";

std::string Base64(const std::string& bytes)
{
    static const char digits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - at);
        uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i)
            group = group << 8 | (i < count ? static_cast<unsigned char>(bytes[at + i]) : 0u);
        for (std::size_t digit = 0; digit < 4; ++digit)
            out += digit <= count ? digits[(group >> (18 - 6 * digit)) & 63] : '=';
    }
    return out;
}

std::string Spool(const std::string& subject, const std::string& body)
{
    return "from <quelt-refd-check@localhost>\nto <postmaster@localhost>\nenv-end\n"
           "From: <quelt-refd-check@localhost>\nTo: <postmaster@localhost>\n"
           "Subject: quelt-refd --check: " +
           subject + "\n" + body;
}

// The test string in the text and as an attachment of its own: an engine
// may look for it in either.
std::string VirusBody()
{
    return "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"check\"\n\n"
           "--check\nContent-Type: text/plain\n\n" +
           Eicar +
           "\n--check\nContent-Type: application/octet-stream; name=\"test.com\"\n"
           "Content-Transfer-Encoding: base64\n"
           "Content-Disposition: attachment; filename=\"test.com\"\n\n" +
           Base64(Eicar) + "\n--check--\n";
}

// Removes the entries the filter with process id pid made (their names
// end ".<pid>.<n>"); a failure is part of the finding.
std::string RemoveEntries(const std::string& msgs, pid_t pid)
{
    const std::string mark = "." + std::to_string(pid) + ".";
    std::string left;
    try {
        Fd msgsFd(::open(msgs.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!msgsFd.IsValid())
            return "";
        for (const std::string& name : ListNames(msgsFd.Get(), msgs)) {
            const std::size_t at = name.rfind(mark);
            if (at != std::string::npos && name.find('.', at + mark.size()) == std::string::npos)
                RemoveEntry(msgsFd.Get(), name, msgs + "/" + name);
        }
    } catch (const std::exception& failure) {
        left = std::string("; its entry is left over: ") + failure.what();
    }
    return left;
}

// The filter's reply line for one spool file of these bytes, its exit
// status after it.
std::string RunFilter(const RoundTripSettings& settings, const std::string& bytes, int& status)
{
    char dirName[] = "/tmp/quelt-refd-check.XXXXXX";
    if (::mkdtemp(dirName) == nullptr) {
        int error = errno;
        throw std::domain_error(std::string("mkdtemp error:") + std::strerror(error));
    }
    const std::string dir = dirName, spool = dir + "/spool";
    std::string reply = "can not write " + spool;
    Fd file(::open(spool.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file.IsValid() && WriteAll(file.Get(), bytes.data(), bytes.size()) && file.Close() == 0) {
        const RunOutcome run = RunBounded(
            {settings.filter, "--file", spool, "--hash", "quelt-refd-check", "--user",
             settings.user, "--basedir", settings.baseDir, "--error-action", "tempfail",
             "--log-filename", "syslog"},
            FilterLimitSeconds);
        status = run.status;
        reply = run.output.substr(0, run.output.find('\n'));
        if (run.timedOut)
            reply += " (no answer within " + std::to_string(FilterLimitSeconds) + " s)";
        reply += RemoveEntries(settings.baseDir + conversation::EntriesFolderName, run.pid);
    }
    (void)::unlink(spool.c_str()); // our own private directory: nothing to lose
    (void)::rmdir(dir.c_str());
    return reply;
}

} // namespace

void CheckFilterRoundTrips(CheckReport& report, const RoundTripSettings& settings)
{
    const std::string fix = "read journalctl -t vorex-zmailer -t zmailer and journalctl -u "
                            "quelt-refd for the cause";
    if (!settings.virusEngine) {
        report.Skipped("virus round trip", "no --clamd configured");
    } else {
        int status = -1;
        const std::string reply = RunFilter(settings, Spool("virus test", VirusBody()), status);
        if (status == 0 && reply.compare(0, 7, "-1 550 ") == 0)
            report.Ok("virus round trip (" + settings.filter + ", daemon, engine): '" + reply + "'");
        else
            report.Problem("virus round trip", "the anti-virus test message got '" + reply +
                                                   "' (status " + std::to_string(status) + ")",
                           fix);
    }
    if (!settings.spamEngine) {
        report.Skipped("spam round trip", "no --spamd or --rspamd configured");
        return;
    }
    int status = -1;
    const std::string reply = RunFilter(settings, Spool("spam test", "\n" + Gtube + "\n"), status);
    const bool refused = reply.compare(0, 7, "-1 550 ") == 0;
    const bool tagged = reply.compare(0, 2, "0 ") == 0 && reply.find(", tagged") != std::string::npos;
    if (status == 0 && settings.spamReject && refused)
        report.Ok("spam round trip: '" + reply + "'");
    else if (status == 0 && !settings.spamReject && tagged)
        report.Ok("spam round trip: '" + reply + "' (tagged only: no --spam-reject)");
    else
        report.Problem("spam round trip", "the spam test message got '" + reply + "' (status " +
                                              std::to_string(status) + ")",
                       fix);
}
