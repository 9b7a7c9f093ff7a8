// platform/log/VxNDC.cpp: VxNDC over log4cxx's nested diagnostic context.
#include "platform/log/VxNDC.h"

#include <log4cxx/ndc.h>

VxNDC::VxNDC(const std::string& context)
{
    log4cxx::NDC::push(context);
}

VxNDC::~VxNDC()
{
    log4cxx::NDC::pop();
}

namespace vorex
{
namespace quelt
{

std::string GetMsgNDC(const char* id, int32_t idLength, const char*, const char*)
{
    std::string context("msg ");
    if (id != nullptr && idLength > 0)
        context.append(id, static_cast<std::size_t>(idLength));
    return context;
}

} // namespace quelt
} // namespace vorex
