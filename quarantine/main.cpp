// quarantine/main.cpp: vorex-quarantine, the admin's view of the entries
// the daemon keeps after a reject, tempfail or discard: list, show, release
// (what the filter recorded, queued for ZMailer's router and marked so that
// the router stage does not check it again), delete. Run as root. The one
// place that catches: a failure is printed (through the same filter of
// unprintable bytes as list and show) and exits 1, a usage error exits 2.
#include <syslog.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/program_options.hpp>

#include "KeptEntry.h"
#include "KeptRecord.h"
#include "Report.h"
#include "RouterQueue.h"

namespace po = boost::program_options;

namespace
{

const std::size_t MaxAddress = 1000;

struct Options {
    std::string basedir, zmailerConf;
    bool json = false;
    std::vector<std::string> to, words;
};

// A --to address for an envelope line: in angle brackets, no control
// bytes or blanks.
std::string EnvelopeAddress(const std::string& address)
{
    if (address.empty() || address.size() > MaxAddress ||
        std::any_of(address.begin(), address.end(), [](char c) { return c <= 0x20 || c == 0x7f; }))
        throw std::invalid_argument("address '" + address + "' can not be a recipient");
    if (address.size() >= 2 && address.front() == '<' && address.back() == '>')
        return address;
    return "<" + address + ">";
}

// directoryOnly: delete needs no readable files, since it removes names only.
KeptEntry OpenOrThrow(const MsgsDir& msgs, const std::string& name, bool directoryOnly = false)
{
    KeptEntry entry;
    const std::string fault = directoryOnly ? OpenEntryDirectory(msgs, name, entry)
                                            : OpenKeptEntry(msgs, name, entry);
    if (!fault.empty())
        throw std::logic_error("refused, nothing touched: " + fault);
    return entry;
}

void List(const Options& options)
{
    const MsgsDir msgs(options.basedir);
    std::vector<std::unique_ptr<KeptEntry>> entries;
    std::vector<std::string> faults;
    for (const std::string& name : msgs.Names()) {
        auto entry = std::make_unique<KeptEntry>();
        const std::string fault = OpenKeptEntry(msgs, name, *entry);
        // Only the parsed fields stay: thousands of kept entries must not
        // hold two descriptors and the files' bytes each.
        entry->dir = Fd();
        entry->msg = Fd();
        entry->envelopeText = std::string();
        entry->decisionText = std::string();
        if (fault.empty())
            entries.push_back(std::move(entry));
        else
            faults.push_back(fault);
    }
    std::vector<const KeptEntry*> newestFirst;
    for (const auto& entry : entries)
        newestFirst.push_back(entry.get());
    std::stable_sort(newestFirst.begin(), newestFirst.end(),
                     [](const KeptEntry* a, const KeptEntry* b) {
                         return a->dirStatus.st_mtime > b->dirStatus.st_mtime;
                     });
    const time_t now = std::time(nullptr);
    std::cout << (options.json ? ListJson(newestFirst, faults, now)
                               : ListText(newestFirst, faults, now));
}

void Release(const Options& options, const std::string& name)
{
    // Every refusal comes before a byte is queued.
    const RouterQueue queue = FindRouterQueue(options.zmailerConf);
    const MsgsDir msgs(options.basedir);
    const KeptEntry entry = OpenOrThrow(msgs, name);
    const KeptRecord record = ReadKeptRecord(entry, msgs.path + "/" + name);
    // The record is what goes out; an envelope that no longer agrees with
    // it means the account has been at the entry, and the admin should know.
    if (entry.sender != record.sender || entry.recipients != record.recipients)
        throw std::logic_error("refused, nothing sent: " + msgs.path + "/" + name +
                               "/.envelope no longer says what the filter recorded");
    std::vector<std::string> recipients;
    for (const std::string& recipient : options.to)
        recipients.push_back(EnvelopeAddress(recipient));
    if (recipients.empty())
        recipients = record.recipients;
    if (recipients.empty())
        throw std::invalid_argument("entry " + name + " names no recipient; give --to");

    const std::string queued =
        QueueRelease(queue, name, record.sender, recipients, record.file.Get(),
                     record.messageStart, record.size - record.messageStart);
    std::string to;
    for (const std::string& recipient : recipients)
        to += (to.empty() ? "" : ", ") + recipient;
    const std::string line = "released " + name + " from " + record.sender + " to " + to;
    openlog("vorex-quarantine", LOG_PID, LOG_MAIL);
    syslog(LOG_INFO, "%s (queued as %s/router/%s)", Printable(line).c_str(),
           queue.postofficePath.c_str(), queued.c_str());
    closelog();
    RemoveKeptEntry(msgs, entry);
    std::cout << Printable(line) << "\n";
}

int Run(const Options& options)
{
    const std::string verb = options.words.empty() ? "" : options.words[0];
    const std::size_t wanted = verb == "list" ? 1 : 2;
    if (verb != "list" && verb != "show" && verb != "release" && verb != "delete")
        throw po::error("a verb is needed: list, show, release or delete");
    if (options.words.size() != wanted)
        throw po::error(verb + (wanted == 1 ? " takes no entry" : " takes one entry"));
    if (!options.to.empty() && verb != "release")
        throw po::error("--to is for release only");
    if (verb == "list")
        List(options);
    else if (verb == "show") {
        const MsgsDir msgs(options.basedir);
        const KeptEntry entry = OpenOrThrow(msgs, options.words[1]);
        std::cout << ShowText(entry, TopHeaders(entry));
    } else if (verb == "release")
        Release(options, options.words[1]);
    else {
        const MsgsDir msgs(options.basedir);
        const KeptEntry entry = OpenOrThrow(msgs, options.words[1], true);
        RemoveKeptEntry(msgs, entry);
        std::cout << "deleted " << Printable(options.words[1]) << "\n";
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    po::options_description visible("Usage: vorex-quarantine [options] list|show ENTRY|release "
                                     "ENTRY [--to ADDRESS...]|delete ENTRY\nOptions");
    visible.add_options()("help", "this text")("version", "the version, then exit")(
        "basedir", po::value(&options.basedir)->default_value("/var/vorex"),
        "the daemon's base directory (entries in its msgs/)")(
        "json", po::bool_switch(&options.json), "list: one JSON object for scripts")(
        "to", po::value(&options.to)->multitoken(), "release: these recipients instead")(
        "zmailer-conf", po::value(&options.zmailerConf),
        "release: ZMailer's zmailer.conf (default $ZCONFIG, else /etc/zmailer.conf)");
    po::options_description all;
    all.add(visible).add_options()("words", po::value(&options.words));
    po::positional_options_description positional;
    positional.add("words", -1);
    try {
        po::variables_map values;
        po::store(po::command_line_parser(argc, argv).options(all).positional(positional).run(),
                  values);
        po::notify(values);
        if (values.count("help")) {
            std::cout << visible;
            return 0;
        }
        if (values.count("version")) {
            std::cout << "vorex-quarantine " VOREX_VERSION "\n";
            return 0;
        }
        return Run(options);
    } catch (const po::error& usage) {
        std::cerr << "vorex-quarantine: " << Printable(usage.what()) << "\n" << visible;
        return 2;
    } catch (const std::exception& failure) {
        std::cerr << "vorex-quarantine: " << Printable(failure.what()) << "\n";
        return 1;
    }
}
