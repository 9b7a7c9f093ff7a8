// daemon/EngineSocket.h: the one way the daemon talks to an engine
// or a client: an address resolved once at start (a Unix socket path or
// HOST:PORT), a connect and every read and write bounded by a deadline.
// Failures throw std::domain_error with the system text after the colon;
// a deadline passed throws std::domain_error "... timed out".
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <sys/socket.h>
#include <sys/types.h>

#include "shared/fd/Fd.h"

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

struct EngineAddress {
    std::string text; // as given, for messages
    sockaddr_storage address;
    socklen_t length = 0;
    bool isUnix = false;
};

// Resolves text: a path (it starts with "/") or HOST:PORT (numeric or by
// name, resolved now, never on the message path). Throws
// std::invalid_argument for a bad address.
EngineAddress ResolveEngineAddress(const std::string& text);

// The Unix socket at path (absolute or relative); throws
// std::invalid_argument when the path is too long for a socket address.
EngineAddress UnixSocketAddress(const std::string& path);

// A connected non-blocking stream socket to address.
Fd ConnectWithDeadline(const EngineAddress& address, Deadline deadline);

// Writes all length bytes. False when the peer has closed its end (EPIPE,
// ECONNRESET): the caller may still read the peer's last words. Throws
// "send timed out" once deadline has passed, even while the peer keeps
// taking bytes (so does SendFileContents).
bool SendAll(int socket, const char* data, std::size_t length, Deadline deadline);

// Sends length bytes of file from offset 0 without copying them into memory.
// False when the peer has closed its end.
bool SendFileContents(int socket, int file, std::size_t length, Deadline deadline);

// Sends one byte carrying descriptor as SCM_RIGHTS.
void SendDescriptor(int socket, int descriptor, Deadline deadline);

// Reads what is there, at most length bytes; 0 at the peer's end of stream.
// Throws "receive timed out" once deadline has passed, even while bytes keep
// coming.
std::size_t ReceiveSome(int socket, char* buffer, std::size_t length, Deadline deadline);

// Up to length bytes of the message file msg from offset, retrying an
// interrupted read; 0 at its end. Throws std::domain_error ("read error:").
std::size_t ReadMessageAt(int msg, char* buffer, std::size_t length, off_t offset);

// Milliseconds left until deadline, at least 0 (for poll).
int MillisecondsLeft(Deadline deadline);
