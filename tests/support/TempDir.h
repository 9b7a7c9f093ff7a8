// tests/support/TempDir.h: a fresh directory under the system's temporary
// directory, removed with everything in it when the object goes; and small
// whole-file helpers for comparing exact bytes and modes.
#pragma once

#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <string>

#include <boost/filesystem.hpp>

class TempDir
{
public:
    TempDir()
        : path(boost::filesystem::temp_directory_path() /
               boost::filesystem::unique_path("vorex-test-%%%%-%%%%-%%%%"))
    {
        boost::filesystem::create_directory(path);
        // 0755 whatever the umask (the coverage run uses 0): the daemon's
        // --check refuses a base directory anybody may write.
        boost::filesystem::permissions(path, boost::filesystem::perms(0755));
    }
    ~TempDir()
    {
        boost::system::error_code ignored; // best effort: a test's leftovers
        boost::filesystem::remove_all(path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const boost::filesystem::path& Path() const { return path; }
    std::string operator/(const std::string& name) const { return (path / name).string(); }

private:
    const boost::filesystem::path path;
};

inline void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes; // NUL bytes and all
}

inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// The permission bits of path itself (a final link is not followed);
// 07777 for a path that is not there.
inline mode_t ModeOf(const std::string& path)
{
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 07777;
}
