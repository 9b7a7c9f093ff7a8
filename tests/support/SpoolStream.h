// tests/support/SpoolStream.h: a spool file in a fresh temp directory, opened
// the way the message job opens it (stdio "r+", fully buffered, 8192 bytes);
// its envelope read as the job reads it; the record's addresses as one line;
// a byte pattern that never repeats a block, so a misplaced block shows.
#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

#include "frame/FilterSettings.h"
#include "platform/receiver/Mail.h"
#include "spool/EnvelopeReader.h"
#include "support/TempDir.h"

class SpoolStream
{
public:
    explicit SpoolStream(const std::string& bytes) : path(dir / "spool")
    {
        WriteFile(path, bytes);
        stream = std::fopen(path.c_str(), "r+");
        if (stream == nullptr || std::setvbuf(stream, buffer, _IOFBF, sizeof buffer) != 0)
            throw std::runtime_error("cannot open " + path);
    }
    ~SpoolStream() { (void)std::fclose(stream); } // read-only use in the tests

    FILE* Get() const { return stream; }
    int Fd() const { return ::fileno(stream); }
    std::string Bytes() const { return ReadFile(path); }

    TempDir dir;
    const std::string path;

private:
    char buffer[8192];
    FILE* stream = nullptr;
};

// The job's first step on a spool stream: the envelope into a fresh record.
struct EnvelopeRead {
    explicit EnvelopeRead(FILE* stream) : size(ReadEnvelope(stream, mail, sender, recipient)) {}
    Mail mail;
    bool sender = false, recipient = false; // found in the envelope
    int64_t size;
};

// The record's addresses on one line, for comparing: "<a@x> to <b@y> <c@z>".
inline std::string Addresses(const Mail& mail)
{
    std::string text = mail.sender + " to";
    for (const std::string& recipient : mail.recipients)
        text += " " + recipient;
    return text;
}

// A string literal with its NUL bytes: Literal("a\0b") has three bytes.
template <std::size_t N> std::string Literal(const char (&text)[N])
{
    return std::string(text, N - 1);
}

inline std::string Pattern(std::size_t size, uint32_t seed = 1)
{
    std::string bytes(size, '\0');
    for (char& byte : bytes) // the next value of a linear congruential sequence
        byte = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
    return bytes;
}
