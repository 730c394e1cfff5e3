// A process that serves stations and calls those of others, driven by lines on standard input. An
// answer that comes from a thread of its own may stand behind those of later lines.
//
//   publish NAME [NS]       makes a station; answers "published IOID BROKER TERMINATION"
//   unpublish NAME          destroys it; answers "unpublished"
//   total NAME              answers "total SUM" of the numbers added to a station of this process
//   find NAME [NS]          answers "found IOID BROKER"
//   keep NAME [NS]          makes a handle and keeps it; answers "kept CONNECTED"
//   use NAME                calls rotate through the kept handle; answers "used 1" or "used 0 CODE"
//   useoften NAME COUNT     the same on a thread of its own; answers "calling", then "failed COUNT"
//   add NAME COUNT          adds 1 so often, one-way, through the kept handle; "added COUNT"
//   rotate NAME N TEXT      as `use`, through a new handle; "rotated 1 TEXT" or "rotated 0 CODE"
//   check NAME              calls with every type there and back; "checked" and the faults
//   allocations             answers "allocations COUNT"
//   counters TERMINATION    asks a broker for its counters; answers "counters ACTOR
//                           DESTINATION:SENT:FAILED..."
//   active SLOT             answers "active"
//   renew                   deletes all brokers; answers "renewed"
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include "ActorSide.h"
#include "AllocationCount.h"
#include "Station.h"

namespace {

using station::Client;
using station::Server;
using testsupport::answer;

// ---- Every type there and back ------------------------------------------------------------------

class Check {
public:
    explicit Check(std::string const& name) : far_(name) {}

    std::string faults() {
        numbersAndTexts();
        bodies();
        identifiers();
        failures();
        handles();
        return faults_;
    }

private:
    template <class Result, class... Arguments>
    TipprmiResult<Result> call(unsigned int method, Arguments const&... arguments) const {
        return tipprmiCall<Result>(far_, station::kClass, method, arguments...);
    }
    void expect(bool holds, std::string const& what) {
        if (!holds)
            faults_ += " " + what;
    }
    void numbersAndTexts() {
        for (unsigned int n : {0u, 1u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu})
            expect(far_.answers(n), "rotate:" + std::to_string(n));
        TipprmiSequence<unsigned int> numbers;
        expect(call<int>(station::kSum, numbers).valueOr(1) == 0, "empty-sequence");
        for (unsigned int n = 0; n < 1000; ++n)
            numbers.push_back(n);
        expect(call<int>(station::kSum, numbers).value() == -499500, "sequence");
    }
    void bodies() {
        for (std::size_t size :
             {0u, 1u, 87u, 88u, 89u, 4096u, 16384u, 65537u, 1u << 20, 12u << 20}) {
            std::string const text = station::body(size);
            auto const back = call<std::string>(station::kFlip, text);
            expect(back && back.value() == station::flipped(text), "body:" + std::to_string(size));
        }
        expect(!call<std::string>(station::kFlip, std::string(16u << 20, 'x')),
               "body-beyond-the-limit");
        expect(far_.answers(), "after-large-bodies");
    }
    void identifiers() {
        using Identifiers = TipprmiSequence<TipprmiOID>;
        Identifiers names;
        names.push_back(TipprmiOID("name", NSID_NODE));
        names.setLength(2);
        auto const more = call<Identifiers>(station::kExtend, names, TipprmiOID(".x", NSID_UNIT));
        expect(more && more.value().getLength() == 2, "identifiers");
        expect(more.value()[0] == TipprmiOID("name.x", NSID_UNIT), "identifier");
        expect(more.value()[1].getIdString() == nullptr, "no-identifier");
        auto const first = call<TipprmiOID>(station::kIdentify);
        expect(first && first.value() == TipprmiOID("station", NSID_UNIT), "identifier-as-result");
        expect(call<TipprmiOID>(99).value() == TipprmiOID("", NSID_UNIT),
               "identifier-of-a-failure");
        for (unsigned int id : {0u, 0x01020304u, 0xFFFFFFFFu})
            expect(call<Transport::TerminationId>(station::kSame, Transport::TerminationId(id))
                           .valueOr(77u) == Transport::TerminationId(id),
                   "termination:" + std::to_string(id));
    }
    void failures() {
        for (unsigned int code : {0u, 42u, 0x80000000u, 0xFFFFFFFFu}) {
            auto const refused = call<void>(station::kRefuse, code);
            expect(!refused && refused.code() == code, "refuse:" + std::to_string(code));
        }
        expect(!call<void>(99), "unknown-method");
        expect(call<station::Curious>(station::kPeek, station::Curious{6}).value().value == 7,
               "read-too-far-while-written");
        TipprmiExceptionContainer container;
        container.setExceptionType(7);  // one of type 1 would hide the answer to its own query
        container.setExceptionData(TipprmiGeneralException(5));
        far_.getStub_()->setExceptionContainer(container);
        TipprmiGeneralException code;
        TipprmiExceptionContainer back = far_.getStub_()->getExceptionContainer();
        back.getExceptionData(code);
        expect(back.getExceptionType() == 7 && code.code() == 5, "container");
        expect(!call<unsigned int>(station::kTotal), "container-at-the-head-of-a-response");
        far_.getStub_()->setExceptionContainer(TipprmiExceptionContainer());
        expect(bool(call<unsigned int>(station::kTotal)), "container-taken-back");
    }
    /** A handle on an object of this process, without an identifier, leads back here. */
    void handles() {
        Server near("");
        expect(call<std::string>(station::kVisit, *near.getClient(), "abc").value() == "bca",
               "handle");
        expect(!call<std::string>(station::kVisit, Client(), "abc"), "handle-on-nothing");
    }

    Client const far_;
    std::string faults_;
};

// ---- The commands -------------------------------------------------------------------------------

class Actor {
public:
    /** False when it is no command about a station. */
    bool handle(std::string const& verb, std::istringstream& words) {
        static std::map<std::string, void (Actor::*)(std::string const&, std::istringstream&)> const
            commands{{"publish", &Actor::publish},   {"unpublish", &Actor::unpublish},
                     {"total", &Actor::total},       {"find", &Actor::find},
                     {"keep", &Actor::keep},         {"use", &Actor::use},
                     {"useoften", &Actor::useOften}, {"add", &Actor::add},
                     {"rotate", &Actor::rotate},     {"check", &Actor::check}};
        auto const command = commands.find(verb);
        if (command == commands.end())
            return false;
        std::string name;
        words >> name;
        TreflectHandlerState const inside(true);
        (this->*command->second)(name, words);
        return true;
    }

private:
    static unsigned int number(std::istringstream& words, unsigned int otherwise = 0) {
        unsigned int value = 0;
        return words >> value ? value : otherwise;
    }
    static NamespaceId namespaceIn(std::istringstream& words) {
        return static_cast<NamespaceId>(number(words, NSID_UNIT));
    }

    void publish(std::string const& name, std::istringstream& words) {
        NamespaceId const ns = namespaceIn(words);
        auto& made = stations_[name];
        made = std::make_unique<Server>(name, ns);
        TreflectORB const& orb = *TreflectORB::getInstance(ns);
        answer(std::hex, "published ", made->getInternalOID(), " ", orb.orbId().value(), " ",
               orb.termId().value());
    }
    void unpublish(std::string const& name, std::istringstream&) {
        stations_.erase(name);
        answer("unpublished");
    }
    void total(std::string const& name, std::istringstream&) {
        answer("total ", stations_.at(name)->total());
    }
    void find(std::string const& name, std::istringstream& words) {
        TipprmiOID const oid(name, namespaceIn(words));
        auto const location = TreflectORB::getInstance(NSID_UNIT)->locateObject(oid);
        answer(std::hex, "found ", location.getInternalOID(), " ", location.orbId().value());
    }
    void keep(std::string const& name, std::istringstream& words) {
        auto& handle = handles_[name];
        handle = std::make_unique<Client>(name, namespaceIn(words));
        answer("kept ", handle->isConnected());
    }
    void use(std::string const& name, std::istringstream&) {
        auto const text = handles_.at(name)->rotate(1, "abc");
        answer("used ", text.value() == "bca", text ? "" : " " + std::to_string(text.code()));
    }
    void useOften(std::string const& name, std::istringstream& words) {
        Client const& far = *handles_.at(name);
        std::thread([&far, count = number(words)] {
            unsigned int failed = 0;
            answer("calling");
            for (unsigned int i = 0; i < count; ++i) {
                TreflectHandlerState const inside(true);
                failed += !far.answers(i);
            }
            answer("failed ", failed);
        }).detach();
    }
    void add(std::string const& name, std::istringstream& words) {
        unsigned int added = 0;
        for (unsigned int left = number(words); left > 0; --left)
            added += bool(handles_.at(name)->add(1));
        answer("added ", added);
    }
    void rotate(std::string const& name, std::istringstream& words) {
        unsigned int const count = number(words);
        std::string text;
        words >> text;
        auto const back = Client(name).rotate(count, text);
        answer("rotated ", bool(back), " ", back ? back.value() : std::to_string(back.code()));
    }
    void check(std::string const& name, std::istringstream&) {
        answer("checked", Check(name).faults());
    }

    std::map<std::string, std::unique_ptr<Server>> stations_;
    std::map<std::string, std::unique_ptr<Client>> handles_;
};

void counters(Transport::TerminationId broker) {
    auto const info = TreflectORB::getInstance(NSID_UNIT)->getPerfCnts(broker);
    std::ostringstream words;
    for (unsigned int i = 0; i < info.counters.getLength(); ++i)
        words << " " << std::hex << info.counters[i].termination.value() << std::dec << ":"
              << info.counters[i].sent << ":" << info.counters[i].failed;
    answer("counters ", info.actor, words.str());
}

/** What concerns the process rather than its stations. */
void handleForProcess(std::string const& verb, std::istringstream& words) {
    unsigned int number = 0;
    if (verb == "allocations") {
        answer("allocations ", allocationCount());
    } else if (verb == "counters") {
        words >> std::hex >> number;
        counters(number);
    } else if (verb == "active") {
        words >> number;
        Transport::Setup::activeSlot(static_cast<int>(number));
        answer("active");
    } else if (verb == "renew") {
        prepareOrbForDeletion();
        answer("renewed");
    }
}

}  // namespace

int main() {
    static Actor& actor = *new Actor;  // its stations outlive exit
    testsupport::obeyLines([](std::string const& verb, std::istringstream& words) {
        if (!actor.handle(verb, words))
            handleForProcess(verb, words);
        return true;
    });
}
