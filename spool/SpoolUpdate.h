// spool/SpoolUpdate.h: UpdateSpoolFile writes the daemon's changed message
// copy back over the spool file's message part, in place (ZMailer holds the
// inode). spoolFd must already stand at envelopeSize. A copy larger than
// receivedSize plus 1 MiB (the daemon's header lines), or with a hole, is
// refused before the spool file is touched, and so is a copy for which the
// spool's file system has no room (the cause logged at error level).
// Returns fsync's result; throws std::domain_error on every other failure.
#pragma once

#include <cstdint>
#include <string>

int UpdateSpoolFile(const std::string& copyPath, int spoolFd, int64_t receivedSize,
                    const char* spoolPath, int64_t envelopeSize);
