// quarantine/RouterQueue.cpp: ZMailer's folders are root's; each is opened
// once, without following a link, and everything after goes through those
// descriptors.
#include "RouterQueue.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "shared/zmailer/ReleaseMark.h"
#include "shared/zmailer/ZmailerConfig.h"

namespace
{

// Marks older than this are left over from releases the router stage never
// saw (none is installed): a release is routed within seconds.
const std::chrono::hours MarkAge(24);

Fd OpenFolder(int parentFd, const std::string& name, const std::string& path)
{
    Fd folder(::openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder.IsValid())
        throw std::domain_error("open " + path + " error:" + std::strerror(errno));
    return folder;
}

// The envelope lines of ZMailer's queue files: the null sender is
// "channel error", as smtpserver writes it.
std::string Envelope(const std::string& sender, const std::vector<std::string>& recipients)
{
    std::string text = sender == "<>" ? "channel error\n" : "from " + sender + "\n";
    for (const std::string& recipient : recipients)
        text += "to " + recipient + "\n";
    return text + "env-end\n";
}

bool CopyMessage(int from, off_t offset, off_t length, int to)
{
    while (length > 0) {
        const ssize_t count = ::sendfile(to, from, &offset, static_cast<std::size_t>(length));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        length -= count;
    }
    return true;
}

// The temporary file in public/, removed unless Keep was called.
struct TemporaryName {
    int dirFd;
    std::string name;
    bool kept = false;
    ~TemporaryName()
    {
        if (!kept)
            (void)::unlinkat(dirFd, name.c_str(), 0); // gone already: fine
    }
};

} // namespace

RouterQueue FindRouterQueue(const std::string& zmailerConf)
{
    const std::string conf = ZmailerConfPath(zmailerConf);
    std::vector<std::string> lines;
    if (!ReadConfigLines(conf, lines))
        throw std::invalid_argument(
            "no ZMailer configuration at " + conf + " (" + std::strerror(errno) +
            "; looked at --zmailer-conf, else $ZCONFIG, else /etc/zmailer.conf): "
            "give its place with --zmailer-conf");
    const ZmailerVariables variables = ParseZmailerConf(lines);
    const auto found = variables.find("POSTOFFICE");
    if (found == variables.end() || found->second.empty())
        throw std::invalid_argument(conf + " names no POSTOFFICE: the router queue is unknown");
    RouterQueue queue;
    queue.postofficePath = found->second;
    queue.postoffice = Fd(::open(queue.postofficePath.c_str(),
                                 O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!queue.postoffice.IsValid())
        throw std::domain_error("open " + queue.postofficePath + " (POSTOFFICE in " + conf +
                                ") error:" + std::strerror(errno));
    queue.publicDir = OpenFolder(queue.postoffice.Get(), "public", queue.postofficePath + "/public");
    queue.router = OpenFolder(queue.postoffice.Get(), "router", queue.postofficePath + "/router");
    return queue;
}

std::string QueueRelease(const RouterQueue& queue, const std::string& entry,
                         const std::string& sender, const std::vector<std::string>& recipients,
                         int messageFd, off_t offset, off_t length)
{
    const std::string marksPath = queue.postofficePath + "/" + ReleaseMarkFolder;
    const Fd marks = OpenReleaseMarks(queue.postoffice.Get(), marksPath, true);
    SweepReleaseMarks(marks.Get(), MarkAge);

    TemporaryName temporary{queue.publicDir.Get(),
                            "vorex-release." + std::to_string(::getpid()) + "." +
                                std::to_string(std::chrono::steady_clock::now()
                                                   .time_since_epoch()
                                                   .count())};
    const std::string where = queue.postofficePath + "/public/" + temporary.name;
    Fd file(::openat(queue.publicDir.Get(), temporary.name.c_str(),
                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.IsValid()) {
        temporary.kept = true; // not ours: never removed
        throw std::domain_error("create " + where + " error:" + std::strerror(errno));
    }
    const std::string envelope = Envelope(sender, recipients);
    if (!WriteAll(file.Get(), envelope.data(), envelope.size()) ||
        !CopyMessage(messageFd, offset, length, file.Get()) || ::fsync(file.Get()) != 0)
        throw std::domain_error("write " + where + " error:" + std::strerror(errno));

    struct stat status;
    if (::fstat(file.Get(), &status) != 0)
        throw std::domain_error("fstat " + where + " error:" + std::strerror(errno));
    const std::string name = std::to_string(status.st_ino);
    WriteReleaseMark(marks.Get(), file.Get(), entry);
    if (::renameat2(queue.publicDir.Get(), temporary.name.c_str(), queue.router.Get(),
                    name.c_str(), RENAME_NOREPLACE) != 0) {
        const std::string fault = "rename " + where + " to " + queue.postofficePath + "/router/" +
                                  name + " error:" + std::strerror(errno);
        DropReleaseMark(marks.Get(), file.Get());
        throw std::domain_error(fault);
    }
    temporary.kept = true;
    (void)::fsync(queue.router.Get()); // the rename is done; a lost sync is the kernel's to redo
    return name;
}
