// tests/spool/SpoolUpdateTest.cpp: the daemon's copy written back over the
// message part, for copies of every size relation and a missing one, with the
// whole spool file compared after each.
#include <unistd.h>

#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "spool/SpoolRegions.h"
#include "spool/SpoolUpdate.h"
#include "support/SpoolStream.h"

namespace
{

const std::string envelope = "from <a@x>\nto <b@y>\nenv-end\n";
const std::string message = "Subject: s\n\nbody line\n";

TEST(SpoolUpdate, MessagePartBecomesTheCopyAndTheEnvelopeStays)
{
    const struct {
        const char* name;
        bool copyExists;
        std::string copy;
        std::string failure; // empty: the update succeeds and logs its sizes
    } rows[] = {
        {"sameSize", true, "Subject: S\n\nBODY line\n", ""},
        {"oneByteShorter", true, "Subject: s\n\nbody line", ""},
        {"larger", true, "X-Checked: yes\n" + message + Pattern((1 << 20) + 5, 9), ""},
        {"empty", true, "", ""},
        {"missingCopyTouchesNothing", false, message, "can not open file {copy} for readig"},
    };
    for (const auto& row : rows) {
        SpoolStream spool(envelope + message);
        ASSERT_NE(spool.Get(), nullptr);
        const std::string copyPath = spool.dir / ".msg";
        if (row.copyExists)
            WriteFile(copyPath, row.copy);
        // The job's steps: envelope, received size, seek, update.
        const EnvelopeRead read(spool.Get());
        const int64_t receivedSize = GetRemainingSize(spool.Fd(), read.size);
        ASSERT_EQ(::lseek(spool.Fd(), read.size, SEEK_SET), read.size);
        LogCapture log;

        std::string failure;
        try {
            EXPECT_EQ(
                UpdateSpoolFile(copyPath, spool.Fd(), receivedSize, spool.path.c_str(), read.size),
                0)
                << row.name;
            EXPECT_EQ(log.Text(), "DEBUG null - orig_size = " + std::to_string(message.size()) +
                                      " st.st_size=" + std::to_string(row.copy.size()) +
                                      " env_size=" + std::to_string(envelope.size()) + "\n")
                << row.name;
        } catch (const std::domain_error& e) {
            failure = e.what();
        }
        std::string expectedFailure = row.failure;
        if (!expectedFailure.empty())
            expectedFailure.replace(expectedFailure.find("{copy}"), 6, copyPath);
        EXPECT_EQ(failure, expectedFailure) << row.name;
        EXPECT_EQ(spool.Bytes(), envelope + row.copy) << row.name;
    }
}

} // namespace
