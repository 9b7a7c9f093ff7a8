// spool/SpoolRegions.h: GetRemainingSize, the size of a spool file's region
// from a position to its end. Reads file status only; moves no offset.
// Throws std::domain_error if fstat fails, std::logic_error if pos > size
// or pos < 0.
#pragma once

#include <cstdint>

int64_t GetRemainingSize(int fd, int64_t pos);
