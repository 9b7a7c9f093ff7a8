// tests/support/SmtpClient.h: one message sent to an SMTP server on
// loopback as a mail client sends it (EHLO, MAIL, RCPT, DATA with CRLF
// lines and dot-stuffing, QUIT), and what the client got: the last reply
// and how long it waited from connect to that reply. Every read waits at
// most ReplyBoundMs, above smtpserver's own 120 s for a silent filter, so
// that a hang shows as a wait, not as a stuck test.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

struct SmtpOutcome {
    int code = 0;     // of the reply to the end of DATA, or to the first refused command
    std::string text; // that reply's lines, without their CRLF, joined by '\n'
    double seconds = 0;
};

class SmtpClient
{
public:
    static constexpr int ReplyBoundMs = 150 * 1000;

    // message: header and body with LF line ends.
    static SmtpOutcome Send(int port, const std::string& from, const std::vector<std::string>& to,
                            const std::string& message)
    {
        SmtpClient client(port);
        SmtpOutcome outcome;
        const auto start = std::chrono::steady_clock::now();
        std::vector<std::string> commands = {"EHLO client.example", "MAIL FROM:<" + from + ">"};
        for (const std::string& rcpt : to)
            commands.push_back("RCPT TO:<" + rcpt + ">");
        commands.push_back("DATA");
        outcome.code = client.Reply(outcome.text);
        for (const std::string& command : commands) {
            if (outcome.code >= 400)
                break;
            client.Put(command + "\r\n");
            outcome.code = client.Reply(outcome.text);
        }
        if (outcome.code == 354) {
            client.Put(Stuffed(message) + ".\r\n");
            outcome.code = client.Reply(outcome.text);
        }
        outcome.seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        client.Put("QUIT\r\n");
        return outcome;
    }

    // LF lines as CRLF lines, a leading dot doubled; a last line without LF
    // is ended.
    static std::string Stuffed(const std::string& message)
    {
        std::string out;
        bool lineStart = true;
        for (const char c : message) {
            if (lineStart && c == '.')
                out += '.';
            if (c == '\n')
                out += '\r';
            out += c;
            lineStart = c == '\n';
        }
        return lineStart ? out : out + "\r\n";
    }

private:
    explicit SmtpClient(int port) : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error("no SMTP server on port " + std::to_string(port));
    }
    ~SmtpClient() { (void)::close(fd); }
    SmtpClient(const SmtpClient&) = delete;
    SmtpClient& operator=(const SmtpClient&) = delete;

    void Put(const std::string& bytes)
    {
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0)
                return; // the server hung up; the next reply says so
            done += static_cast<std::size_t>(n);
        }
    }

    // One reply, all its lines; 0 when the server closed or stayed silent.
    int Reply(std::string& text)
    {
        text.clear();
        for (;;) {
            const std::size_t end = pending.find("\r\n");
            if (end == std::string::npos) {
                pollfd ready = {fd, POLLIN, 0};
                char buffer[4096];
                const ssize_t n =
                    ::poll(&ready, 1, ReplyBoundMs) > 0 ? ::recv(fd, buffer, sizeof buffer, 0) : 0;
                if (n <= 0)
                    return 0;
                pending.append(buffer, static_cast<std::size_t>(n));
                continue;
            }
            const std::string line = pending.substr(0, end);
            pending.erase(0, end + 2);
            text += (text.empty() ? "" : "\n") + line;
            if (line.size() < 4 || line[3] != '-')
                return std::atoi(line.c_str());
        }
    }

    const int fd;
    std::string pending;
};
