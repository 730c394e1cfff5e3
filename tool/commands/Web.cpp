// reflectorb web: the platform in a browser, and for programs over HTTP.
#include <unistd.h>

#include <optional>

#include "Commands.h"
#include "Staying.h"
#include "Units.h"
#include "web/Api.h"
#include "web/Gate.h"
#include "web/Http.h"
#include "web/Hub.h"

namespace {

constexpr int kPort = 8047;

/** Where to listen. A value. */
struct Address {
    std::string host = "127.0.0.1";
    int port = kPort;

    /** HOST, HOST:PORT or [HOST]:PORT. Throws a Failure for any other text. */
    explicit Address(std::string const& text) {
        std::size_t const bracket = text.rfind(']');
        std::size_t const colon = text.rfind(':');
        bool const hasPort =
            colon != std::string::npos &&
            (bracket != std::string::npos ? colon == bracket + 1 : text.find(':') == colon);
        if (!text.empty())
            host = text.substr(0, hasPort ? colon : std::string::npos);
        if (host.size() > 2 && host.front() == '[' && host.back() == ']')
            host = host.substr(1, host.size() - 2);
        if (hasPort)
            port = portIn(text.substr(colon + 1));
        if (host.empty())
            throw Failure(ExitCode::kWrongUse, "\"" + text + "\" is no address");
    }

    /** Every address of this machine, by which none is called. */
    bool isAny() const {
        return host.find_first_not_of(".0") == std::string::npos ||
               host.find_first_not_of(":0") == std::string::npos;
    }
    std::string inUrl() const {
        return host.find(':') == std::string::npos ? host : "[" + host + "]";
    }

private:
    static int portIn(std::string const& text) {
        constexpr int kHighest = 65535;
        bool const isNumber = !text.empty() && text.size() <= 5 &&
                              text.find_first_not_of("0123456789") == std::string::npos;
        int const number = isNumber ? std::stoi(text) : -1;
        if (number < 0 || number > kHighest)
            throw Failure(ExitCode::kWrongUse, "\"" + text + "\" is no port");
        return number;
    }
};

/** In lower case, as browsers write it; empty when others cannot know it by that. */
std::string nameOfThisMachine() {
    char bytes[256] = {};
    std::string name = gethostname(bytes, sizeof bytes - 1) == 0 ? lowerCase(bytes) : "";
    bool const isPlain =
        name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-_.") == std::string::npos;
    return isPlain && name != "localhost" ? name : "";
}

/** Serves until the session ends. The gate is made when the port is known, before anybody can ask:
 * requests wait for it. */
class WebSession final : public Session {
public:
    WebSession(Settings const& settings, Address& address, Gate::Rules rules)
        : hub_(*new Hub(settings)) {
        hub_.tend();
        server_.emplace(
            address.host, address.port,
            HttpServer::Handler{[this](HttpRequest const& head) { return api().refuse(head); },
                                [this](HttpRequest const& whole) { return api().answer(whole); }});
        address.port = rules.port = server_->port();
        std::lock_guard<std::mutex> const lock(mutex_);
        api_.emplace(settings, Gate(std::move(rules)), hub_);
        changed_.notify_all();
    }

    bool goOn() override {
        hub_.tend();
        return server_->isListening();
    }
    void end() override {
        hub_.close();
        isCutOff_ = !server_->isListening();
        server_.reset();
    }
    ExitCode outcome() const override { return isCutOff_ ? ExitCode::kNoAccess : ExitCode::kDone; }

private:
    Api& api() {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [this] { return api_.has_value(); });
        return *api_;
    }

    Hub& hub_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<Api> api_;  // set under mutex_, once
    std::optional<HttpServer> server_;
    bool isCutOff_ = false;
};

class Web final : public Command {
public:
    Web() : Command("web", "Show all of it in a browser, and serve it to programs over HTTP") {}

    void declare(Options& options) override {
        options.text("--listen", "ADDRESS[:PORT]", listen_,
                     "Where to listen: 127.0.0.1:8047 unless told; port 0 takes any");
        options.flag("--allow-changes", mayChange_, "Let attributes be set and operations called");
        options.text("--token-file", "FILE", tokenFile_,
                     "The token is the first line of this file, instead of a new one");
        options.flag("--no-token", noToken_, "Ask for no token; on this machine only");
    }
    ExitCode run(Tool&) override { return ExitCode::kDone; }
    bool stays() const override { return true; }
    ExitCode stay(Settings const& settings, Output& output) override {
        Address address(listen_);
        bool const isOpen =
            address.host != "127.0.0.1" && address.host != "localhost" && address.host != "::1";
        if (noToken_ && isOpen)
            throw Failure(ExitCode::kWrongUse,
                          "--listen " + listen_ + " lets other machines in: not without a token");
        Gate::Rules const rules{tokenOf(), isOpen, nameOfThisMachine(), 0, mayChange_};
        return stayInGroup(settings, output, 0, [&](Tool&, Events& events) {
            auto session = std::make_unique<WebSession>(settings, address, rules);
            bool const isNamed = address.isAny() && !rules.name.empty();
            std::string const url = "http://" + (isNamed ? rules.name : address.inUrl()) + ":" +
                                    std::to_string(address.port) + "/" +
                                    (rules.token.empty() ? "" : "?token=" + rules.token);
            // People get the address alone.
            events.addOwn({url,
                           {{"time", timeNow()},
                            {"event", "begun"},
                            {"address", url},
                            {"changes", mayChange_}}});
            if (address.isAny())
                output.note("each address of this machine will do in place of " +
                            (isNamed ? rules.name : address.inUrl()));
            output.note("Ctrl-C ends");
            return session;
        });
    }

private:
    std::string tokenOf() const {
        if (noToken_)
            return {};
        return tokenFile_.empty() ? Gate::makeToken() : Gate::readToken(tokenFile_);
    }

    std::string listen_;
    std::string tokenFile_;
    bool mayChange_ = false;
    bool noToken_ = false;
};

}  // namespace

std::unique_ptr<Command> makeWeb() {
    return std::make_unique<Web>();
}
