#include "web/Http.h"

// The one file that has this library.
#include <httplib.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <vector>

#include "Failure.h"

namespace {

using Clock = std::chrono::steady_clock;

/** The sockets of connections that are served, to end them from outside. Any thread. */
class OpenSockets {
public:
    /** False when it is all over. */
    bool enter(int socket) {
        std::lock_guard<std::mutex> const lock(mutex_);
        return !isOver_ && sockets_.insert(socket).second;
    }
    /** Before it is closed. */
    void leave(int socket) {
        std::lock_guard<std::mutex> const lock(mutex_);
        sockets_.erase(socket);
        changed_.notify_all();
    }
    /** Ends those that wait for requests at once, and all others when the time is over. */
    void end(std::chrono::milliseconds patience) {
        std::unique_lock<std::mutex> lock(mutex_);
        isOver_ = true;
        shutDown(SHUT_RD);
        changed_.wait_for(lock, patience, [this] { return sockets_.empty(); });
        shutDown(SHUT_RDWR);
    }

private:
    void shutDown(int how) const {
        for (int const socket : sockets_)
            ::shutdown(socket, how);
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::set<int> sockets_;  // guarded by mutex_, as the next
    bool isOver_ = false;
};

/** A connection: what is read of it is bounded in size and in all its time, what is written in the
 * time that a part of it takes. */
class Connection final : public httplib::Stream {
public:
    explicit Connection(int socket) : socket_(socket), end_(Clock::now() + HttpServer::kPatience) {}

    bool is_readable() const override { return true; }
    /** Whether the other one is there: who has closed its side does not listen to a stream. */
    bool is_writable() const override {
        pollfd ready{socket_, POLLRDHUP, 0};
        return poll(&ready, 1, 0) == 0;
    }
    ssize_t read(char* bytes, std::size_t size) override {
        if (at_ == have_) {
            if (taken_ >= most_ || !waitFor(POLLIN, end_))
                return -1;
            std::size_t const most = std::min(buffer_.size(), most_ - taken_);
            ssize_t const count = recv(socket_, buffer_.data(), most, 0);
            if (count <= 0)
                return count;
            at_ = 0;
            have_ = static_cast<std::size_t>(count);
            taken_ += have_;
        }
        std::size_t const some = std::min(size, have_ - at_);
        std::copy_n(buffer_.data() + at_, some, bytes);
        at_ += some;
        return static_cast<ssize_t>(some);
    }
    ssize_t write(char const* bytes, std::size_t size) override {
        if (!waitFor(POLLOUT, Clock::now() + HttpServer::kPatience))
            return -1;
        return send(socket_, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    /** The head is there: now a body may come. */
    void allowBody() { most_ = taken_ + HttpServer::kMostBytes; }
    /** Lets the other one read its answer: what it still sends would take that away if nobody read
     * it. */
    void linger() {
        constexpr std::chrono::milliseconds kMost(500);
        ::shutdown(socket_, SHUT_WR);
        auto const end = std::min(end_, Clock::now() + kMost);
        while (waitFor(POLLIN, end) && recv(socket_, buffer_.data(), buffer_.size(), 0) > 0) {
        }
    }
    // Nobody asks who it is: whoever has the token is welcome.
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return socket_; }

private:
    bool waitFor(short what, Clock::time_point end) const {
        pollfd ready{socket_, what, 0};
        auto const left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        return left > 0 && poll(&ready, 1, static_cast<int>(left)) == 1;
    }

    int const socket_;
    Clock::time_point const end_;
    std::array<char, 4096> buffer_{};
    std::size_t at_ = 0;
    std::size_t have_ = 0;
    std::size_t taken_ = 0;
    std::size_t most_ = HttpServer::kMostHead;
};

/** Threads, and no more waiting connections than there are of them: the system keeps the others. */
class Threads final : public httplib::TaskQueue {
public:
    /** `isListening`: false from when no more connections come, whatever those that are there take.
     */
    explicit Threads(std::atomic<bool>& isListening) : isListening_(isListening) {
        threads_.reserve(HttpServer::kThreads);
        try {
            for (std::size_t i = 0; i < HttpServer::kThreads; ++i)
                threads_.emplace_back([this] { serve(); });
        } catch (std::exception const&) {
            if (threads_.empty())
                throw;  // fewer serve, too
        }
    }
    /** Who listens has not come to the shutdown where memory has lacked for a connection. */
    ~Threads() override { end(); }
    Threads(Threads const&) = delete;
    Threads& operator=(Threads const&) = delete;

    void enqueue(std::function<void()> work) override {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return work_.size() < HttpServer::kThreads; });
        work_.push_back(std::move(work));
        changed_.notify_all();
    }
    /** What waits is served still. */
    void shutdown() override { end(); }

private:
    void end() {
        isListening_ = false;
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            isOver_ = true;
            changed_.notify_all();
        }
        for (std::thread& thread : threads_)
            thread.join();
        threads_.clear();
    }
    void serve() {
        for (;;) {
            std::function<void()> work;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait(lock, [this] { return isOver_ || !work_.empty(); });
                if (work_.empty())
                    return;
                work = std::move(work_.front());
                work_.pop_front();
                changed_.notify_all();
            }
            work();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> work_;  // guarded by mutex_, as the next
    bool isOver_ = false;
    std::vector<std::thread> threads_;
    std::atomic<bool>& isListening_;
};

/** Without a body. */
HttpRequest headOf(httplib::Request const& request) {
    HttpRequest plain{request.method, request.path, request.params, {}, {}};
    for (auto const& header : request.headers)
        plain.headers.emplace(lowerCase(header.first), header.second);
    return plain;
}

void answer(httplib::Response& to, HttpResponse const& response) {
    to.status = response.status;
    for (auto const& header : response.headers)
        to.set_header(header.first, header.second);
    if (!response.next) {
        to.set_content(response.body, response.type);
        return;
    }
    to.set_chunked_content_provider(response.type,
                                    [next = response.next](std::size_t, httplib::DataSink& sink) {
                                        std::optional<std::string> const piece = next();
                                        if (!piece)
                                            sink.done();
                                        else if (!piece->empty())
                                            return sink.write(piece->data(), piece->size());
                                        return !piece || sink.is_writable();
                                    });
}

/** Why nobody wants the body of a request; nothing if somebody may. */
std::optional<HttpResponse> refusalOf(
    httplib::Request const& request,
    std::function<std::optional<HttpResponse>(HttpRequest const&)> const& refuse) {
    constexpr int kNotAllowed = 405;
    constexpr int kUnsupported = 415;
    if (request.method != "GET" && request.method != "POST")
        return HttpResponse{kNotAllowed, "text/plain", "GET and POST only\n"};
    if (std::optional<HttpResponse> refusal = refuse(headOf(request)))
        return refusal;
    // Unpacked, it could be of any size.
    if (request.has_header("Content-Encoding"))
        return HttpResponse{kUnsupported, "text/plain", "no Content-Encoding\n"};
    return std::nullopt;
}

}  // namespace

class HttpServer::Server final : public httplib::Server {
public:
    Server(std::string const& address, int port, HttpServer::Handler handler) {
        auto const serve = [serve = std::move(handler.answer)](httplib::Request const& request,
                                                               httplib::Response& response) {
            HttpRequest whole = headOf(request);
            whole.body = request.body;
            answer(response, serve(whole));
        };
        Get(".*", serve);
        Post(".*", serve);
        // The library reads and unpacks a body before it looks whether anybody wants it.
        set_pre_routing_handler([refuse = std::move(handler.refuse)](
                                    httplib::Request const& request, httplib::Response& response) {
            std::optional<HttpResponse> const refusal = refusalOf(request, refuse);
            if (refusal)
                answer(response, *refusal);
            return refusal ? HandlerResponse::Handled : HandlerResponse::Unhandled;
        });
        new_task_queue = [this] { return new Threads(isListening_); };
        set_payload_max_length(kMostBytes);
        set_tcp_nodelay(true);
        // Of its own options one lets another process have the same port.
        set_socket_options([](int socket) {
            int const yes = 1;
            setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
            // Who reads slowly gets what is new, not megabytes of what was.
            int const bytes = 1 << 17;
            setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
        });
        port_ = port == 0 ? bind_to_any_port(address) : bind_to_port(address, port) ? port : -1;
        if (port_ <= 0)
            throw Failure(ExitCode::kNoAccess, "cannot listen at " + address + ":" +
                                                   std::to_string(port) +
                                                   ": not an address of this machine, or in use");
        isListening_ = true;
        listener_ = std::thread([this] {
            try {
                listen_after_bind();
            } catch (std::exception const&) {
                // Without threads or memory it listens no more, which is seen.
            }
            isListening_ = false;
        });
    }
    ~Server() override {
        constexpr std::chrono::seconds kMostToEnd(1);
        // It cannot be stopped before it has begun.
        while (!is_running() && isListening_)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        stop();
        sockets_.end(kMostToEnd);
        listener_.join();
    }
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;

    int port() const { return port_; }
    bool isListening() const { return isListening_; }

private:
    bool process_and_close_socket(socket_t socket) override {
        bool const done = sockets_.enter(socket) && serve(socket);
        sockets_.leave(socket);
        close(socket);
        return done;
    }
    bool serve(int socket) {
        Connection connection(socket);
        bool isClosed = false;
        bool hasBody = false;
        bool const done =
            process_request(connection, true, isClosed, [&](httplib::Request& request) {
                // To compress costs more than it saves here, and nobody wants parts.
                request.headers.erase("Accept-Encoding");
                request.ranges.clear();
                hasBody = request.method != "GET";
                connection.allowBody();
            });
        if (hasBody)
            connection.linger();
        ::shutdown(socket, SHUT_RDWR);
        return done;
    }

    int port_ = -1;
    OpenSockets sockets_;
    std::atomic<bool> isListening_{false};
    std::thread listener_;
};

HttpServer::HttpServer(std::string const& address, int port, Handler handler)
    : server_(std::make_unique<Server>(address, port, std::move(handler))) {}

HttpServer::~HttpServer() {
    constexpr std::chrono::milliseconds kMost(1500);
    auto const over = std::make_shared<std::promise<void>>();
    std::future<void> const end = over->get_future();
    try {
        std::thread([server = std::move(server_), over]() mutable {
            server.reset();
            over->set_value();
        }).detach();
    } catch (std::system_error const&) {
        return;  // want of threads: it has been ended by this one
    }
    end.wait_for(kMost);
}

int HttpServer::port() const {
    return server_->port();
}

bool HttpServer::isListening() const {
    return server_->isListening();
}
