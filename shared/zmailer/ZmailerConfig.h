// shared/zmailer/ZmailerConfig.h: ZMailer's own configuration read the way
// ZMailer reads it, for the daemon's --check and the quarantine's release
// guard. zmailer.conf: NAME=value lines (quotes around a value dropped).
// smtpserver.conf: a line starting in its first column with PARAM, the
// parameter name in any case, "$NAME", "${NAME}" and "$(NAME)" taken from
// zmailer.conf. Reads files only; nothing here throws.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

using ZmailerVariables = std::map<std::string, std::string>;

// The zmailer.conf to read: given, else $ZCONFIG, else /etc/zmailer.conf.
std::string ZmailerConfPath(const std::string& given);

// All lines of path; false when it cannot be read.
bool ReadConfigLines(const std::string& path, std::vector<std::string>& lines);

ZmailerVariables ParseZmailerConf(const std::vector<std::string>& lines);

// Variables replaced by their values; unknown ones stay as written.
std::string ExpandZmailerVariables(const std::string& text, const ZmailerVariables& variables);

// Every "PARAM name ..." line of smtpserver.conf's lines (name in any
// case), in order, with its line number (from 1) and the words after the
// name, variables expanded.
struct ParamEntry {
    std::size_t line = 0;
    std::vector<std::string> words;
};
std::vector<ParamEntry> ParamEntries(const std::vector<std::string>& lines,
                                     const ZmailerVariables& variables, const std::string& name);

// Every "PARAM contentfilter PROGRAM" of smtpserver.conf's lines, in order,
// with its line number (from 1). smtpserver ignores an entry whose program
// is not executable and keeps the last good one.
struct ContentFilterEntry {
    std::size_t line = 0;
    std::string program;
};
std::vector<ContentFilterEntry> ContentFilterEntries(const std::vector<std::string>& lines,
                                                     const ZmailerVariables& variables);
