// daemon/ZmailerSetup.cpp: zmailer.conf and smtpserver.conf are read the way
// ZMailer reads them (through shared/zmailer/); an entry naming a program
// that is not executable is ignored, the last good one counts. The policy is
// the compiled database smtpserver reads ("PARAM policydb"), dumped by
// ZMailer's dblook: an attribute a key lacks is looked up along its aliases.
#include "ZmailerSetup.h"

#include <map>
#include <sstream>
#include <unistd.h>
#include <vector>

#include "BoundedRun.h"
#include "CheckReport.h"
#include "shared/zmailer/ZmailerConfig.h"

namespace
{

// The wrapper's --check runs the filter once; it answers within its own limit.
constexpr int WrapperLimitSeconds = 120;
// smtpserver follows at most five aliases.
constexpr int MaxAliasDepth = 5;
const std::string DefaultKey = "[0.0.0.0]/0";
using PolicyEntries = std::map<std::string, std::vector<std::string>>;

// The content filter smtpserver runs, empty for none; each entry it
// ignores is a problem.
std::string CheckContentFilter(CheckReport& report, const std::string& conf,
                               const std::vector<std::string>& lines,
                               const ZmailerVariables& variables)
{
    std::string program;
    bool ignored = false;
    for (const ContentFilterEntry& entry : ContentFilterEntries(lines, variables)) {
        if (::access(entry.program.c_str(), X_OK) == 0) {
            program = entry.program;
            continue;
        }
        ignored = true;
        report.Problem(conf + " line " + std::to_string(entry.line),
                       "contentfilter " + entry.program +
                           " is missing or not executable: smtpserver ignores it",
                       "install vorex-zmailer again, or remove the line and restart smtpserver");
    }
    if (program.empty() && !ignored)
        report.Problem(conf, "no PARAM contentfilter: smtpserver passes mail unchecked",
                       "add 'PARAM contentfilter /usr/sbin/vorex-zmailer-filter' and restart "
                       "smtpserver");
    else if (!program.empty())
        report.Ok(conf + " runs " + program + " as its content filter");
    return program;
}

// Runs "<wrapper> --check" and passes its finding lines on.
void CheckWrapper(CheckReport& report, const std::string& wrapper)
{
    const RunOutcome run = RunBounded({wrapper, "--check"}, WrapperLimitSeconds);
    std::istringstream lines(run.output);
    int findings = 0;
    const int problemsBefore = report.Problems();
    std::string first;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 3, "ok ") == 0 || line.compare(0, 8, "PROBLEM ") == 0) {
            report.Relay(line);
            findings++;
        } else if (first.empty()) {
            first = line;
        }
    }
    if ((run.status != 0 || findings == 0) && report.Problems() == problemsBefore)
        report.Problem(wrapper + " --check",
                       (run.timedOut ? "no answer within " + std::to_string(WrapperLimitSeconds) + " s"
                                     : "status " + std::to_string(run.status)) +
                           (first.empty() ? "" : ": '" + first + "'"),
                       "correct the filter options in the wrapper's configuration "
                       "(vorex-zmailer-filter(8))");
}

// The value of attribute for key, following "= _alias" pairs as smtpserver
// does (at most MaxAliasDepth deep); empty when none of them has it.
std::string PolicyValue(const PolicyEntries& entries, const std::string& key,
                        const std::string& attribute, int depth = 0)
{
    const auto found = entries.find(key);
    if (found == entries.end() || depth > MaxAliasDepth)
        return "";
    const std::vector<std::string>& pairs = found->second;
    for (std::size_t at = 0; at + 1 < pairs.size(); at += 2)
        if (pairs[at] == attribute)
            return pairs[at + 1];
    for (std::size_t at = 0; at + 1 < pairs.size(); at += 2) {
        const std::string value =
            pairs[at] == "=" ? PolicyValue(entries, pairs[at + 1], attribute, depth + 1) : "";
        if (!value.empty())
            return value;
    }
    return "";
}

// One line of dblook's policy dump: KEY, a tab, then ' attribute "value"'
// pairs (an alias is the attribute "=").
void ParseDumpLine(const std::string& line, PolicyEntries& entries)
{
    const std::size_t tab = line.find('\t');
    if (tab == std::string::npos || tab == 0)
        return;
    std::vector<std::string>& pairs = entries[line.substr(0, tab)];
    for (std::size_t at = tab + 1; at < line.size();) {
        const std::size_t name = line.find_first_not_of(' ', at);
        const std::size_t open = line.find(" \"", name);
        if (name == std::string::npos || open == std::string::npos)
            return;
        std::size_t close = line.find("\" ", open + 2);
        close = close == std::string::npos ? line.size() - 1 : close;
        pairs.push_back(line.substr(name, open - name));
        pairs.push_back(line.substr(open + 2, close - open - 2));
        at = close + 1;
    }
}

// smtpserver decides per client with its compiled policy database: the most
// specific address key that matches the client's address, then its aliases.
// So every address key must come to 'filtering +', and [0.0.0.0]/0 must be
// there for the clients no other key matches. The database is read with
// ZMailer's own dblook, whatever its type.
void CheckPolicy(CheckReport& report, const std::string& conf,
                 const std::vector<std::string>& confLines, const ZmailerVariables& variables)
{
    const std::string fix = "give every address line of $MAILVAR/db/smtp-policy.src "
                            "'filtering +', then run policy-builder.sh and restart smtpserver";
    const std::vector<ParamEntry> given = ParamEntries(confLines, variables, "policydb");
    if (given.empty() || given.back().words.size() < 2) {
        report.Problem(conf, "no 'PARAM policydb TYPE PATH': smtpserver filters no client",
                       "add 'PARAM policydb $DBTYPE $MAILVAR/db/smtp-policy' and " + fix);
        return;
    }
    const std::string type = given.back().words[0];
    const std::string database =
        given.back().words[1] + (type == "gdbm" ? ".gdbm" : type == "ndbm" ? "" : ".db");
    const auto bin = variables.find("MAILBIN");
    const RunOutcome dump = RunBounded(
        {(bin == variables.end() ? std::string("/usr/lib/zmailer") : bin->second) + "/dblook",
         "-policydump", type, database},
        WrapperLimitSeconds);
    PolicyEntries entries;
    std::istringstream lines(dump.output);
    for (std::string line; std::getline(lines, line);)
        ParseDumpLine(line, entries);
    if (dump.status != 0 || dump.output.size() >= MaxOutput) {
        report.Problem("policy " + database,
                       dump.output.size() >= MaxOutput
                           ? "more than " + std::to_string(MaxOutput) + " bytes to read"
                           : "dblook could not read it: '" + dump.output.substr(0, 200) + "'",
                       fix);
        return;
    }
    if (entries.count(DefaultKey) == 0)
        report.Problem(DefaultKey, "not in " + database + ": smtpserver runs no content filter "
                                   "for clients no other line names", fix);
    int addresses = 0;
    for (const auto& entry : entries) {
        if (entry.first.empty() || entry.first[0] != '[')
            continue;
        addresses++;
        const std::string value = PolicyValue(entries, entry.first, "filtering");
        if (value != "+")
            report.Problem(entry.first,
                           (value.empty() ? "no 'filtering +'" : "'filtering " + value + "'") +
                               " in " + database + ": no content filter for these clients",
                           "add 'filtering +' to the " + entry.first + " line (or its alias) of "
                           "$MAILVAR/db/smtp-policy.src, then run policy-builder.sh and restart "
                           "smtpserver");
    }
    if (entries.count(DefaultKey) != 0)
        report.Ok(database + ": " + std::to_string(addresses) +
                  " address lines checked for 'filtering +'");
}

} // namespace

void CheckZmailerSetup(CheckReport& report, const std::string& zmailerConf)
{
    const std::string conf = ZmailerConfPath(zmailerConf);
    std::vector<std::string> lines;
    if (!ReadConfigLines(conf, lines)) {
        if (zmailerConf.empty())
            report.Skipped("ZMailer", "no " + conf + ": no ZMailer installation to check");
        else
            report.Problem("ZMailer", "can not read " + conf, "give the path of zmailer.conf");
        return;
    }
    const ZmailerVariables variables = ParseZmailerConf(lines);
    const auto share = variables.find("MAILSHARE");
    const auto var = variables.find("MAILVAR");
    if (share == variables.end() || var == variables.end()) {
        report.Problem(conf, "no MAILSHARE or MAILVAR", "restore ZMailer's zmailer.conf");
        return;
    }
    report.Ok("ZMailer: " + conf);
    const std::string smtpserverConf = share->second + "/smtpserver.conf";
    std::vector<std::string> confLines;
    if (!ReadConfigLines(smtpserverConf, confLines)) {
        report.Problem("smtpserver.conf", "can not read " + smtpserverConf,
                       "ZMailer's content filter runs only from $MAILSHARE/smtpserver.conf");
        return;
    }
    const std::string wrapper = CheckContentFilter(report, smtpserverConf, confLines, variables);
    if (!wrapper.empty())
        CheckWrapper(report, wrapper);
    CheckPolicy(report, smtpserverConf, confLines, variables);
}
