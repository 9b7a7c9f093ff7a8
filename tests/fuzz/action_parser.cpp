// tests/fuzz/action_parser.cpp: libFuzzer target over the action-string
// parser. The input is split at NUL bytes and line feeds into the value
// items of two categories of the ProcessingErrors kind (the first byte says
// how many items go to the first); Parse must not crash, and when it accepts
// the items, GetMainAction must find a main action for both categories
// (every action a first item may name there is a main action). Logging runs
// at debug level into /dev/null so that every fault text is composed.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/log/LogClass.h"
#include "shared/conf/QueltConfParser.h"

namespace
{

std::vector<std::string> SplitItems(const std::string& text)
{
    std::vector<std::string> items;
    std::string item;
    for (char c : text) {
        if (c == '\0' || c == '\n') {
            items.push_back(item);
            item.clear();
        } else {
            item += c;
        }
    }
    if (!item.empty())
        items.push_back(item);
    return items;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (!Log.Initialize("/dev/null", "debug", "mail", false, false, "%-7r [%t] %-5p %x - %m%n")) {
        std::fputs("action_parser: cannot set up logging\n", stderr);
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    std::vector<std::string> items =
        SplitItems(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    const std::size_t firstCount = std::min<std::size_t>(data[0] % 8, items.size());

    QueltConf::QueltConfParser rules;
    const QueltConf::ActionsParser::OlValue errors = QueltConf::MakeProcessingErrors();
    rules.SetObjects({QueltConf::ActionsParser::OlValue(errors, 0),
                      QueltConf::ActionsParser::OlValue(errors, 1)});
    QueltConf::ActionsParser& parser = rules.GetParser();
    parser.SetDefaults();
    parser.GetObjects()[0].m_values.assign(items.begin(), items.begin() + firstCount);
    parser.GetObjects()[1].m_values.assign(items.begin() + firstCount, items.end());
    if (parser.Parse()) {
        (void)rules.GetMainAction(0); // throws, and so aborts, without a main action
        (void)rules.GetMainAction(1);
    }
    return 0;
}
