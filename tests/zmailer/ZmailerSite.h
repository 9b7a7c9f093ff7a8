// tests/zmailer/ZmailerSite.h: the real ZMailer 3.0.1 (built from
// ../shared/zmailer/ into ZMAILER_PREFIX) with our programs installed as an
// administrator installs them, all of it private to this test process.
//
// EnterInstalledView, called once before any thread starts, moves the
// process into a mount namespace of its own and lays overlays over /etc,
// /usr/local and /var: there the README's from-source steps run for real
// (cmake --install, the vorex account, /var/vorex, /etc/vorex/secure-hash),
// invisible to the rest of the machine and gone with the process.
// ZmailerSite is one ZMailer tree in a fresh directory (its own zmailer.conf,
// $MAILSHARE, $MAILVAR and $POSTOFFICE, the programs from the prefix):
// smtpserver on a free loopback port, the router, the queue folders.
#pragma once

#include <signal.h>
#include <sched.h>
#include <sys/mount.h>

#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "quelt-refd/Engines.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

namespace zmailer_test
{

namespace fs = boost::filesystem;

const std::string Prefix = ZMAILER_PREFIX;
const std::string Secret = "a9f3c1e07b2d4c5e8f60718293a4b5c6";
const std::string FilterConf = "/usr/local/etc/vorex/zmailer-filter.conf";
const std::string FilterLog = "/var/log/vorex-zmailer.log";

// The last lines of a log file, for a failure message.
inline std::string Tail(const std::string& path, std::size_t lines = 15)
{
    const std::string text = ReadFile(path);
    std::size_t at = text.size();
    for (std::size_t seen = 0; at > 0 && seen <= lines; --at)
        seen += text[at - 1] == '\n';
    return "last lines of " + path + ":\n" + text.substr(at);
}

inline void Run(const std::vector<std::string>& argv)
{
    ChildProcess child(argv);
    std::string out, err;
    if (child.Wait(&out, &err) != 0)
        throw std::runtime_error(argv[0] + " " + argv[1] + " failed: " + out + err);
}

// Starts a program that puts itself into the background (smtpserver, the
// router), its output appended to logPath: the daemon it leaves behind keeps
// that output open, so a pipe would never end. Throws unless it exits 0.
inline void StartDaemon(const std::vector<std::string>& argv, const std::string& logPath)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, logPath.c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    std::vector<char*> args = ChildProcess::Pointers(argv);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = -1;
    if (rc != 0 || ::waitpid(pid, &status, 0) != pid || status != 0)
        throw std::runtime_error(argv[0] + " did not start (status " + std::to_string(status) +
                                 "); " + Tail(logPath));
}

// The overlays' upper folders, removed at exit (after the namespace went).
inline fs::path& ViewDir()
{
    static fs::path dir;
    return dir;
}

inline void EnterInstalledView(const std::string& cmake, const std::string& buildDir)
{
    if (!fs::exists(Prefix + "/.built"))
        throw std::runtime_error("no ZMailer build in " + Prefix +
                                 ": run ../shared/zmailer/build.sh (scripts/test does)");
    ViewDir() = fs::temp_directory_path() / fs::unique_path("vorex-view-%%%%-%%%%");
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr))
        throw std::runtime_error("no mount namespace for the installed view (run as root)");
    for (const char* lower : {"/etc", "/usr/local", "/var"}) {
        const fs::path upper = ViewDir() / lower / "upper", work = ViewDir() / lower / "work";
        fs::create_directories(upper);
        fs::create_directories(work);
        const std::string options = std::string("lowerdir=") + lower + ",upperdir=" +
                                    upper.string() + ",workdir=" + work.string();
        if (::mount("overlay", lower, "overlay", 0, options.c_str()) != 0)
            throw std::runtime_error(std::string("cannot lay an overlay over ") + lower);
    }
    // The README's install from source, then what the package's scripts
    // would have done.
    Run({cmake, "--install", buildDir, "--prefix", "/usr/local"});
    Run({"/usr/sbin/adduser", "--system", "--group", "--home", "/var/vorex", "--no-create-home",
         "--quiet", "vorex"});
    Run({"/usr/bin/install", "-d", "-o", "root", "-g", "vorex", "-m", "0750", "/var/vorex"});
    Run({"/usr/bin/install", "-d", "-o", "root", "-g", "vorex", "-m", "1770", "/var/vorex/msgs"});
    Run({"/usr/bin/install", "-d", "-m", "0755", "/etc/vorex"});
    WriteFile("/etc/vorex/secure-hash", Secret + "\n");
    fs::permissions("/etc/vorex/secure-hash", fs::perms(0600));
    // The shipped options with a shorter --timeout (the silent-daemon row
    // waits for it) and a log file to read.
    std::string options = ReadFile(FilterConf);
    const std::size_t timeout = options.find("--timeout 30"), log = options.find("syslog");
    if (timeout == std::string::npos || log == std::string::npos)
        throw std::runtime_error(FilterConf + " changed: no '--timeout 30' or 'syslog'");
    options.replace(log, 6, FilterLog);
    options.replace(timeout, 12, "--timeout 5");
    WriteFile(FilterConf, options);
}

inline void LeaveInstalledView()
{
    for (const char* lower : {"/var", "/usr/local", "/etc"})
        (void)::umount2(lower, MNT_DETACH); // the namespace ends with the process anyway
    boost::system::error_code ignored;
    fs::remove_all(ViewDir(), ignored);
}

// A file of /proc, "" when its process is gone (a read then fails with
// ESRCH, which a stream would throw for).
inline std::string ReadProc(const std::string& path)
{
    std::string text;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    char block[4096];
    for (ssize_t count; fd >= 0 && (count = ::read(fd, block, sizeof block)) > 0;)
        text.append(block, static_cast<std::size_t>(count));
    if (fd >= 0)
        ::close(fd);
    return text;
}

// Every process below pid (pid included), children first.
inline void Descendants(pid_t pid, std::vector<pid_t>& found)
{
    std::istringstream children(
        ReadProc("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children"));
    for (pid_t child; children >> child;)
        Descendants(child, found);
    found.push_back(pid);
}

inline bool Alive(pid_t pid)
{
    const std::string stat = ReadProc("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t state = stat.rfind(')');
    return state != std::string::npos && stat.compare(state, 4, ") Z ") != 0;
}

// Regular files below dir, as paths relative to it, sorted.
inline std::set<std::string> FilesBelow(const fs::path& dir)
{
    std::set<std::string> files;
    boost::system::error_code missing;
    for (fs::recursive_directory_iterator it(dir, missing), end; !missing && it != end; ++it)
        if (fs::is_regular_file(it->symlink_status()))
            files.insert(fs::relative(it->path(), dir).string());
    return files;
}

class ZmailerSite
{
public:
    ZmailerSite()
    {
        for (const char* part : {"share", "var", "postoffice"})
            Run({"/bin/cp", "-a", Prefix + "/" + part, dir / part});
        fs::create_directories(dir / "log");
        std::string conf = ReadFile(Prefix + "/zmailer.conf");
        for (const char* name : {"ZCONFIG", "MAILSHARE", "MAILVAR", "POSTOFFICE", "LOGDIR"})
            Set(conf, name, name == std::string("ZCONFIG") ? zconfig : dir / Folder(name));
        // The notify sockets and the SNMP block live in the postoffice too.
        for (std::size_t at; (at = conf.find(Prefix + "/postoffice/")) != std::string::npos;)
            conf.replace(at, Prefix.size() + 12, dir / "postoffice/");
        WriteFile(zconfig, conf);
        // The router's configuration reads zmailer.conf from the path it names.
        for (const char* cf : {"router.cf", "cf/SMTP.cf"}) {
            const std::string path = dir / ("share/" + std::string(cf));
            std::string text = ReadFile(path);
            Set(text, "ZCONFIG", zconfig);
            WriteFile(path, text);
        }
        Clear();
        SmtpserverConf(2);
        Policy("[127.0.0.0]/8   relaycustnet + relaytarget + filtering +\n"
               "[0.0.0.0]/0     relaycustnet - filtering +\n"
               ".               relaytarget + filtering +\n");
    }
    ~ZmailerSite()
    {
        Stop("router");
        Stop("smtpserver");
    }
    ZmailerSite(const ZmailerSite&) = delete;
    ZmailerSite& operator=(const ZmailerSite&) = delete;

    void SmtpserverConf(int maxpar)
    {
        WriteFile(dir / "share/smtpserver.conf",
                  "PARAM BindSmtp [127.0.0.1] " + std::to_string(port) +
                      "\nPARAM policydb gdbm " + (dir / "var/db/smtp-policy") +
                      "\nPARAM contentfilter /usr/local/sbin/vorex-zmailer-filter\n"
                      "PARAM contentfilter-maxpar " +
                      std::to_string(maxpar) + "\nPARAM maxsize 100000000\n*   *   FT\n");
    }

    // The policy source, compiled by ZMailer's own makedb.
    void Policy(const std::string& source)
    {
        WriteFile(dir / "policy.src", source);
        Run({Prefix + "/bin/makedb", "-p", "gdbm", dir / "var/db/smtp-policy", dir / "policy.src"});
    }

    // The process.cf that ZMailer ships with the router-stage snippet put at
    // the top of process(file), as the README says; a from-source install
    // has the filter under /usr/local.
    void InstallSnippet(const std::string& snippetPath)
    {
        std::string snippet = ReadFile(snippetPath);
        const std::string installed = "\"/usr/sbin/vorex-zmailer-filter\"";
        const std::size_t program = snippet.find(installed);
        if (program == std::string::npos)
            throw std::runtime_error(snippetPath + " names no " + installed);
        snippet.replace(program, installed.size(), "\"/usr/local/sbin/vorex-zmailer-filter\"");
        std::string process = ReadFile(dir / "share/cf/process.cf");
        const std::string head = "process (file) {\n";
        const std::size_t at = process.find(head);
        if (at == std::string::npos)
            throw std::runtime_error("ZMailer's process.cf has no '" + head + "'");
        process.insert(at + head.size(), snippet);
        WriteFile(dir / "share/cf/process.cf", process);
    }

    // Started and accepting, or an exception with the log's last lines.
    void StartSmtpserver()
    {
        StartDaemon({Prefix + "/bin/smtpserver", "-Z", zconfig, "-l", dir / "log/smtpserver"},
                    dir / "log/smtpserver.out");
        for (int waited = 0; waited < ChildProcess::BoundMs; waited += 50) {
            boost::asio::io_context io;
            boost::asio::ip::tcp::socket probe(io);
            boost::system::error_code refused;
            probe.connect({boost::asio::ip::address_v4::loopback(), static_cast<uint16_t>(port)},
                          refused);
            if (!refused)
                return AwaitPidFile("smtpserver");
            (void)::poll(nullptr, 0, 50);
        }
        throw std::runtime_error("smtpserver never accepted on port " + std::to_string(port) +
                                 "; " + Tail(dir / "log/smtpserver"));
    }

    void StartRouter()
    {
        StartDaemon({Prefix + "/bin/router", "-Z", zconfig, "-dkn", "1"}, dir / "log/router.out");
        AwaitPidFile("router");
    }

    // SIGTERM to the program and everything below it (the content-filter
    // sub-daemon, the adapters, the filters), SIGKILL to what is left after
    // the bound; its pid file goes.
    void Stop(const std::string& program)
    {
        const std::string pidFile = Postoffice(".pid." + program);
        const pid_t pid = std::atoi(ReadFile(pidFile).c_str());
        if (pid <= 0)
            return;
        std::vector<pid_t> all;
        Descendants(pid, all);
        for (const pid_t each : all)
            (void)::kill(each, SIGTERM);
        for (int waited = 0;; waited += 20) {
            bool any = false;
            for (const pid_t each : all)
                any = any || Alive(each);
            if (!any)
                break;
            if (waited > ChildProcess::BoundMs)
                for (const pid_t each : all)
                    (void)::kill(each, SIGKILL);
            (void)::poll(nullptr, 0, 20);
        }
        fs::remove(pidFile);
    }

    // The files of the queue folders removed, for the next row.
    void Clear()
    {
        for (const char* queue : {"public", "router", "freezer", "queue", "transport"})
            for (const std::string& file : FilesBelow(Postoffice(queue)))
                fs::remove(Postoffice(queue) + "/" + file);
    }

    std::string Postoffice(const std::string& name) const { return dir / ("postoffice/" + name); }

    // Files as the router takes them: written into public/, renamed into
    // router/ under their inode number, as ZMailer's own submission does.
    std::string Submit(const std::string& bytes)
    {
        const std::string draft = Postoffice("public/draft");
        WriteFile(draft, bytes);
        const std::string name = std::to_string(InodeOf(draft));
        fs::rename(draft, Postoffice("router/" + name));
        return name;
    }

    TempDir dir;
    const std::string zconfig = dir / "zmailer.conf";
    const int port = FreePort();

private:
    // A program in the background writes its pid file itself, a moment
    // after its start returned; Stop needs it.
    void AwaitPidFile(const std::string& program)
    {
        for (int waited = 0; std::atoi(ReadFile(Postoffice(".pid." + program)).c_str()) <= 0;
             waited += 20) {
            if (waited > ChildProcess::BoundMs)
                throw std::runtime_error(program + " wrote no pid file; " + Tail(dir / "log/" + program));
            (void)::poll(nullptr, 0, 20);
        }
    }

    static const char* Folder(const std::string& name)
    {
        return name == "MAILSHARE" ? "share" : name == "MAILVAR" ? "var"
                                          : name == "POSTOFFICE"  ? "postoffice"
                                                                  : "log";
    }
    static unsigned long InodeOf(const std::string& path)
    {
        struct stat status;
        return ::stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
    }
    // NAME=value at the start of a line replaced.
    static void Set(std::string& text, const std::string& name, const std::string& value)
    {
        const std::size_t at = text.find("\n" + name + "=");
        if (at == std::string::npos)
            throw std::runtime_error("no " + name + "= line to set");
        const std::size_t end = text.find('\n', at + 1);
        text.replace(at + 1, end - at - 1, name + "=" + value);
    }
};

} // namespace zmailer_test
