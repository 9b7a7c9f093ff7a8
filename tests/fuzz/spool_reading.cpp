// tests/fuzz/spool_reading.cpp: libFuzzer target over the spool reading path.
// The input becomes a spool file; ReadEnvelope and ScanHeaders run on it as
// the message job runs them, once without a configured hash and once with
// the value that follows the first "X-Vorex-Hash: " of the input, so that
// the removal of the hash header line is reached. Traps unless: a true
// result left the file as the input minus exactly one line as the reader
// read it (a chunk beginning "X-Vorex-Hash:"), a false result left it
// unchanged, a throw carries a documented text, and every address in the
// record is in the record's address form and names one address: each
// recipient becomes one "to" line of the envelope file.
#include <fcntl.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <stdexcept>
#include <string>

#include "OneAddress.h"
#include "frame/FilterSettings.h"
#include "platform/receiver/Mail.h"
#include "spool/EnvelopeReader.h"
#include "spool/HeaderScanner.h"

namespace
{

// Line reads take at most this many bytes, as fgets does with the readers'
// 8192-byte buffers.
constexpr std::size_t ChunkLimit = 8191;
const std::string HashName = "X-Vorex-Hash:";

std::string spoolPath;
char streamBuffer[8192];

void Trap(bool failed, const std::string& what)
{
    if (failed) {
        std::fprintf(stderr, "spool_reading: %s\n", what.c_str());
        std::abort();
    }
}

// True when after is before without one chunk [start, end) as the line
// reader cuts it (at each line feed and after 8191 bytes), the chunk
// beginning with the hash header's name.
bool OneHashLineRemoved(const std::string& before, const std::string& after)
{
    if (after.size() >= before.size())
        return false;
    for (std::size_t start = 0, end = 0; start < before.size(); start = end) {
        while (end < before.size() && end - start < ChunkLimit && before[end++] != '\n') {
        }
        if (before.size() - after.size() == end - start &&
            before.compare(start, HashName.size(), HashName) == 0 &&
            after == before.substr(0, start) + before.substr(end))
            return true;
    }
    return false;
}

// The one failure of healthy input, and the failed file calls of the removal
// (never expected on a healthy temp file, but documented if they happen).
const std::regex Documented("(lseek \\([12]\\)|fstat|truncate|ftell) error:.*|can not open file .*|"
                            "can not find rcpt\\(s\\) in envelope and msg|"
                            "can not copy body for delete our header");

void ScanOnce(const std::string& input, const std::string& hash)
{
    filterSettings.hash = hash;
    FILE* stream = std::fopen(spoolPath.c_str(), "w+");
    Trap(stream == nullptr ||
             std::setvbuf(stream, streamBuffer, _IOFBF, sizeof streamBuffer) != 0 ||
             std::fwrite(input.data(), 1, input.size(), stream) != input.size() ||
             std::fflush(stream) != 0 || std::fseek(stream, 0, SEEK_SET) != 0,
         "cannot write the spool file");
    Mail mail;
    bool senderFound = false, recipientFound = false, passed = false, threw = false;
    const int64_t envelopeSize = ReadEnvelope(stream, mail, senderFound, recipientFound);
    Trap(envelopeSize < 0 || static_cast<uint64_t>(envelopeSize) > input.size(),
         "envelope size outside the file");
    try {
        passed = ScanHeaders(stream, spoolPath.c_str(), mail, senderFound, recipientFound);
    } catch (const std::exception& failure) {
        threw = true;
        Trap(!std::regex_match(failure.what(), Documented),
             std::string("undocumented failure: ") + failure.what());
    }
    Trap(std::fclose(stream) != 0, "fclose");

    std::ifstream in(spoolPath, std::ios::binary);
    const std::string after(std::istreambuf_iterator<char>(in), {});
    if (passed) { // the record is left unfinished on this path
        Trap(!OneHashLineRemoved(input, after),
             "the file after a hash pass is not the input minus one hash header line");
        return;
    }
    Trap(after != input, "the file changed although no hash header was removed");
    if (threw)
        return;
    mail.recipients.push_back(mail.sender); // every address in the record
    for (const std::string& address : mail.recipients)
        Trap(!NamesOneAddress(address), "not one address in address form: " + address);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // A file without a name, in TMPDIR (scripts/fuzz picks a tmpfs), reached
    // by path through /proc: nothing is left behind, whatever way the fuzzer
    // ends.
    const char* tmp = std::getenv("TMPDIR");
    const int fd = ::open(tmp != nullptr ? tmp : "/tmp", O_TMPFILE | O_RDWR, 0600);
    Trap(fd < 0, "cannot make a scratch file");
    spoolPath = "/proc/self/fd/" + std::to_string(fd);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    ScanOnce(input, "");
    const std::size_t at = input.find(HashName + " ");
    if (at != std::string::npos) {
        // The configured hash comes from the command line: a C string.
        std::string hash =
            input.substr(at + HashName.size() + 1, input.find('\n', at) - at - HashName.size() - 1);
        hash.resize(std::strlen(hash.c_str()));
        if (!hash.empty())
            ScanOnce(input, hash);
    }
    return 0;
}
