// tests/fuzz/spool_reading.cpp: libFuzzer target over the spool reading path.
// The input becomes a spool file; ReadEnvelope and ScanHeaders run on it as
// the message job runs them, once without a configured hash and once with
// the value that follows the first "X-Vorex-Hash: " of the input, so that
// the removal of the hash header line is reached. Traps unless: a true
// result left the file as the input minus exactly one line as the reader
// read it (a chunk beginning "X-Vorex-Hash:"), a false result left it
// unchanged, a throw carries a documented text, and every address in the
// record is in the record's address form.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

#include "frame/FilterSettings.h"
#include "platform/receiver/Mail.h"
#include "spool/EnvelopeReader.h"
#include "spool/HeaderScanner.h"

namespace
{

// Line reads take at most this many bytes, as fgets does with the readers'
// 8192-byte buffers.
constexpr std::size_t ChunkLimit = 8191;
const char HashPrefix[] = "X-Vorex-Hash: ";
const char HashName[] = "X-Vorex-Hash:";

std::string spoolPath;
char streamBuffer[8192];

[[noreturn]] void Fail(const char* what)
{
    std::fprintf(stderr, "spool_reading: %s\n", what);
    std::abort();
}

// True when after is before without one chunk [start, end) as the line
// reader cuts it (at each line feed and after 8191 bytes), the chunk
// beginning with the hash header's name.
bool OneHashLineRemoved(const std::string& before, const std::string& after)
{
    if (after.size() >= before.size())
        return false;
    const std::size_t removed = before.size() - after.size();
    std::size_t start = 0;
    while (start < before.size()) {
        std::size_t end = start;
        while (end < before.size() && end - start < ChunkLimit && before[end++] != '\n') {
        }
        if (end - start == removed && before.compare(start, std::strlen(HashName), HashName) == 0 &&
            after.compare(0, start, before, 0, start) == 0 &&
            after.compare(start, std::string::npos, before, end, std::string::npos) == 0)
            return true;
        start = end;
    }
    return false;
}

bool InAddressForm(const std::string& address)
{
    return address.size() >= 2 && address.front() == '<' && address.back() == '>' &&
           address.find('\n') == std::string::npos;
}

// The one failure of healthy input, and the failed file calls of the removal
// (never expected on a healthy temp file, but documented if they happen).
bool Documented(const std::string& text)
{
    if (text == "can not find rcpt(s) in envelope and msg" ||
        text == "can not copy body for delete our header")
        return true;
    for (const char* prefix : {"lseek (1) error:", "lseek (2) error:", "can not open file ",
                               "fstat error:", "truncate error:", "ftell error:"})
        if (text.rfind(prefix, 0) == 0)
            return true;
    return false;
}

void ScanOnce(const std::string& input, const std::string& hash)
{
    filterSettings.hash = hash;
    if (!std::ofstream(spoolPath, std::ios::binary)
             .write(input.data(), std::streamsize(input.size())))
        Fail("cannot write the spool file");
    FILE* stream = std::fopen(spoolPath.c_str(), "r+");
    if (stream == nullptr)
        Fail("cannot open the spool file");
    if (std::setvbuf(stream, streamBuffer, _IOFBF, sizeof streamBuffer) != 0)
        Fail("setvbuf");

    Mail mail;
    bool senderFound = false;
    bool recipientFound = false;
    const int64_t envelopeSize = ReadEnvelope(stream, mail, senderFound, recipientFound);
    if (envelopeSize < 0 || static_cast<uint64_t>(envelopeSize) > input.size())
        Fail("envelope size outside the file");

    bool passed = false;
    bool threw = false;
    try {
        passed = ScanHeaders(stream, spoolPath.c_str(), mail, senderFound, recipientFound);
    } catch (const std::exception& failure) {
        threw = true;
        if (!Documented(failure.what())) {
            std::fprintf(stderr, "undocumented failure: %s\n", failure.what());
            Fail("undocumented failure text");
        }
    }
    if (std::fclose(stream) != 0)
        Fail("fclose");

    std::ifstream in(spoolPath, std::ios::binary);
    const std::string after(std::istreambuf_iterator<char>(in), {});
    if (passed) {
        if (!OneHashLineRemoved(input, after))
            Fail("the file after a hash pass is not the input minus one hash header line");
        return; // the record is left unfinished on this path
    }
    if (after != input)
        Fail("the file changed although no hash header was removed");
    if (threw)
        return;
    if (!InAddressForm(mail.sender))
        Fail("sender not in address form");
    for (const std::string& recipient : mail.recipients)
        if (!InAddressForm(recipient))
            Fail("recipient not in address form");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr ? tmp : "/tmp") + "/vorex-fuzz-XXXXXX";
    if (::mkdtemp(&pattern[0]) == nullptr)
        Fail("mkdtemp");
    spoolPath = pattern + "/spool";
    // The directory goes when the fuzzer ends normally; a crash leaves it
    // for inspection.
    static const std::string dir = pattern;
    std::atexit([] {
        (void)::unlink(spoolPath.c_str()); // best effort: a scratch file
        (void)::rmdir(dir.c_str());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    ScanOnce(input, "");
    const std::size_t at = input.find(HashPrefix);
    if (at != std::string::npos) {
        const std::size_t from = at + std::strlen(HashPrefix);
        const std::size_t to = input.find('\n', from);
        std::string hash = input.substr(from, to == std::string::npos ? to : to - from);
        // The configured hash comes from the command line: a C string.
        hash.resize(std::strlen(hash.c_str()));
        if (!hash.empty())
            ScanOnce(input, hash);
    }
    return 0;
}
