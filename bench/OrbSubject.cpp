#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "Child.h"
#include "Gauge.h"
#include "Subject.h"
#include "handler_threads.h"
#include "ipprmi.h"
#include "logging.h"
#include "reflect.h"
#include "transport.h"

namespace bench {

namespace {

constexpr unsigned int kClass = 0xBE4C4001;

enum Method : unsigned int { kExchange = 1, kBody = 2, kNotice = 3, kCount = 4 };

TipprmiOID targetOid(NamespaceId space) {
    return {"bench/target", space};
}

TipprmiOID gaugeOid(NamespaceId space) {
    return {"bench/gauge", space};
}

/** The object whose operations are measured. */
class TargetSkeleton : public TipprmiObjectSkeleton {
public:
    explicit TargetSkeleton(NamespaceId space) : TipprmiObjectSkeleton(targetOid(space)) {}

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        if (cc != kClass)
            return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
        switch (mc) {
            case kExchange:
                exchange(in, out);
                return true;
            case kBody:
                return serve(cc, mc, in, out, &TargetSkeleton::echo);
            case kNotice:
                ++notices_;
                return true;
            case kCount:
                prepareResponseStream_(out);
                out << notices_;
                return true;
            default:
                return TipprmiObjectSkeleton::dispatch(withResponse, cc, mc, in, out);
        }
    }

private:
    void exchange(TipprmiStream& in, TipprmiStream& out) {
        unsigned int number = 0;
        in >> number >> text_;
        prepareResponseStream_(out);
        out << number + 1 << text_;
    }

    std::string echo(std::string_view body) { return std::string(body); }

    unsigned int notices_ = 0;  // guarded by the run permission, as all server objects are
    std::string text_;          // the same; kept to save its allocation per call
};

/** One operation as ClientCallHelper sees it, the argument lists given as functions. */
template <class Write, class Read>
class Call final : public ClientCallHookBaseV, public InParamHook, public OutParamHook {
public:
    Call(Write write, Read read) : write_(write), read_(read) {}

    void callServer(TreflectServerObject&) const override {}
    void fillParams(TipprmiSequence<TipprmiAny, 0u>&) const override {}
    char const* operationName() const override { return "bench"; }
    void evaluateResponse(TipprmiStream& response) const override {
        failed_ = response.hasUnmarshallingFailed();
    }
    void marshall(TipprmiStream& request) const override { write_(request); }
    void unmarshall(TipprmiStream& response) const override { read_(response); }

    bool perform(TipprmiObjectClient const& target, unsigned int method, bool withResponse) {
        ClientCallHelper(*this, *this, *this, *target.getStub_(), nullptr, kClass, method,
                         withResponse);
        return !failed_;
    }

private:
    Write write_;
    Read read_;
    mutable bool failed_ = true;
};

class OrbClient : public Client {
public:
    OrbClient(TipprmiObjectClient const& target, GaugeClient const& gauge)
        : target_(target), gauge_(gauge), text_(gauge_.attribute("Text")) {}

    void enterThread() override { TreflectORB::enterHandlerState(true); }
    void leaveThread() override { TreflectORB::leaveHandlerState(true); }

    bool call() override {
        static std::string const text(32, 'x');
        static thread_local std::string answer;
        unsigned int number = 0;
        Call exchange([&](TipprmiStream& in) { in << 7u << text; },
                      [&](TipprmiStream& out) { out >> number >> answer; });
        return exchange.perform(target_, kExchange, true) && number == 8 && answer == text;
    }

    bool callBody(std::size_t bytes) override {
        if (body_.size() != bytes)
            body_.assign(bytes, 'b');
        std::string const answer = tipprmiCall<std::string>(target_, kClass, kBody, body_).value();
        return answer.size() == bytes;
    }

    bool sendOneWay() override {
        Call notice([](TipprmiStream&) {}, [](TipprmiStream&) {});
        return notice.perform(target_, kNotice, false);
    }

    std::uint32_t servedOneWays() override {
        unsigned int count = 0;
        Call ask([](TipprmiStream&) {}, [&](TipprmiStream& out) { out >> count; });
        return ask.perform(target_, kCount, true) ? count : 0;
    }

    bool fetch(Fetch how) override {
        switch (how) {
            case Fetch::kCall: {
                TipprmiResult<std::string> const text = gauge_.getText();
                return text && text.value().size() == 32;
            }
            case Fetch::kBound:
                return isRead(text_);
            case Fetch::kByName: {
                // What is found by name lives as long as the handle: one for each question.
                TreflectObject const handle(gauge_);
                return isRead(handle.attribute("Text"));
            }
        }
        return false;
    }

private:
    static bool isRead(TreflectAttribute const& attribute) {
        std::string text;
        return attribute.get(text) == 0 && text.size() == 32;
    }

    TipprmiObjectClient const target_;
    GaugeClient const gauge_;
    TreflectAttribute& text_;  // bound to gauge_
    std::string body_;
};

class Orb : public Subject {
public:
    explicit Orb(NamespaceId space) : space_(space) {}

    void serve(std::string const& folder) override {
        configure(folder, "bench-server");
        TreflectORB::enterHandlerState(true);
        TargetSkeleton target(space_);
        Gauge const gauge(gaugeOid(space_), nullptr, "gauge");
        TreflectORB::releaseRunPermission();
        announceAndWait();
        TreflectORB::getRunPermission();
    }

    std::unique_ptr<Client> connect(std::string const& folder) override {
        configure(folder, "bench-client");
        TreflectHandlerState const permission(true);
        for (int tries = 0; tries < 100; ++tries) {
            TipprmiObjectClient const target(targetOid(space_));
            GaugeClient const gauge(gaugeOid(space_));
            if (target.isConnected() && gauge.isConnected())
                return std::make_unique<OrbClient>(target, gauge);
            usleep(100'000);  // its machine may not be in sight yet
        }
        std::fputs("the server object was not found\n", stderr);
        return nullptr;
    }

private:
    static void configure(std::string const& folder, std::string const& actor) {
        Logging::setThreshold(3);
        Transport::Setup::directory(folder);
        Transport::Setup::actor(actor);
    }

    NamespaceId const space_;
};

}  // namespace

std::unique_ptr<Subject> makeOrb() {
    return std::make_unique<Orb>(NSID_UNIT);
}

std::unique_ptr<Subject> makeOrbOfNode() {
    return std::make_unique<Orb>(NSID_NODE);
}

}  // namespace bench
