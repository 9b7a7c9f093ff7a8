// tests/spool/FilePrimitivesTest.cpp: CopyDescr between files, within one
// file, from and to pipes; the region size; the descriptor owner.
#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "platform/receiver/Descriptor.h"
#include "platform/receiver/VxFile.h"
#include "spool/SpoolRegions.h"
#include "support/SpoolStream.h"

namespace
{

int64_t Offset(int fd)
{
    return ::lseek(fd, 0, SEEK_CUR);
}

// Into a second file, or within the source itself: the rest moved up over
// gaps below, at and above the copy block.
TEST(CopyDescr, CopiesExactlyCountFromBothOffsets)
{
    constexpr int64_t N = (1 << 20) + 17, K = 128 * 1024;
    const std::string source = Pattern(N);
    const struct {
        int64_t sourceOffset;
        const char* target; // before the copy; nullptr: the source file itself
        int64_t targetOffset, count;
        bool ok;
    } rows[] = {
        // clang-format off
        {0, "keep", 4, 0, true},   {0, "", 0, N, true},   {5, "XYZ", 2, N - 5, true},
        {100, "0123456789", 3, 4, true}, {10, "", 0, N - 2, false}, {0, "", 0, -1, false},
        {334, nullptr, 333, N - 334, true}, {373, nullptr, 333, N - 373, true},
        {333 + K, nullptr, 333, N - 333 - K, true}, {300333, nullptr, 333, N - 300333, true},
        // clang-format on
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.sourceOffset) + " " + std::to_string(row.count));
        TempDir dir;
        const std::string target = row.target ? dir / "dst" : dir / "src";
        WriteFile(dir / "src", source);
        if (row.target)
            WriteFile(target, row.target);
        Descriptor src(::open((dir / "src").c_str(), O_RDONLY)),
            dst(::open(target.c_str(), O_WRONLY));
        ASSERT_EQ(::lseek(src.Get(), row.sourceOffset, SEEK_SET), row.sourceOffset);
        ASSERT_EQ(::lseek(dst.Get(), row.targetOffset, SEEK_SET), row.targetOffset);
        EXPECT_EQ(VxFile::CopyDescr(src.Get(), dst.Get(), row.count, nullptr, nullptr), row.ok);
        if (!row.ok)
            continue;
        std::string expected = row.target ? row.target : source;
        expected.replace(row.targetOffset, row.count, source, row.sourceOffset, row.count);
        EXPECT_TRUE(ReadFile(target) == expected);
        EXPECT_EQ(Offset(src.Get()), row.sourceOffset + row.count);
        EXPECT_EQ(Offset(dst.Get()), row.targetOffset + row.count);
    }
}

class UpperCase : public CopyFilter
{
public:
    void Filter(char*& block, ssize_t& length) override
    {
        for (ssize_t i = 0; i < length; ++i)
            block[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(block[i])));
    }
};

// File into a pipe (fits its buffer, so no reader needs to run), then pipe
// into a file through a filter; then the pipe is empty and closed.
TEST(CopyDescr, PipesAndFiltersTakeTheBlockLoop)
{
    TempDir dir;
    WriteFile(dir / "src", std::string(60000, 'a') + "end");
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    Descriptor readEnd(ends[0]), writeEnd(ends[1]), src(::open((dir / "src").c_str(), O_RDONLY));
    ASSERT_TRUE(VxFile::CopyDescr(src.Get(), writeEnd.Get(), 60003, nullptr, nullptr));
    ASSERT_EQ(writeEnd.Close(), 0);
    Descriptor dst(::open((dir / "dst").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
    UpperCase filter;
    ASSERT_TRUE(VxFile::CopyDescr(readEnd.Get(), dst.Get(), 60003, &filter, nullptr));
    EXPECT_EQ(ReadFile(dir / "dst"), std::string(60000, 'A') + "END");
    EXPECT_FALSE(VxFile::CopyDescr(readEnd.Get(), dst.Get(), 1, nullptr, nullptr));
}

// GetRemainingSize's answer as text: the size and the line it logs, or the
// kind and text of what it throws.
std::string Remaining(int fd, int64_t pos)
{
    LogCapture log;
    try {
        const int64_t size = GetRemainingSize(fd, pos);
        return std::to_string(size) + " " + log.Text();
    } catch (const std::domain_error& e) {
        return std::string("domain_error: ") + e.what();
    } catch (const std::logic_error& e) {
        return std::string("logic_error: ") + e.what();
    }
}

TEST(GetRemainingSize, CountsFromPositionToEndWithoutMovingTheOffset)
{
    SpoolStream file(std::string(100, 'x'));
    ASSERT_EQ(::lseek(file.Fd(), 7, SEEK_SET), 7);
    const std::string debug = "DEBUG null - pos=";
    const int fd = file.Fd();
    const struct {
        int fd;
        int64_t pos;
        std::string expected;
    } rows[] = {
        {fd, 0, "100 " + debug + "0 size=100 -> need read 100 bytes\n"},
        {fd, 100, "0 " + debug + "100 size=100 -> need read 0 bytes\n"},
        {fd, 101, "logic_error: st.st_size(100)<pos(101)"},
        {fd, -1, "logic_error: pos(-1)<0"},
        {-1, 0, "domain_error: fstat error:Bad file descriptor for file with desc -1"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Remaining(row.fd, row.pos), row.expected);
        EXPECT_EQ(Offset(fd), 7) << row.pos;
    }
}

// A held descriptor is closed exactly once, by Close or else by the
// destructor (a second close could hit a descriptor opened since); a failed
// open closes to 0.
TEST(Descriptor, ClosesOnce)
{
    EXPECT_EQ(Descriptor(-1).Close(), 0);
    int closedByDestructor;
    {
        Descriptor owner(::open("/dev/null", O_RDONLY)), other(::open("/dev/null", O_RDONLY));
        EXPECT_EQ(owner.Close() + owner.Close(), 0);
        closedByDestructor = other.Get();
    }
    errno = 0;
    EXPECT_EQ(::fcntl(closedByDestructor, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
