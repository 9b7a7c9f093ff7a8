// bench/roundtrip.cpp: the daemon conversation alone, once per line of
// standard input: connect to BASEDIR/quelt.sock, send "CHECK <dir>", read the
// answer, write it to standard output. No files are made; run it against a
// daemon that answers a fixed verdict without looking at the entry.
// Usage: bench-roundtrip BASEDIR < lines. Exit 0, or 1 with the cause on stderr.
#include <cstdio>
#include <stdexcept>
#include <string>

#include "BenchIo.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: bench-roundtrip BASEDIR < lines\n", stderr);
        return 2;
    }
    try {
        const std::string base = bench::BaseDir(argv[1]);
        const std::string socketPath = base + "quelt.sock";
        const std::string entryPrefix = base + "msgs/roundtrip.";
        char line[4112];
        unsigned long sequence = 0;
        while (std::fgets(line, sizeof line, stdin) != nullptr) {
            const std::string answer =
                bench::AskDaemon(socketPath, entryPrefix + std::to_string(++sequence)) + "\n";
            bench::WriteAll(1, answer.data(), answer.size(), "standard output");
        }
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench-roundtrip: %s\n", failure.what());
        return 1;
    }
}
