#include "web/server.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <csignal>
#include <deque>
#include <set>
#include <thread>
#include <utility>

#include "base/console.h"
#include "base/text.h"
#include "web/api.h"
#include "web/beast.h"

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using Error = boost::system::error_code;

namespace {

using Response = http::response<http::string_body>;

class Viewer;

// What connections share; the server's thread alone uses it.
struct Shared {
    Api api;
    WebLimits limits;
    WebCounts counts;
    std::set<Viewer*> viewers;
};

// Counts a connection for as long as it lives.
class Client {
  public:
    explicit Client(Shared& shared) : shared_(shared) { shared_.counts.clients++; }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { shared_.counts.clients--; }

  private:
    Shared& shared_;
};

// A page that is open. It gets news as it takes it; one that takes it too slowly is dropped.
class Viewer : public std::enable_shared_from_this<Viewer> {
  public:
    Viewer(beast::tcp_stream stream, Shared& shared, std::shared_ptr<Client> client)
        : stream_(std::move(stream)), shared_(shared), client_(std::move(client)) {
        shared_.viewers.insert(this);
        shared_.counts.viewers++;
    }
    Viewer(const Viewer&) = delete;
    Viewer& operator=(const Viewer&) = delete;
    ~Viewer() {
        shared_.viewers.erase(this);
        shared_.counts.viewers--;
    }

    void start(const http::request<http::empty_body>& request) {
        beast::get_lowest_layer(stream_).expires_never();
        limit_viewer(stream_, shared_.limits.request, shared_.limits.silence);
        stream_.async_accept(request, [self = shared_from_this()](Error error) {
            if (error) return;
            self->open_ = true;
            self->read();
            self->write();
        });
    }

    void tell(const Hub::News& news) {
        if (dropped_) return;
        waiting_bytes_ += news->size();
        waiting_.push_back(news);
        if (waiting_.size() > shared_.limits.waiting_news || waiting_bytes_ > shared_.limits.waiting_bytes) {
            dropped_ = true;
            shared_.counts.dropped++;
            beast::get_lowest_layer(stream_).close();
            return;
        }
        write();
    }

  private:
    // What it says is of no interest, but for its goodbye and its answers to pings.
    void read() {
        stream_.async_read(buffer_, [self = shared_from_this()](Error error, std::size_t) {
            if (error) return;
            self->stream_.async_close(websocket::close_code::policy_error, [self](Error) {});
        });
    }

    void write() {
        if (!open_ || writing_ || waiting_.empty()) return;
        writing_ = true;
        stream_.text(true);
        stream_.async_write(asio::buffer(*waiting_.front()), [self = shared_from_this()](Error error, std::size_t) {
            self->writing_ = false;
            self->waiting_bytes_ -= self->waiting_.front()->size();
            self->waiting_.pop_front();
            if (!error) self->write();
        });
    }

    websocket::stream<beast::tcp_stream> stream_;
    Shared& shared_;
    std::shared_ptr<Client> client_;
    beast::flat_buffer buffer_;
    std::deque<Hub::News> waiting_;
    std::size_t waiting_bytes_ = 0;
    bool open_ = false;
    bool writing_ = false;
    bool dropped_ = false;
};

// A connection while it asks and is answered.
class Session : public std::enable_shared_from_this<Session> {
  public:
    Session(tcp::socket socket, Shared& shared)
        : stream_(std::move(socket)), shared_(shared), client_(std::make_shared<Client>(shared)) {}

    void read() {
        parser_.emplace();
        limit_request(*parser_, shared_.limits.header_bytes);
        stream_.expires_after(shared_.limits.request);
        http::async_read(stream_, buffer_, *parser_, [self = shared_from_this()](Error error, std::size_t) {
            if (error) return self->refuse(error);
            self->take();
        });
    }

  private:
    // A client that is late or gone gets no answer.
    void refuse(const Error& error) {
        if (error.category() != http::make_error_code(http::error::bad_method).category() ||
            error == http::error::end_of_stream || error == http::error::partial_message) {
            return close();
        }
        const bool long_header = error == http::error::header_limit || error == http::error::buffer_overflow;
        const bool body = error == http::error::body_limit || error == http::error::unexpected_body;
        send({.status = long_header ? 431
                        : body      ? 413
                                    : 400,
              .body = std::string("{\"error\":\"") +
                      (long_header ? "the header is too long"
                       : body      ? "no request here has a body"
                                   : "this is no HTTP") +
                      "\"}\n"},
             false, false);
    }

    void take() {
        shared_.counts.requests++;
        const WebRequest request = request_of(*parser_);
        const bool keep = parser_->keep_alive();
        if (request.target.substr(0, request.target.find('?')) == "/live") return open_live(request);
        send(shared_.api.answer(request, shared_.counts), request.method == "HEAD", keep);
    }

    void open_live(const WebRequest& request) {
        if (const auto refused = shared_.api.refusal(request)) return send(*refused, false, false);
        if (!websocket::is_upgrade(parser_->get())) {
            return send(
                {.status = 426, .body = "{\"error\":\"a WebSocket is here\"}\n", .fields = {{"Upgrade", "websocket"}}},
                request.method == "HEAD", false);
        }
        if (shared_.counts.viewers >= shared_.limits.viewers) {
            return send({.status = 503, .body = "{\"error\":\"too many pages are open\"}\n"}, false, false);
        }
        const auto viewer = std::make_shared<Viewer>(std::move(stream_), shared_, client_);
        viewer->start(parser_->get());
    }

    void send(WebAnswer answer, bool head, bool keep) {
        if (answer.status >= 400) shared_.counts.refused++;
        response_ = {};
        response_.version(11);
        response_.result(static_cast<unsigned>(answer.status));
        for (const auto& [name, value] : security_fields()) response_.insert(name, value);
        for (const auto& [name, value] : answer.fields) response_.insert(name, value);
        if (answer.status != 304) {
            response_.set(http::field::content_type, answer.type);
            response_.content_length(answer.body.size());
        }
        response_.keep_alive(keep);
        if (!head) response_.body() = std::move(answer.body);
        stream_.expires_after(shared_.limits.answer);
        http::async_write(stream_, response_, [self = shared_from_this(), keep](Error error, std::size_t) {
            if (error || !keep) return self->close();
            self->read();
        });
    }

    void close() {
        Error ignored;
        stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    }

    beast::tcp_stream stream_;
    Shared& shared_;
    std::shared_ptr<Client> client_;
    beast::flat_buffer buffer_;
    std::optional<RequestParser> parser_;
    Response response_;
};

}  // namespace

class WebServer::Core {
  public:
    Core(const WebConfig& config, Hub& hub, std::string store_path, const WebLimits& limits)
        : config_(config),
          hub_(hub),
          shared_{Api(config, hub, std::move(store_path)), limits, {}, {}},
          acceptor_(context_),
          retry_(context_) {
        hub_.on_news([this] { asio::post(context_, [this] { pass_on(); }); });
        listen();
        thread_ = std::thread([this] { run(); });
    }
    ~Core() {
        hub_.on_news({});
        context_.stop();
        thread_.join();
    }

    uint16_t port() const { return port_; }

  private:
    void run() {
        sigset_t all;  // signals are the station's
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        while (!context_.stopped()) {
            try {
                context_.run();
            } catch (const std::exception& error) {  // memory is short: one answer less
                print_error(std::string("web: ") + error.what());
            }
        }
    }

    void pass_on() {
        for (const Hub::News& news : hub_.take()) {
            const std::vector<Viewer*> viewers(shared_.viewers.begin(), shared_.viewers.end());
            for (Viewer* const viewer : viewers) viewer->tell(news);
        }
    }

    // Told once, until it works.
    void listen() {
        Error error;
        const tcp::endpoint end(asio::ip::make_address(config_.address, error), config_.port);
        if (!error) acceptor_.open(end.protocol(), error);
        if (!error) acceptor_.set_option(asio::socket_base::reuse_address(true), error);
        if (!error) acceptor_.bind(end, error);
        if (!error) acceptor_.listen(asio::socket_base::max_listen_connections, error);
        if (!error) {
            port_ = acceptor_.local_endpoint().port();
            const bool six = end.address().is_v6();
            print_error(format("the page is at http://%s%s%s:%d/", six ? "[" : "", config_.address.c_str(),
                               six ? "]" : "", static_cast<int>(port_)));
            return accept();
        }
        if (!told_) {
            print_error(format("web: cannot listen on %s port %d: %s; trying again", config_.address.c_str(),
                               static_cast<int>(config_.port), error.message().c_str()));
        }
        told_ = true;
        Error ignored;
        acceptor_.close(ignored);
        retry_.expires_after(shared_.limits.retry);
        retry_.async_wait([this](Error ended) {
            if (!ended) listen();
        });
    }

    void accept() {
        acceptor_.async_accept([this](Error error, tcp::socket socket) {
            if (error) {  // of descriptors there may be none for a while
                retry_.expires_after(std::chrono::milliseconds(100));
                retry_.async_wait([this](Error) { accept(); });
                return;
            }
            if (shared_.counts.clients < shared_.limits.clients) {
                std::make_shared<Session>(std::move(socket), shared_)->read();
            } else {
                shared_.counts.refused++;
            }
            accept();
        });
    }

    WebConfig config_;
    Hub& hub_;
    Shared shared_;  // outlives the connections, which the context holds
    asio::io_context context_{1};
    tcp::acceptor acceptor_;
    asio::steady_timer retry_;
    std::atomic<uint16_t> port_ = 0;
    bool told_ = false;
    std::thread thread_;
};

WebServer::WebServer(const WebConfig& config, Hub& hub, std::string store_path, const WebLimits& limits)
    : core_(std::make_unique<Core>(config, hub, std::move(store_path), limits)) {}

WebServer::~WebServer() = default;

uint16_t WebServer::port() const {
    return core_->port();
}
