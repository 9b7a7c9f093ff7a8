// quarantine/SmtpSubmission.cpp: Boost.Asio's asynchronous calls driven one
// at a time with io_context::run_for, so that a server that stops answering
// costs one step's limit, then the socket is closed.
#include "SmtpSubmission.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/streambuf.hpp>
#include <boost/asio/write.hpp>

namespace asio = boost::asio;

namespace
{

// A reply line longer than this, or a reply of more lines, is no SMTP.
const std::size_t MaxReplyLine = 2048;
const int MaxReplyLines = 100;
const std::size_t Block = 64 * 1024;

} // namespace

struct SmtpSubmission::Connection {
    asio::io_context io;
    asio::ip::tcp::socket socket{io};
    asio::streambuf input{MaxReplyLine};
    std::chrono::seconds stepLimit;

    // Starts one operation through start(handler) and waits for it within
    // the step's limit.
    template <class Start> void Step(const std::string& what, Start start)
    {
        boost::system::error_code result = asio::error::would_block;
        start([&result](const boost::system::error_code& error, auto&&...) { result = error; });
        io.restart();
        io.run_for(stepLimit);
        if (result == asio::error::would_block) {
            boost::system::error_code ignored;
            (void)socket.close(ignored); // cancels the operation; the timeout is the report
            io.restart();
            io.run();
            throw std::domain_error("smtp " + what + " error:no answer within " +
                                    std::to_string(stepLimit.count()) + " s");
        }
        if (result)
            throw std::domain_error("smtp " + what + " error:" + result.message());
    }

    void Write(const std::string& what, const std::string& bytes)
    {
        Step(what, [&](auto handler) { asio::async_write(socket, asio::buffer(bytes), handler); });
    }

    // One whole reply, its lines joined by " / "; its code in code.
    std::string Reply(const std::string& what, int& code)
    {
        std::string reply;
        for (int lines = 0; lines < MaxReplyLines; ++lines) {
            Step(what, [&](auto handler) { asio::async_read_until(socket, input, "\n", handler); });
            std::string line;
            std::istream stream(&input);
            std::getline(stream, line);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            if (line.size() < 3 || line.find_first_not_of("0123456789") < 3)
                throw std::logic_error("smtp " + what + ": no reply line: '" + line + "'");
            reply += (reply.empty() ? "" : " / ") + line;
            if (line.size() == 3 || line[3] != '-') {
                code = std::stoi(line.substr(0, 3));
                return reply;
            }
        }
        throw std::logic_error("smtp " + what + ": reply over " + std::to_string(MaxReplyLines) +
                               " lines");
    }

    // Sends command (when not empty) and wants a reply whose code is one of
    // the given ones.
    std::string Expect(const std::string& what, const std::string& command,
                       std::initializer_list<int> codes)
    {
        if (!command.empty())
            Write(what, command + "\r\n");
        int code = 0;
        std::string reply = Reply(what, code);
        for (int wanted : codes)
            if (code == wanted)
                return reply;
        throw std::logic_error("smtp server refused " + what + ": " + reply);
    }
};

SmtpSubmission::SmtpSubmission(const std::string& host, unsigned short port,
                               std::chrono::seconds stepLimit)
    : connection(std::make_unique<Connection>())
{
    connection->stepLimit = stepLimit;
    const asio::ip::tcp::endpoint endpoint(asio::ip::make_address(host), port);
    connection->Step("connect to " + host + " port " + std::to_string(port),
                     [&](auto handler) { connection->socket.async_connect(endpoint, handler); });
}

SmtpSubmission::~SmtpSubmission() = default;

std::string SmtpSubmission::Submit(const std::string& sender,
                                   const std::vector<std::string>& recipients,
                                   const std::string& firstLine, int msgFd, off_t size)
{
    Connection& c = *connection;
    c.Expect("greeting", "", {220});
    char host[256] = "localhost";
    if (::gethostname(host, sizeof host - 1) != 0)
        std::strcpy(host, "localhost"); // any name will do for a local submission
    host[sizeof host - 1] = '\0';
    int code = 0;
    c.Write("EHLO", std::string("EHLO ") + host + "\r\n");
    (void)c.Reply("EHLO", code); // only the code matters: extensions are not used
    if (code != 250)
        c.Expect("HELO", std::string("HELO ") + host, {250});
    c.Expect("MAIL FROM", "MAIL FROM:" + sender, {250});
    for (const std::string& recipient : recipients)
        c.Expect("RCPT TO " + recipient, "RCPT TO:" + recipient, {250, 251});
    c.Expect("DATA", "DATA", {354});

    // The message in blocks: bare LF becomes CRLF, a line starting with a dot
    // gets a second one, and the data ends on a line end before the dot.
    std::string out = firstLine + "\r\n";
    bool lineStart = true;
    char previous = '\n';
    std::vector<char> block(Block);
    for (off_t offset = 0; offset < size;) {
        const ssize_t count = ::pread(msgFd, block.data(), block.size(), offset);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0) {
            const int error = errno;
            throw std::domain_error(std::string("read .msg error:") + std::strerror(error));
        }
        if (count == 0)
            break; // the account shortened it: what is there goes
        offset += count;
        for (ssize_t i = 0; i < count; ++i) {
            const char byte = block[static_cast<std::size_t>(i)];
            if (lineStart && byte == '.')
                out += '.';
            if (byte == '\n' && previous != '\r')
                out += '\r';
            out += byte;
            lineStart = byte == '\n';
            previous = byte;
        }
        c.Write("DATA", out);
        out.clear();
    }
    out += lineStart ? ".\r\n" : "\r\n.\r\n";
    c.Write("DATA", out);
    return c.Expect("end of DATA", "", {250});
}

bool SmtpSubmission::Quit() noexcept
{
    Connection& c = *connection;
    const std::string quit = "QUIT\r\n";
    boost::system::error_code result = asio::error::would_block;
    asio::async_write(c.socket, asio::buffer(quit),
                      [&result](const boost::system::error_code& error, std::size_t) { result = error; });
    c.io.restart();
    c.io.run_for(c.stepLimit);
    boost::system::error_code ignored;
    (void)c.socket.close(ignored); // the message is delivered; closing ends the session
    c.io.restart();
    c.io.run();
    return !result;
}
