// platform/receiver/RfUtils.cpp: the line-end test.
#include "platform/receiver/RfUtils.h"

#include <cstring>

bool RfUtils::IsJustEol(const char* line)
{
    return line != nullptr && (std::strcmp(line, "\n") == 0 || std::strcmp(line, "\r\n") == 0);
}
