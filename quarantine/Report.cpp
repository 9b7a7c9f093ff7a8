// quarantine/Report.cpp: text for people, JSON (nlohmann-json) for scripts.
#include "Report.h"

#include <nlohmann/json.hpp>

#include "KeptEntry.h"

std::string Printable(std::string text, bool keepLineEnds)
{
    for (char& c : text)
        if ((c < 0x20 || c > 0x7e) && !(keepLineEnds && c == '\n') && c != '\t')
            c = '?';
    return text;
}

namespace
{

std::string Field(const KeptEntry& entry, const char* key)
{
    const auto found = entry.decision.find(key);
    return found == entry.decision.end() ? "" : Printable(found->second);
}

std::string Joined(const std::vector<std::string>& items)
{
    std::string text;
    for (const std::string& item : items)
        text += (text.empty() ? "" : ",") + Printable(item);
    return text;
}

std::string Age(time_t seconds)
{
    if (seconds < 0)
        seconds = 0;
    if (seconds < 3600)
        return std::to_string(seconds / 60) + "m";
    if (seconds < 48 * 3600)
        return std::to_string(seconds / 3600) + "h";
    return std::to_string(seconds / 86400) + "d";
}

} // namespace

std::string VerdictWord(const std::string& flags)
{
    if (flags.empty() || flags.find_first_not_of("0123456789") != std::string::npos ||
        flags.size() > 9)
        return "unknown";
    const unsigned long value = std::stoul(flags);
    const struct {
        unsigned long bit;
        const char* word;
    } words[] = {{0x20, "error"}, {0x2, "reject"}, {0x4, "tempfail"}, {0x8, "discard"},
                 {0x1, "pass"}};
    for (const auto& word : words)
        if (value & word.bit)
            return word.word;
    return "unknown";
}

std::string ListText(const std::vector<const KeptEntry*>& entries,
                     const std::vector<std::string>& faults, time_t now)
{
    std::string text;
    for (const KeptEntry* entry : entries)
        text += Printable(entry->name) + "  " + Age(now - entry->dirStatus.st_mtime) + "  " +
                std::to_string(entry->msgStatus.st_size) + "  " +
                VerdictWord(Field(*entry, "Flags")) + "  " + Printable(entry->sender) + " -> " +
                Joined(entry->recipients) + "  " + Field(*entry, "Note") + "\n";
    for (const std::string& fault : faults)
        text += "unreadable: " + Printable(fault) + "\n";
    return text;
}

std::string ListJson(const std::vector<const KeptEntry*>& entries,
                     const std::vector<std::string>& faults, time_t now)
{
    nlohmann::json list = nlohmann::json::array();
    for (const KeptEntry* entry : entries) {
        std::vector<std::string> recipients;
        for (const std::string& recipient : entry->recipients)
            recipients.push_back(Printable(recipient));
        list.push_back({{"entry", Printable(entry->name)},
                        {"age_seconds", now - entry->dirStatus.st_mtime},
                        {"size", entry->msgStatus.st_size},
                        {"sender", Printable(entry->sender)},
                        {"recipients", recipients},
                        {"verdict", VerdictWord(Field(*entry, "Flags"))},
                        {"flags", Field(*entry, "Flags")},
                        {"note", Field(*entry, "Note")},
                        {"engines", Field(*entry, "Engines")},
                        {"date", Field(*entry, "Date")}});
    }
    std::vector<std::string> unreadable;
    for (const std::string& fault : faults)
        unreadable.push_back(Printable(fault));
    return nlohmann::json{{"entries", list}, {"faults", unreadable}}.dump(1) + "\n";
}

std::string ShowText(const KeptEntry& entry, const std::string& headers)
{
    std::string text = "Entry: " + Printable(entry.name) +
                       "\nSize: " + std::to_string(entry.msgStatus.st_size) + "\n\n";
    text += Printable(entry.envelopeText, true) + "\n";
    text += entry.decisionText.empty() ? "(no decision recorded)\n"
                                       : Printable(entry.decisionText, true);
    return text + "\n" + Printable(headers, true);
}
