// tools/quelt-refd/main.cpp: the reference checking daemon for the demo and
// the tests. Reads its options, then hands over to the server. Exit status:
// 0 after a stop signal or --help, 1 when it cannot start, 2 for bad usage.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "Server.h"

namespace
{

const char* const Usage =
    "usage: quelt-refd --basedir DIR [--add-header 'Name: value'] [--verdict N]\n"
    "                  [--note TEXT] [--delay-ms N]\n"
    "\n"
    "A reference checking daemon. Listens on DIR/quelt.sock; for each line\n"
    "\"CHECK <entry dir>\" it checks <entry dir>/.msg and answers one line: the\n"
    "verdict flags in decimal, a blank and a note.\n"
    "  .msg holds the anti-virus test string   2 infected: EICAR-Test-File\n"
    "  with --add-header, otherwise            513 clean (header line put first)\n"
    "  otherwise                               1 clean\n"
    "\n"
    "  --basedir DIR      base directory (required)\n"
    "  --add-header TEXT  header line to insert as the first line of .msg\n"
    "  --verdict N        answer N to every message; .msg is left alone\n"
    "  --note TEXT        the note of every answer (none with --verdict alone)\n"
    "  --delay-ms N       wait N milliseconds before each answer\n"
    "  --help             this text\n"
    "\n"
    "SIGTERM or SIGINT stop it; it removes its socket and exits 0.\n";

int BadUsage(const std::string& text)
{
    std::fprintf(stderr, "quelt-refd: %s\n%s", text.c_str(), Usage);
    return 2;
}

// Decimal digits only, no sign, at most max.
bool ParseNumber(const std::string& text, uint64_t max, uint64_t& value)
{
    if (text.empty())
        return false;
    value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<uint64_t>(c - '0');
        if (value > max)
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    DaemonOptions options;
    for (int i = 1; i < argc; ++i) {
        std::string name = argv[i];
        if (name == "--help" || name == "-h") {
            std::fputs(Usage, stdout);
            return 0;
        }
        std::string value;
        std::size_t equals = name.find('=');
        if (name.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.erase(equals);
        } else if (i + 1 < argc) {
            value = argv[++i];
        } else {
            return BadUsage(name + " needs a value or is unknown");
        }
        uint64_t number = 0;
        if (name == "--basedir") {
            options.baseDir = value;
        } else if (name == "--add-header") {
            if (value.find(':') == std::string::npos ||
                value.find_first_of("\r\n") != std::string::npos)
                return BadUsage("--add-header needs one line 'Name: value'");
            options.addHeader = value;
        } else if (name == "--verdict") {
            if (!ParseNumber(value, UINT32_MAX, number))
                return BadUsage("--verdict needs a number from 0 to 4294967295");
            options.fixedVerdict = true;
            options.verdict = static_cast<uint32_t>(number);
        } else if (name == "--note") {
            if (value.find_first_of("\r\n") != std::string::npos)
                return BadUsage("--note must be one line");
            options.note = value;
        } else if (name == "--delay-ms") {
            if (!ParseNumber(value, 3600 * 1000, number))
                return BadUsage("--delay-ms needs a number of milliseconds up to one hour");
            options.delayMs = static_cast<int>(number);
        } else {
            return BadUsage("unknown option " + name);
        }
    }
    if (options.baseDir.empty())
        return BadUsage("--basedir is required");
    if (options.baseDir.back() != '/')
        options.baseDir += '/';
    return RunServer(options);
}
