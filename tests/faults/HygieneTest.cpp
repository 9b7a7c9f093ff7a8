// tests/faults/HygieneTest.cpp: the filter under hostile input and a careless
// parent: the secure-hash comparison gives a plain comparison's answer, job
// lines are only ever paths (never a command or a format), and what the
// filter creates is never world-readable, whatever umask it inherited.
#include <sys/stat.h>

#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "spool/HeaderScanner.h"
#include "support/FilterSandbox.h"
#include "support/RefDaemon.h"
#include "support/SpoolStream.h"

namespace
{

namespace fs = boost::filesystem;

const std::string Headers = "From: alice@example.org\nTo: bob@example.net\n";
const std::string Body = "\nbody\n";

// The gate's answer for a hash header carrying value, with hash configured:
// true when it passed, and then the line must be gone; false when the
// message goes on to the daemon with the file untouched.
bool HashPasses(const std::string& value, const std::string& hash)
{
    const std::string spool = "env-end\n" + Headers + "X-Vorex-Hash: " + value + "\n" + Body;
    SpoolStream file(spool);
    const HashSetting setting(hash);
    EnvelopeRead read(file.Get());
    const bool passed = ScanHeaders(file.Get(), file.path.c_str(), read.mail, read.senderFound,
                                    read.recipientFound);
    EXPECT_EQ(file.Bytes(), passed ? "env-end\n" + Headers + Body : spool) << "'" << value << "'";
    return passed;
}

TEST(HashComparison, EqualOnlyWithTheSameLengthAndBytes)
{
    const struct {
        const char* name;
        std::string value;
        std::string hash;
        bool passes;
    } rows[] = {
        {"same", "s3cret-hash-value", "s3cret-hash-value", true},
        {"firstByteDiffers", "x3cret-hash-value", "s3cret-hash-value", false},
        {"lastByteDiffers", "s3cret-hash-valuX", "s3cret-hash-value", false},
        {"valueIsAPrefix", "s3cret-hash-valu", "s3cret-hash-value", false},
        {"hashIsAPrefix", "s3cret-hash-value2", "s3cret-hash-value", false},
        {"emptyValue", "", "s3cret-hash-value", false},
        {"highBitOnly", "s3cret-hash-valu\xe5", "s3cret-hash-valu\x65", false},
        {"bothEmpty", "", "", true},
        {"valueWithoutHash", "s3cret", "", false},
    };
    for (const auto& row : rows)
        EXPECT_EQ(HashPasses(row.value, row.hash), row.passes) << row.name;
}

class HostileRun : public ::testing::Test, protected FilterSandbox
{
protected:
    HostileRun() { fs::create_directories(work); }

    std::vector<std::string> Args() const
    {
        return FilterSandbox::Args({"--level", "debug", "-e", "tempfail"});
    }

    const std::string work = root + "/work";
};

TEST_F(HostileRun, JobLinesAreOnlyPaths)
{
    RefDaemon daemon(basedir, {"--verdict", "1"});
    const std::string lines[] = {"$(touch x)", "`touch x`",    "; touch x",
                                 "| touch x",  "%n%s%s%s%s%n", "%x%x%x%x"};
    for (const std::string& line : lines) {
        const RunResult run = RunProgram(Args(), line + "\n", work);
        EXPECT_EQ(run.out, Hungry + TempfailLine + " Internal error\n") << line;
        EXPECT_EQ(run.err, "error: can not open file " + line +
                               " for read/write:No such file or directory\n")
            << line;
        EXPECT_EQ(run.status, 1) << line;
        EXPECT_TRUE(fs::is_empty(work)) << line << ": something was made in the working directory";
        // The debug line quotes the job line as it came.
        EXPECT_NE(ReadFile(basedir + "zmailer.log").find(" - file - '" + line + "'\n"),
                  std::string::npos)
            << line;
    }
}

// The filter sets its own umask (002); a parent with umask 0 must not make
// anything of the filter's world-readable or world-writable.
TEST_F(HostileRun, CreatedFilesAreNeverWorldReadable)
{
    RefDaemon daemon(basedir, {"--verdict", "2"}); // reject: the entry stays
    const std::string spool = Spool(
        "spool", "from <alice@example.org>\nto <bob@example.net>\nenv-end\n" + Headers + Body);

    const mode_t parentMask = ::umask(0);
    ChildProcess filter(Args(), work);
    (void)::umask(parentMask);
    filter.Write(spool + "\n");
    std::string out;
    ASSERT_EQ(filter.Wait(&out), 0);
    ASSERT_EQ(out, Hungry + RejectLine + "\n" + Hungry);

    std::vector<fs::path> entries(fs::directory_iterator(fs::path(basedir) / "msgs"), {});
    ASSERT_EQ(entries.size(), 1u);
    const std::string entry = entries.front().string();
    const struct {
        std::string path;
        mode_t mode;
    } rows[] = {
        {entry, 0770},
        {entry + "/.envelope", 0660},
        {entry + "/.msg", 0660},
    };
    for (const auto& row : rows)
        EXPECT_EQ(ModeOf(row.path), row.mode) << row.path;
    EXPECT_EQ(ModeOf(basedir + "zmailer.log") & 0007, 0u) << "the log file";
    EXPECT_EQ(ModeOf(basedir + "msgs") & 0007, 0u) << "the entries folder";
}

} // namespace
