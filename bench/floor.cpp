// bench/floor.cpp: the least work any content filter must do per message,
// for comparison with vorex-zmailer. Spool paths arrive one per line on
// standard input; for each: read the envelope lines, make an entry directory
// under BASEDIR/msgs/, write ".envelope", copy the message part into ".msg"
// in the kernel, ask the daemon, remove the entry, write one reply line.
// Usage: bench-floor BASEDIR < paths. Exit 0, or 1 with the cause on stderr.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>

#include "BenchIo.h"

namespace
{

const char Reply[] = "0 250 2.6.0 Okey. Go ahead!\n";

struct StreamCloser {
    void operator()(FILE* stream) const
    {
        (void)std::fclose(stream); // read-only stream: nothing to lose
    }
};

bool BeginsWith(const char* line, const char* keyword)
{
    return std::strncmp(line, keyword, std::strlen(keyword)) == 0;
}

// Reads envelope lines up to env-end, env-eof or an empty line; collects the
// envelope file's text and returns the offset where the message begins.
long ReadEnvelope(FILE* stream, const std::string& path, std::string& envelope)
{
    char line[8192];
    while (std::fgets(line, sizeof line, stream) != nullptr) {
        if (BeginsWith(line, "env-end") || BeginsWith(line, "env-eof") || line[0] == '\n')
            break;
        if (BeginsWith(line, "from ") || BeginsWith(line, "to "))
            envelope += line;
    }
    if (std::ferror(stream))
        throw std::runtime_error("read error on " + path);
    const long position = std::ftell(stream);
    if (position < 0)
        bench::FailSystem("ftell " + path, errno);
    return position;
}

void CopyMessagePart(int spool, const std::string& spoolPath, off_t from,
                     const std::string& msgPath)
{
    struct stat status;
    if (::fstat(spool, &status) != 0)
        bench::FailSystem("fstat " + spoolPath, errno);
    bench::Fd msg(::creat(msgPath.c_str(), 0660));
    if (!msg.IsValid())
        bench::FailSystem("creat " + msgPath, errno);
    off_t offset = from;
    while (offset < status.st_size) {
        const ssize_t copied =
            ::copy_file_range(spool, &offset, msg.Get(), nullptr,
                              static_cast<std::size_t>(status.st_size - offset), 0);
        if (copied < 0) {
            const int error = errno;
            if (error == EINTR)
                continue;
            bench::FailSystem("copy_file_range " + spoolPath, error);
        }
        if (copied == 0)
            throw std::runtime_error(spoolPath + " shrank while copied");
    }
    msg.Close(msgPath);
}

void RemovePath(const std::string& path, bool directory)
{
    if ((directory ? ::rmdir(path.c_str()) : ::unlink(path.c_str())) != 0)
        bench::FailSystem(directory ? "rmdir " + path : "unlink " + path, errno);
}

void Check(const std::string& spoolPath, const std::string& entryPrefix,
           const std::string& socketPath, unsigned long sequence)
{
    std::unique_ptr<FILE, StreamCloser> stream(std::fopen(spoolPath.c_str(), "r"));
    if (!stream)
        bench::FailSystem("fopen " + spoolPath, errno);
    std::string envelope;
    const long envelopeSize = ReadEnvelope(stream.get(), spoolPath, envelope);

    const std::string dir = entryPrefix + std::to_string(sequence);
    if (::mkdir(dir.c_str(), 0770) != 0)
        bench::FailSystem("mkdir " + dir, errno);
    const std::string envelopePath = dir + "/.envelope";
    {
        bench::Fd file(::open(envelopePath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0660));
        if (!file.IsValid())
            bench::FailSystem("open " + envelopePath, errno);
        bench::WriteAll(file.Get(), envelope.data(), envelope.size(), envelopePath);
        file.Close(envelopePath);
    }
    const std::string msgPath = dir + "/.msg";
    CopyMessagePart(::fileno(stream.get()), spoolPath, envelopeSize, msgPath);

    const std::string answer = bench::AskDaemon(socketPath, dir);
    if (answer.compare(0, 2, "1 ") != 0 && answer != "1")
        throw std::runtime_error("daemon answered '" + answer + "' for " + dir + "; want 1");

    RemovePath(envelopePath, false);
    RemovePath(msgPath, false);
    // The daemon's record of its answer, which the filter tries to remove
    // too: only a kept entry has one.
    if (::unlink((dir + "/.decision").c_str()) != 0 && errno != ENOENT)
        bench::FailSystem("unlink " + dir + "/.decision", errno);
    RemovePath(dir, true);
    bench::WriteAll(1, Reply, sizeof Reply - 1, "standard output");
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: bench-floor BASEDIR < spool-paths\n", stderr);
        return 2;
    }
    try {
        const std::string base = bench::BaseDir(argv[1]);
        const std::string entries = base + "msgs";
        if (::mkdir(entries.c_str(), 0770) != 0 && errno != EEXIST)
            bench::FailSystem("mkdir " + entries, errno);
        const std::string entryPrefix = entries + "/floor." + std::to_string(::getpid()) + ".";
        const std::string socketPath = base + "quelt.sock";
        char line[4112];
        unsigned long sequence = 0;
        while (std::fgets(line, sizeof line, stdin) != nullptr) {
            std::size_t length = std::strlen(line);
            if (length > 0 && line[length - 1] == '\n')
                line[--length] = '\0';
            Check(line, entryPrefix, socketPath, ++sequence);
        }
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "bench-floor: %s\n", failure.what());
        return 1;
    }
}
