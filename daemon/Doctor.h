// daemon/Doctor.h: "quelt-refd --check", a test of the whole
// set-up: the daemon's options (from the command line when it gives any
// daemon option, else as the unit reads them from /etc/default/quelt-refd),
// the account, the layout, each engine's ping, the running daemon's answer,
// a virus and a spam test message through the installed filter, and
// ZMailer's configuration where ZMailer is installed. Prints one line per
// finding (CheckReport) and returns the exit status: 0 only when no PROBLEM.
#pragma once

#include <boost/program_options.hpp>

int RunDoctor(const boost::program_options::variables_map& given);
