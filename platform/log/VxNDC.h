// platform/log/VxNDC.h: the per-message log context. A VxNDC pushes its text
// on the nested diagnostic context (%x of the line pattern) for as long as it
// lives; GetMsgNDC makes that text from a message id.
#pragma once

#include <cstdint>
#include <string>

class VxNDC
{
public:
    explicit VxNDC(const std::string& context);
    ~VxNDC();
    VxNDC(const VxNDC&) = delete;
    VxNDC& operator=(const VxNDC&) = delete;
};

namespace vorex
{
namespace quelt
{

// The context text for a message: "msg " and the first idLength bytes of id.
// The two further texts of the suite's signature are accepted and unused.
std::string GetMsgNDC(const char* id, int32_t idLength, const char* unusedA, const char* unusedB);

} // namespace quelt
} // namespace vorex
