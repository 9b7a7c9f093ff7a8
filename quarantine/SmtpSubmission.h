// quarantine/SmtpSubmission.h: hands one kept message to an SMTP server:
// greeting, EHLO (HELO when refused), MAIL FROM, one RCPT TO per recipient,
// DATA with firstLine on top and the message streamed from its descriptor
// (LF -> CRLF, dot stuffing), then the end of data. Every step has its own
// deadline and every reply line a bound. Succeeds only on the final 250;
// anything else throws std::domain_error (the network) or std::logic_error
// (a refusal, with the server's reply).
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

class SmtpSubmission
{
public:
    // host: a literal IP address; connects within stepLimit.
    SmtpSubmission(const std::string& host, unsigned short port, std::chrono::seconds stepLimit);
    ~SmtpSubmission();
    SmtpSubmission(const SmtpSubmission&) = delete;
    SmtpSubmission& operator=(const SmtpSubmission&) = delete;

    // sender and recipients in angle brackets ("<>" for none); size bytes of
    // msgFd from its start. Returns the server's final reply.
    std::string Submit(const std::string& sender, const std::vector<std::string>& recipients,
                       const std::string& firstLine, int msgFd, off_t size);
    // Says QUIT; the answer no longer matters to the caller. False when the
    // server could not be told.
    bool Quit() noexcept;

private:
    struct Connection;
    std::unique_ptr<Connection> connection;
};
