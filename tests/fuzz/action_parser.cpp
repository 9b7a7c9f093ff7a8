// tests/fuzz/action_parser.cpp: libFuzzer target over the action-string
// parser. The input is split at NUL bytes and line feeds into the value
// items of two categories of the ProcessingErrors kind (the first byte says
// how many items go to the first); Parse must not crash, and when it accepts
// the items, GetMainAction must find a main action for both categories
// (every action a first item may name there is a main action). Logging runs
// at debug level into /dev/null so that every fault text is composed.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include "platform/log/LogClass.h"
#include "shared/conf/QueltConfParser.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // Without logging, fault texts would go uncomposed: stop at once.
    if (!Log.Initialize("/dev/null", "debug", "mail", false, false, "%-7r [%t] %-5p %x - %m%n"))
        std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    std::vector<std::string> items;
    boost::algorithm::split(items, std::string(reinterpret_cast<const char*>(data) + 1, size - 1),
                            boost::algorithm::is_any_of(std::string("\n\0", 2)));
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
