// frame/FilterSettings.h: the settings record and the program-wide strings,
// filled once by ParseOptions at start-up and read by the rest of the program.
// Only the driver writes after that, and only uid and gid.
#pragma once

#include <cstdint>
#include <string>

struct FilterSettings {
    int32_t interface = 0;   // 0 or 1: whether "#hungry\n" goes before each read
    std::string file;        // router-stage mode: the one spool file
    int32_t timeout = 0;     // seconds, handed to the Receiver
    std::string basedir;     // the daemon's base directory, always ending in "/"
    int32_t errorAction = 0; // action code answered when processing fails
    std::string user;        // account of the checking daemon
    std::string hash;        // secret of the X-Vorex-Hash header
    int32_t uid = -1;        // ids of user; -1 until the driver resolves them
    int32_t gid = -1;
};

extern FilterSettings filterSettings;

extern std::string receiverId;
extern std::string logName;
extern std::string logFilename;

extern const char* const ProgramName;
extern const char* const VersionText;
