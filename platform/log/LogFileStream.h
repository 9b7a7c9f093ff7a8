// platform/log/LogFileStream.h: the log file, opened so that nobody but root
// and the filter's own user can have chosen what it is, and the log4cxx
// output stream that writes to that descriptor. The file is opened once;
// the back end never opens it by name again.
// OpenLogFile returns -1 with a cause; nothing here throws except the
// stream's write, which throws log4cxx's IOException as its file stream does.
#pragma once

#include <string>

#include <log4cxx/helpers/outputstream.h>

// Opens path for appending (made with mode 0640 when missing) without
// following a link and without blocking on what is not a regular file.
// Refused: a directory that anyone but root and the effective user may
// write (owner root or the effective user, no group or other write bit), and
// a file that is not a regular file of the effective user with one link (or a
// character device of root's, such as /dev/null).
int OpenLogFile(const std::string& path, std::string& cause);

// A stream that appends every buffer to fd, whole, and closes fd when it is
// closed or destroyed. Takes fd.
log4cxx::helpers::OutputStreamPtr MakeDescriptorStream(int fd);
