// daemon/MetricsListener.cpp: Boost.Asio's acceptor and Beast's HTTP
// parser on one io_context. All state (the list of open connections) is
// touched only on the listener's thread, so nothing is locked.
#include "MetricsListener.h"

#include <chrono>
#include <list>
#include <stdexcept>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

namespace
{

// A scrape's request and answer take milliseconds; Prometheus gives up
// after 10 s by default.
constexpr std::chrono::seconds RequestTimeout(10);
constexpr std::size_t MaxConnections = 64;
constexpr std::uint32_t MaxRequestHead = 8 * 1024;

class Session;
using Sessions = std::list<std::shared_ptr<Session>>;

// One connection: read one request, answer it, close.
class Session : public std::enable_shared_from_this<Session>
{
public:
    Session(tcp::socket socket, Sessions& sessions, const std::function<std::string()>& text)
        : stream(std::move(socket)), sessions(sessions), text(text)
    {
    }

    // at: this session's place in sessions, taken out again by Close.
    void Start(Sessions::iterator at)
    {
        place = at;
        parser.header_limit(MaxRequestHead);
        stream.expires_after(RequestTimeout); // the whole exchange, answer included
        http::async_read(stream, buffer, parser,
                         [self = shared_from_this()](beast::error_code failure, std::size_t) {
                             self->Answer(failure);
                         });
    }

    void Close()
    {
        if (closed)
            return;
        closed = true;
        beast::error_code ignored; // a peer gone already is what closing wants
        (void)stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
        stream.close();
        sessions.erase(place);
    }

private:
    void Answer(beast::error_code failure)
    {
        if (closed)
            return;
        if (failure)
            return Close();
        const auto& request = parser.get();
        const std::string target(request.target());
        response.version(request.version());
        response.keep_alive(false);
        if (request.method() != http::verb::get) {
            response.result(http::status::method_not_allowed);
            response.set(http::field::allow, "GET");
        } else if (target != "/metrics" && target.compare(0, 9, "/metrics?") != 0) {
            response.result(http::status::not_found);
        } else {
            response.result(http::status::ok);
            response.set(http::field::content_type, "text/plain; version=0.0.4; charset=utf-8");
            response.body() = text();
        }
        response.prepare_payload();
        http::async_write(stream, response,
                          [self = shared_from_this()](beast::error_code, std::size_t) {
                              self->Close(); // written or not, the exchange is over
                          });
    }

    beast::tcp_stream stream;
    Sessions& sessions;
    const std::function<std::string()>& text;
    Sessions::iterator place;
    beast::flat_buffer buffer;
    http::request_parser<http::empty_body> parser;
    http::response<http::string_body> response;
    bool closed = false;
};

} // namespace

struct MetricsListener::Parts {
    asio::io_context io{1};
    tcp::acceptor acceptor{io};
    std::function<std::string()> text;
    Sessions sessions;
    std::thread thread;

    void Accept()
    {
        acceptor.async_accept([this](beast::error_code failure, tcp::socket socket) {
            if (failure == asio::error::operation_aborted)
                return;
            // Any other failure (no descriptor left, a client gone) loses
            // that connection only.
            if (!failure) {
                if (sessions.size() >= MaxConnections)
                    sessions.front()->Close();
                auto session = std::make_shared<Session>(std::move(socket), sessions, text);
                sessions.push_back(session);
                session->Start(std::prev(sessions.end()));
            }
            Accept();
        });
    }
};

MetricsListener::MetricsListener(const std::string& listen, std::function<std::string()> text)
    : parts(std::make_unique<Parts>())
{
    parts->text = std::move(text);
    const std::size_t colon = listen.rfind(':');
    std::string host = colon == std::string::npos ? listen : listen.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    const std::string port = colon == std::string::npos ? "" : listen.substr(colon + 1);
    beast::error_code failure;
    tcp::resolver resolver(parts->io);
    const auto found = resolver.resolve(host, port, tcp::resolver::passive, failure);
    if (!failure && found.empty())
        failure = asio::error::host_not_found;
    const auto fail = [&](const char* step) {
        return std::domain_error("metrics listener on " + listen + " " + step +
                                 " error:" + failure.message());
    };
    if (failure)
        throw fail("resolve");
    const tcp::endpoint endpoint = found.begin()->endpoint();
    tcp::acceptor& acceptor = parts->acceptor;
    acceptor.open(endpoint.protocol(), failure);
    if (!failure)
        acceptor.set_option(tcp::acceptor::reuse_address(true), failure);
    if (failure)
        throw fail("socket");
    acceptor.bind(endpoint, failure);
    if (failure)
        throw fail("bind");
    acceptor.listen(asio::socket_base::max_listen_connections, failure);
    if (failure)
        throw fail("listen");
    parts->Accept();
    parts->thread = std::thread([this] { parts->io.run(); });
}

MetricsListener::~MetricsListener()
{
    parts->io.stop();
    parts->thread.join();
}
