// frame/Options.h: the command line. ParseOptions fills the settings record
// and the program-wide strings, brings logging up and keeps the error action.
// Throws on every failure; ends the process itself after --help or --version.
#pragma once

#include "frame/FilterSettings.h"

void ParseOptions(int argc, char** argv, FilterSettings& settings);
