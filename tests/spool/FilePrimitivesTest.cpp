// tests/spool/FilePrimitivesTest.cpp: CopyDescr between files, within one
// file, from and to pipes; the region size; the line-end test; the
// descriptor owner.
#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <stdexcept>

#include <gtest/gtest.h>

#include "platform/log/LogCapture.h"
#include "platform/receiver/Descriptor.h"
#include "platform/receiver/RfUtils.h"
#include "platform/receiver/VxFile.h"
#include "spool/SpoolRegions.h"
#include "support/SpoolStream.h"

namespace
{

int64_t Offset(int fd)
{
    return ::lseek(fd, 0, SEEK_CUR);
}

TEST(CopyDescr, BetweenTwoFilesCopiesExactlyCountFromBothOffsets)
{
    const std::string source = Pattern((1 << 20) + 17);
    const struct {
        const char* name;
        int64_t sourceOffset;
        std::string target; // before the copy
        int64_t targetOffset;
        int64_t count;
        bool ok;
    } rows[] = {
        {"nothing", 0, "keep", 4, 0, true},
        {"wholeFileLargerThanABlock", 0, "", 0, (1 << 20) + 17, true},
        {"fromBothOffsets", 5, "XYZ", 2, (1 << 20) + 12, true},
        {"partInsideTarget", 100, "0123456789", 3, 4, true},
        {"sourceShorterThanAsked", 10, "", 0, (1 << 20) + 8, false},
        {"negativeCount", 0, "", 0, -1, false},
    };
    for (const auto& row : rows) {
        TempDir dir;
        WriteFile(dir / "src", source);
        WriteFile(dir / "dst", row.target);
        Descriptor src(::open((dir / "src").c_str(), O_RDONLY));
        Descriptor dst(::open((dir / "dst").c_str(), O_WRONLY));
        ASSERT_TRUE(src.IsValid() && dst.IsValid()) << row.name;
        ASSERT_EQ(::lseek(src.Get(), row.sourceOffset, SEEK_SET), row.sourceOffset);
        ASSERT_EQ(::lseek(dst.Get(), row.targetOffset, SEEK_SET), row.targetOffset);

        EXPECT_EQ(VxFile::CopyDescr(src.Get(), dst.Get(), row.count, nullptr, nullptr), row.ok)
            << row.name;
        if (!row.ok)
            continue;
        std::string expected = row.target;
        expected.replace(row.targetOffset, row.count, source, row.sourceOffset, row.count);
        EXPECT_EQ(ReadFile(dir / "dst"), expected) << row.name;
        EXPECT_EQ(Offset(src.Get()), row.sourceOffset + row.count) << row.name;
        EXPECT_EQ(Offset(dst.Get()), row.targetOffset + row.count) << row.name;
    }
}

TEST(CopyDescr, WithinOneFileMovesTheRestUpOverAGap)
{
    const std::string original = Pattern((1 << 20) + 1000, 7);
    // Gaps below, at and above the copy block.
    for (int64_t gap : {int64_t(1), int64_t(40), int64_t(128 * 1024), int64_t(300 * 1000)}) {
        TempDir dir;
        const std::string path = dir / "file";
        WriteFile(path, original);
        const int64_t writeAt = 333;
        const int64_t readAt = writeAt + gap;
        const int64_t rest = static_cast<int64_t>(original.size()) - readAt;
        Descriptor reader(::open(path.c_str(), O_RDONLY));
        Descriptor writer(::open(path.c_str(), O_WRONLY));
        ASSERT_EQ(::lseek(reader.Get(), readAt, SEEK_SET), readAt);
        ASSERT_EQ(::lseek(writer.Get(), writeAt, SEEK_SET), writeAt);

        ASSERT_TRUE(VxFile::CopyDescr(reader.Get(), writer.Get(), rest, nullptr, nullptr)) << gap;
        const std::string moved = original.substr(0, writeAt) + original.substr(readAt);
        EXPECT_EQ(ReadFile(path).substr(0, moved.size()), moved) << "gap " << gap;
    }
}

class UpperCase : public CopyFilter
{
public:
    void Filter(char*& block, ssize_t& length) override
    {
        ++calls;
        for (ssize_t i = 0; i < length; ++i)
            block[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(block[i])));
    }
    int calls = 0;
};

TEST(CopyDescr, PipesAndFiltersTakeTheBlockLoop)
{
    TempDir dir;
    const std::string text = std::string(60000, 'a') + "end";
    WriteFile(dir / "src", text);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    Descriptor readEnd(ends[0]);
    Descriptor writeEnd(ends[1]);

    // File into pipe (fits the pipe's buffer, so no reader needs to run).
    Descriptor src(::open((dir / "src").c_str(), O_RDONLY));
    ASSERT_TRUE(VxFile::CopyDescr(src.Get(), writeEnd.Get(), 60003, nullptr, nullptr));
    ASSERT_EQ(writeEnd.Close(), 0);

    // Pipe into file through a filter; then the pipe is empty and closed.
    Descriptor dst(::open((dir / "dst").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
    UpperCase filter;
    ASSERT_TRUE(VxFile::CopyDescr(readEnd.Get(), dst.Get(), 60003, &filter, nullptr));
    EXPECT_GE(filter.calls, 1);
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
    const struct {
        int64_t pos;
        std::string expected;
    } rows[] = {
        {0, "100 DEBUG null - pos=0 size=100 -> need read 100 bytes\n"},
        {60, "40 DEBUG null - pos=60 size=100 -> need read 40 bytes\n"},
        {100, "0 DEBUG null - pos=100 size=100 -> need read 0 bytes\n"},
        {101, "logic_error: st.st_size(100)<pos(101)"},
        {-1, "logic_error: pos(-1)<0"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Remaining(file.Fd(), row.pos), row.expected);
        EXPECT_EQ(Offset(file.Fd()), 7) << row.pos;
    }
    EXPECT_EQ(Remaining(-1, 0),
              "domain_error: fstat error:Bad file descriptor for file with desc -1");
}

TEST(FileHelpers, BareLineEndAndDescriptorClose)
{
    const struct {
        const char* line;
        bool bare;
    } rows[] = {{"\n", true},   {"\r\n", true},  {"", false},     {"\r", false},
                {"x\n", false}, {"\n\n", false}, {nullptr, false}};
    for (const auto& row : rows)
        EXPECT_EQ(RfUtils::IsJustEol(row.line), row.bare) << (row.line ? row.line : "null");

    // A failed open is held too and closes to nothing; a held one is closed
    // exactly once, by Close or else by the destructor.
    EXPECT_EQ(Descriptor(-1).Close(), 0);
    int closedByDestructor;
    {
        Descriptor owner(::open("/dev/null", O_RDONLY));
        Descriptor other(::open("/dev/null", O_RDONLY));
        ASSERT_TRUE(owner.IsValid() && other.IsValid());
        EXPECT_EQ(owner.Close(), 0);
        EXPECT_EQ(owner.Close(), 0);
        closedByDestructor = other.Get();
    }
    errno = 0;
    EXPECT_EQ(::fcntl(closedByDestructor, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

} // namespace
