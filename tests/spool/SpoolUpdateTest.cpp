// tests/spool/SpoolUpdateTest.cpp: the write-back of a changed message on a
// spool file system that is full, mounted small by the test (tmpfs in a
// mount namespace of the test's own; needs root).
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "platform/receiver/Descriptor.h"
#include "spool/SpoolUpdate.h"
#include "support/SpoolStream.h"

namespace
{

const std::string Envelope = "from <alice@example.org>\nto <bob@example.net>\nenv-end\n";
constexpr std::size_t Message = 40 * 1024 + 7;

// Fills the file system of dir up to its last block.
void Fill(const std::string& path)
{
    Descriptor filler(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
    const std::string block(4096, 'f');
    while (::write(filler.Get(), block.data(), block.size()) > 0) {
    }
    while (::write(filler.Get(), block.data(), 1) > 0) {
    }
}

TEST(SpoolUpdate, FullDiskFailsBeforeTheMessageChanges)
{
    if (::geteuid() != 0)
        GTEST_FAIL() << "needs root to mount the small file system";
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);

    const std::string original = Envelope + Pattern(Message, 1);
    const struct {
        const char* name;
        std::size_t copySize; // the daemon's changed message
        bool full;            // the spool's file system filled up first
        bool written;         // else refused, the spool file untouched
    } rows[] = {
        {"grows past the free space", Message + 8 * 1024 + 100, true, false},
        {"grows within the free space", Message + 8 * 1024 + 100, false, true},
        {"same size on a full disk", Message, true, true},
        {"shrinks on a full disk", Message - 5000, true, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TempDir mount, entry;
        ASSERT_EQ(::mount("tmpfs", mount.Path().c_str(), "tmpfs", 0, "size=256k"), 0);
        const std::string spoolPath = mount / "spool", copyPath = entry / ".msg";
        const std::string copy = Pattern(row.copySize, 2);
        WriteFile(spoolPath, original);
        WriteFile(copyPath, copy);
        if (row.full)
            Fill(mount / "filler");

        LogCapture log;
        Descriptor spool(::open(spoolPath.c_str(), O_RDWR));
        ASSERT_EQ(::lseek(spool.Get(), Envelope.size(), SEEK_SET), int64_t(Envelope.size()));
        const int64_t finalSize = Envelope.size() + row.copySize;
        if (row.written) {
            EXPECT_EQ(
                UpdateSpoolFile(copyPath, spool.Get(), Message, spoolPath.c_str(), Envelope.size()),
                0);
            EXPECT_TRUE(ReadFile(spoolPath) == Envelope + copy) << "the new message";
        } else {
            try {
                (void)UpdateSpoolFile(copyPath, spool.Get(), Message, spoolPath.c_str(),
                                      Envelope.size());
                ADD_FAILURE() << "no failure";
            } catch (const std::domain_error& failure) {
                EXPECT_STREQ(failure.what(), "can not copy new body");
            }
            EXPECT_TRUE(ReadFile(spoolPath) == original) << "the spool file changed";
            EXPECT_NE(log.Text().find("ERROR null - can not reserve " + std::to_string(finalSize) +
                                      " bytes for the spool file:No space left on device\n"),
                      std::string::npos)
                << log.Text();
        }
        spool.Reset(-1);
        ASSERT_EQ(::umount2(mount.Path().c_str(), MNT_DETACH), 0);
    }
}

} // namespace
