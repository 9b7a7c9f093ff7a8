// frame/FilterSettings.cpp: the settings globals.
#include "frame/FilterSettings.h"

FilterSettings filterSettings;

std::string receiverId;
std::string logName;
std::string logFilename;

const char* const ProgramName = "vorex-zmailer";
const char* const VersionText = " - version 6.0.2.7";
