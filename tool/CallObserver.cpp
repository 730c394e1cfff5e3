#include "CallObserver.h"

#include <fmt/format.h>
#include <transport.h>

#include <map>

#include "Failure.h"

namespace {

/** A refusal as it stands in an exception container. */
struct Refusal {
    unsigned int code = 0;
    TipprmiAny fields;

    friend TipprmiStream& operator>>(TipprmiStream& stream, Refusal& refusal) {
        stream >> refusal.code;
        if (!refusal.fields.takeRest(stream))
            stream.stopUnmarshalling();
        return stream;
    }
};

Fate fateOf(TreflectCallOutcome& outcome) {
    if (!outcome.isKnown)
        return {};
    if (outcome.exception.getExceptionType() == 0)
        return {Fate::Kind::kDone, 0, {}};
    Refusal refusal;
    outcome.exception.getExceptionData(refusal);
    bool const isForbidden = refusal.code == TipprmiFailure::kVetoed;
    return {isForbidden ? Fate::Kind::kForbidden : Fate::Kind::kRefused, refusal.code,
            refusal.fields};
}

/** The name of the process of a broker that is there; it is asked for each of its calls. Under the
 * run permission. */
std::string processOf(unsigned int broker) {
    constexpr std::size_t kMost = 1000;
    static std::map<unsigned int, std::string> known;
    auto const found = known.find(broker);
    if (found != known.end())
        return found->second;
    TreflectORB const& orb = *TreflectORB::getInstance(NSID_UNIT);
    Transport::TerminationId const id = orb.convertId(TreflectOrbId(broker));
    Transport::Owner const owner = Transport::TransportLayer::instance().ownerOf(id);
    if (owner.process == 0)
        return fmt::format("broker 0x{:08X}", broker);
    bool const isHere = id.slotId() == Transport::IdInfo::instance().getSlot();
    std::string const name = isHere ? fmt::format("{}.{}", owner.actor, owner.process)
                                    : fmt::format("{}@{}", owner.actor, id.slotId());
    if (known.size() == kMost)
        known.clear();
    return known[broker] = name;
}

}  // namespace

char const* Fate::name() const {
    switch (kind) {
        case Kind::kDone:
            return "done";
        case Kind::kRefused:
            return "refused";
        case Kind::kForbidden:
            return "vetoed";
        case Kind::kEnded:
            break;
    }
    return "ended";
}

std::string nameOfException(TreflectParameterType const& type) {
    constexpr char kStruct[] = "struct ";
    std::string const name = type.name();
    std::size_t const begin = name.rfind(kStruct, 0) == 0 ? sizeof kStruct - 1 : 0;
    return name.substr(begin, name.find('{') - begin);
}

std::string Fate::text(TreflectParameterType const& exception) const {
    if (!isRefusal())
        return {};
    std::string const text = failureOf(code, nameOfException(exception)).what();
    if (!exception.isValid() || fields.getDataSize() == 0)
        return text;
    TipprmiResult<std::string> const told = exception.print(fields);
    return told ? text + " " + told.value() : text;
}

bool CallObserver::observe(TreflectObject const& object, TreflectMetaOperation const& operation) {
    methodCode_ = static_cast<unsigned int>(operation.id());
    arguments_ = static_cast<unsigned int>(operation.argumentTypes().size());
    TreflectMetaOperation const outcome = TreflectCallOutcome::of(operation);
    TreflectObjectStub const* const stub = object.getStub_();
    return stub && stub->observe(TreflectObservable::kAfterCalls, &outcome, this) &&
           stub->observe(TreflectObservable::kBeforeCalls, &operation, this);
}

bool CallObserver::notify(TreflectObject const&, unsigned int const&,
                          unsigned int const& methodCode, Values const& told, bool& alive) {
    alive = true;
    if (methodCode == methodCode_)
        hearOfBegin(told);
    else
        hearOfEnd(told);
    return true;
}

void CallObserver::hearOfBegin(Values const& told) const {
    std::optional<TreflectCallOutcome::Begun> const begun =
        TreflectCallOutcome::begunCall(told, arguments_);
    HeardCall call;
    call.values = told;
    if (begun) {
        call.number = begun->number;
        call.caller = processOf(begun->caller);
        call.values.setLength(arguments_);
    }
    if (begun_)
        begun_(call);
}

void CallObserver::hearOfEnd(Values const& told) const {
    std::optional<TreflectCallOutcome> outcome = TreflectCallOutcome::read(told);
    if (!outcome || !ended_)
        return;
    HeardCall const call{outcome->call.number, processOf(outcome->call.caller), outcome->results};
    ended_(call, fateOf(*outcome));
}
