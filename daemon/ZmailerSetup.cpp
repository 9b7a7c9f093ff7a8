// daemon/ZmailerSetup.cpp: the three files are read the way
// ZMailer reads them (zmailer.conf and smtpserver.conf through
// shared/zmailer/); an entry naming a program that is not executable is
// ignored, the last good one counts. The policy source: "key attribute value ... [= _alias]" lines, '#' starts a
// comment, a key's lines add up, and an attribute a key lacks is looked up
// along its aliases.
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
constexpr int MaxAliasDepth = 16;
const char* const PolicyKeys[] = {"[0.0.0.0]/0", "_full_rights"};

std::vector<std::string> Words(const std::string& line)
{
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;)
        words.push_back(word);
    return words;
}

// The content filter smtpserver runs, empty for none; each entry it
// ignores is a problem.
std::string CheckContentFilter(CheckReport& report, const std::string& conf,
                               const ZmailerVariables& variables)
{
    std::vector<std::string> lines;
    if (!ReadConfigLines(conf, lines)) {
        report.Problem("smtpserver.conf", "can not read " + conf,
                       "ZMailer's content filter runs only from $MAILSHARE/smtpserver.conf");
        return "";
    }
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

// The value of attribute for key, following "= _alias" pairs; empty when
// none of them has it.
std::string PolicyValue(const std::map<std::string, std::vector<std::string>>& entries,
                        const std::string& key, const std::string& attribute, int depth = 0)
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

void CheckPolicy(CheckReport& report, const std::string& source)
{
    std::vector<std::string> lines;
    if (!ReadConfigLines(source, lines)) {
        report.Problem("policy", "can not read " + source,
                       "give [0.0.0.0]/0 and _full_rights 'filtering +' in ZMailer's policy "
                       "source, then run policy-builder.sh");
        return;
    }
    std::map<std::string, std::vector<std::string>> entries;
    for (const std::string& line : lines) {
        std::vector<std::string> words = Words(line.substr(0, line.find('#')));
        if (words.empty())
            continue;
        std::vector<std::string>& pairs = entries[words[0]];
        pairs.insert(pairs.end(), words.begin() + 1, words.end());
    }
    for (const char* key : PolicyKeys) {
        const std::string value = PolicyValue(entries, key, "filtering");
        if (value == "+")
            report.Ok(source + ": " + key + " has 'filtering +'");
        else
            report.Problem(source + ": " + key,
                           value.empty() ? "no 'filtering +': smtpserver runs no content filter "
                                           "for these clients"
                                         : "'filtering " + value + "': no content filter for "
                                           "these clients",
                           "add 'filtering +' to the " + std::string(key) +
                               " line, then run policy-builder.sh and restart smtpserver");
    }
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
    const std::string wrapper =
        CheckContentFilter(report, share->second + "/smtpserver.conf", variables);
    if (!wrapper.empty())
        CheckWrapper(report, wrapper);
    CheckPolicy(report, var->second + "/db/smtp-policy.src");
}
