// shared/zmailer/ZmailerConfig.cpp: the readers; see the header for the
// rules they follow.
#include "shared/zmailer/ZmailerConfig.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>

std::string ZmailerConfPath(const std::string& given)
{
    const char* fromEnvironment = std::getenv("ZCONFIG");
    if (!given.empty())
        return given;
    return fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment
                                                                  : "/etc/zmailer.conf";
}

bool ReadConfigLines(const std::string& path, std::vector<std::string>& lines)
{
    std::ifstream in(path);
    if (!in)
        return false;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return !in.bad();
}

ZmailerVariables ParseZmailerConf(const std::vector<std::string>& lines)
{
    ZmailerVariables variables;
    for (const std::string& line : lines) {
        const std::size_t equals = line.find('=');
        if (line.empty() || line[0] == '#' || equals == std::string::npos)
            continue;
        std::string value = line.substr(equals + 1);
        if (value.size() >= 2 && (value[0] == '"' || value[0] == '\'') && value.back() == value[0])
            value = value.substr(1, value.size() - 2);
        variables[line.substr(0, equals)] = value;
    }
    return variables;
}

std::string ExpandZmailerVariables(const std::string& text, const ZmailerVariables& variables)
{
    std::string out;
    for (std::size_t at = 0; at < text.size();) {
        if (text[at] != '$') {
            out += text[at++];
            continue;
        }
        std::size_t start = at + 1, end = start;
        const bool braced = start < text.size() && (text[start] == '{' || text[start] == '(');
        if (braced) {
            const char close = text[start] == '{' ? '}' : ')';
            end = text.find(close, ++start);
            end = end == std::string::npos ? text.size() : end;
        } else {
            while (end < text.size() &&
                   (std::isalnum(static_cast<unsigned char>(text[end])) || text[end] == '_'))
                ++end;
        }
        const auto found = variables.find(text.substr(start, end - start));
        const std::size_t next = braced ? std::min(end + 1, text.size()) : end;
        out += found != variables.end() ? found->second : text.substr(at, next - at);
        at = next;
    }
    return out;
}

std::vector<ParamEntry> ParamEntries(const std::vector<std::string>& lines,
                                     const ZmailerVariables& variables, const std::string& name)
{
    std::vector<ParamEntry> entries;
    for (std::size_t number = 1; number <= lines.size(); ++number) {
        const std::string& line = lines[number - 1];
        if (line.compare(0, 5, "PARAM") != 0)
            continue;
        std::istringstream words(ExpandZmailerVariables(line, variables));
        std::string param, given;
        words >> param >> given;
        std::transform(given.begin(), given.end(), given.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        if (given != name)
            continue;
        ParamEntry entry{number, {}};
        for (std::string word; words >> word;)
            entry.words.push_back(word);
        entries.push_back(entry);
    }
    return entries;
}

std::vector<ContentFilterEntry> ContentFilterEntries(const std::vector<std::string>& lines,
                                                     const ZmailerVariables& variables)
{
    std::vector<ContentFilterEntry> entries;
    for (const ParamEntry& entry : ParamEntries(lines, variables, "contentfilter"))
        if (!entry.words.empty())
            entries.push_back({entry.line, entry.words[0]});
    return entries;
}
