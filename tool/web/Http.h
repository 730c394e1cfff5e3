// What is asked over HTTP and what is answered, and the server that carries both.
#pragma once

#include <algorithm>
#include <cctype>
#include <chrono>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>

/** Headers are compared in it, and names of machines. */
inline std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

/** A request, as far as anybody here wants to know it. A value. */
struct HttpRequest {
    std::string method;                               // "GET", "POST"
    std::string path;                                 // without the query, decoded
    std::multimap<std::string, std::string> query;    // decoded
    std::multimap<std::string, std::string> headers;  // by their names in lower case
    std::string body;

    /** The only header or parameter of this name; empty for none, and for several. */
    std::string header(std::string const& name) const { return only(headers, name); }
    std::string parameter(std::string const& name) const { return only(query, name); }

private:
    static std::string only(std::multimap<std::string, std::string> const& all,
                            std::string const& name) {
        auto const range = all.equal_range(name);
        bool const isOne = range.first != range.second && std::next(range.first) == range.second;
        return isOne ? range.first->second : "";
    }
};

/** What is answered. A value. */
struct HttpResponse {
    int status = 200;
    std::string type = "application/json";
    std::string body;
    std::multimap<std::string, std::string> headers = {};
    /** Of a response without end: its next piece, for which it may wait a moment; nothing ends it,
     * an empty one is none: whether anybody listens still is looked at then. Called by the thread
     * of the connection. */
    std::function<std::optional<std::string>()> next = {};
};

/**
 * Serves HTTP/1.1 with a bounded number of threads, one for each connection, and one request for
 * each connection. Others connect and send what they like: a request that does not come in whole
 * within its time, or is too large, costs a thread for that time and nothing more, and so does an
 * answer that nobody reads. It knows nothing of what it serves. A resource of one thread.
 */
class HttpServer {
public:
    /** What is served; called by several threads at once. */
    struct Handler {
        /** An answer at once, or nothing to have the body read, which is not there yet. */
        std::function<std::optional<HttpResponse>(HttpRequest const&)> refuse;
        std::function<HttpResponse(HttpRequest const&)> answer;
    };

    static constexpr std::size_t kThreads = 40;
    static constexpr std::size_t kMostStreams = 16;  // responses without end; the handler's to keep
    static constexpr std::size_t kMostBytes = 1u << 20;  // of a request's body
    static constexpr std::size_t kMostHead = 64u << 10;  // of its first line and headers
    static constexpr std::chrono::seconds kPatience{
        10};  // until a request is there, or a part is read

    /** Listens; throws a Failure when that cannot be. Port 0: any. */
    HttpServer(std::string const& address, int port, Handler handler);
    /** Stops and waits for the requests that are being answered: streams must have been ended. Who
     * has not asked yet is not heard any more, and who reads slowly has a second for the rest. An
     * answer that takes longer is left to its thread: what the handler uses must stay. */
    ~HttpServer();
    HttpServer(HttpServer const&) = delete;
    HttpServer& operator=(HttpServer const&) = delete;

    int port() const;
    /** False once it cannot listen any more. */
    bool isListening() const;

private:
    class Server;
    std::unique_ptr<Server> server_;
};
