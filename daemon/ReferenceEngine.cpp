// daemon/ReferenceEngine.cpp: a streaming search in fixed blocks,
// keeping the tail of each block so that a string cut by a block boundary is
// still seen whole.
#include "ReferenceEngine.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string.h>
#include <unistd.h>
#include <vector>

#include "EngineSocket.h"

namespace
{

const char TestString[] = "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
constexpr std::size_t TestStringLength = sizeof TestString - 1;
static_assert(TestStringLength == 68, "the test string is 68 bytes");
constexpr std::size_t Overlap = TestStringLength - 1;
constexpr std::size_t BlockSize = 64 * 1024;

} // namespace

EngineResult ReferenceEngine::Check(int msg, const struct stat& /*status*/,
                                    const MessageEnvelope& /*envelope*/, Deadline /*deadline*/)
{
    EngineResult result;
    result.summary = "reference clean";
    std::vector<char> buffer(Overlap + BlockSize);
    std::size_t kept = 0;
    off_t offset = 0;
    for (;;) {
        const std::size_t count = ReadMessageAt(msg, buffer.data() + kept, BlockSize, offset);
        if (count == 0)
            return result;
        offset += static_cast<off_t>(count);
        std::size_t held = kept + count;
        if (::memmem(buffer.data(), held, TestString, TestStringLength) != nullptr) {
            result.finding = Finding::Reject;
            result.note = "infected: EICAR-Test-File";
            result.summary = "reference found EICAR-Test-File";
            return result;
        }
        kept = held < Overlap ? held : Overlap;
        std::memmove(buffer.data(), buffer.data() + held - kept, kept);
    }
}
