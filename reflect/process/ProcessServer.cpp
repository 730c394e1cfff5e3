#include "reflect/process/ProcessServer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <tuple>

#include "handler_threads/HandlerThreads.h"
#include "handler_threads/WithPermission.h"
#include "logging/Log.h"
#include "oswrap/Clock.h"
#include "reflect/InterfaceRepository.h"
#include "reflect/TreflectMetaAttribute.h"
#include "reflect/TreflectMetaOperation.h"
#include "reflect/TreflectObjectStub.h"
#include "reflect/objects/AttributeChange.h"
#include "reflect/process/Learning.h"
#include "reflect/process/LogNotices.h"
#include "reflect/process/ProcessFacts.h"
#include "transport/IdInfo.h"

namespace {

constexpr std::size_t kMostClasses = 256;    // of one description
constexpr unsigned int kMostObjects = 4096;  // of one answer
constexpr int kHighestLevel = 6;

/** The name in the tree, which has no "/". */
std::string nameOfProcess() {
    std::string name = TreflectProcessObject::identifier();
    name.erase(0, name.find('/') + 1);
    std::replace(name.begin(), name.end(), '/', '_');
    return name;
}

std::string textOf(TipprmiOID const& oid) {
    char const* const text = oid.getIdString();
    return text ? text : "";
}

TreflectMetaObject* find(unsigned int classId) {
    return InterfaceRepository::instance()->findInterface_(classId);
}

std::string nameOfClass(unsigned int classId) {
    TreflectMetaObject const* const meta = find(classId);
    return meta ? meta->name() : "";
}

std::string nameOfOperation(unsigned int classId, int methodCode) {
    std::list<TreflectMetaOperation*> operations;
    if (TreflectMetaObject const* const meta = find(classId))
        meta->operationList(operations);
    for (TreflectMetaOperation const* const operation : operations) {
        if (operation->id() == methodCode)
            return operation->name();
    }
    return "";
}

char const* textOf(TreflectMessage::type_t type) {
    switch (type) {
        case TreflectMessage::tPayload:
            return "call";
        case TreflectMessage::tResolve:
            return "search";
        case TreflectMessage::tOCN:
        case TreflectMessage::tODN:
            return "notice";
        default:
            return "query";
    }
}

processobject::Call callOf(OngoingRequest::Glimpse const& seen, TreflectORB const& orb) {
    processobject::Call call;
    call.thread = static_cast<unsigned int>(seen.thread);
    call.broker = orb.orbId().value();
    call.target = orb.convertId(seen.target).value();
    call.what = textOf(static_cast<TreflectMessage::type_t>(seen.type));
    call.object = seen.object;
    call.classCode = seen.classCode;
    call.methodCode = seen.methodCode;
    call.operation = nameOfOperation(seen.classCode, seen.methodCode);
    if (seen.asleepSince != 0)
        call.milliseconds = static_cast<unsigned int>(
            (OSWrap::Clock::nowNanoseconds() - seen.asleepSince) / 1'000'000);
    return call;
}

processobject::ServedObject servedObjectOf(TipprmiObjectSkeleton const& object,
                                           TreflectORB const& orb) {
    processobject::ServedObject served;
    served.broker = orb.orbId().value();
    served.id = object.getInternalOID();
    served.identifier = textOf(object.getOID());
    TreflectServerObject const* const reflective = object.reflective();
    if (!reflective)
        return served;
    served.name = reflective->objectName();
    TipprmiSequence<unsigned int, 0u> const ids = reflective->getClassIds();
    if (ids.getLength() > 0) {
        served.classId = ids[0];
        served.className = nameOfClass(served.classId);
    }
    return served;
}

processobject::Observation observationOf(TipprmiObjectSkeleton const& object,
                                         TreflectObservation const& seen) {
    processobject::Observation told;
    told.when = seen.kind == TreflectObservable::kBeforeCalls ? processobject::When::BeforeCalls
                                                              : processobject::When::AfterCalls;
    told.object = textOf(object.getOID());
    told.classId = seen.classId;
    told.className = nameOfClass(seen.classId);
    told.methodCode = seen.methodCode;
    told.operation = nameOfOperation(seen.classId, static_cast<int>(seen.methodCode));
    told.observer = textOf(seen.observer->identifier());
    told.broker = seen.observer->getStub_()->orbId().value();
    return told;
}

/** Those who observe the objects of a class: of this process, then of other brokers. */
void addObservers(ClassRecords::Observers const& seen, TreflectORB const& orb,
                  std::vector<processobject::Observation>& told) {
    processobject::Observation one;
    one.when = seen.kind == NoticeKind::Creation ? processobject::When::Creations
                                                 : processobject::When::Deletions;
    one.classId = seen.classId;
    one.className = nameOfClass(seen.classId);
    if (seen.own > 0) {
        one.broker = orb.orbId().value();
        one.observers = static_cast<unsigned int>(seen.own);
        told.push_back(one);
    }
    one.observers = 1;
    for (TreflectOrbId const other : seen.other) {
        one.broker = other.value();
        told.push_back(one);
    }
}

processobject::LogRecord recordOf(Logging::RecentRecord const& kept) {
    std::int64_t const time =
        static_cast<std::int64_t>(kept.time.tv_sec) * 1'000'000 + kept.time.tv_nsec / 1000;
    return {kept.number, kept.level, time,     static_cast<unsigned int>(kept.thread),
            kept.source, kept.line,  kept.text};
}

std::size_t encodedSize(TreflectClassDescription const& description) {
    TipprmiStream stream(4096);
    stream << description;
    return static_cast<std::size_t>(stream.getDataSize());
}

/** A class, its bases, and those classes of values that a reader has room for. */
class Closure {
public:
    explicit Closure(TreflectMetaObject const& meta) {
        add(meta, ~std::size_t{0});
        for (std::size_t at = 0; at < classes_.size(); ++at) {
            std::list<TreflectMetaAttribute*> attributes;
            classes_[at]->attributeList(attributes);
            for (TreflectMetaAttribute const* const attribute : attributes) {
                if (TreflectMetaObject const* const value = attribute->typeMeta())
                    add(*value, Learning::kLargestAnswer);
            }
        }
    }
    std::vector<TreflectClassDescription> takeDescriptions() { return std::move(descriptions_); }

private:
    using Classes = std::vector<TreflectMetaObject const*>;

    bool has(TreflectMetaObject const* meta) const {
        return std::find(classes_.begin(), classes_.end(), meta) != classes_.end();
    }

    /** Adds a class and all its bases, each once; nothing of them when that is too much. */
    void add(TreflectMetaObject const& meta, std::size_t largest) {
        Classes const added = newOnes(meta);
        if (classes_.size() + added.size() > kMostClasses)
            return;
        std::vector<TreflectClassDescription> descriptions;
        std::size_t size = size_;
        for (TreflectMetaObject const* const known : added) {
            descriptions.push_back(TreflectClassDescription::of(*known));
            size += encodedSize(descriptions.back());
        }
        if (size > largest)
            return;
        size_ = size;
        classes_.insert(classes_.end(), added.begin(), added.end());
        std::move(descriptions.begin(), descriptions.end(), std::back_inserter(descriptions_));
    }

    Classes newOnes(TreflectMetaObject const& meta) const {
        Classes added;
        auto const add = [&](TreflectMetaObject const* known) {
            if (!has(known) && std::find(added.begin(), added.end(), known) == added.end())
                added.push_back(known);
        };
        add(&meta);
        for (std::size_t at = 0; at < added.size(); ++at) {
            for (TreflectMetaObject const* const base : added[at]->parents())
                add(base);
        }
        return added;
    }

    Classes classes_;
    std::vector<TreflectClassDescription> descriptions_;  // of these
    std::size_t size_ = sizeof(std::uint32_t);            // of the encoding: a length ahead
};

}  // namespace

/** The same object under the identifier that its broker's id makes, so that who knows the broker
 * of any object finds the process object without asking others. */
class ProcessServer::Door final : public TipprmiObjectSkeleton {
public:
    Door(ProcessServer& server, TipprmiOID const& oid)
        : TipprmiObjectSkeleton(oid), server_(server) {}

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        return server_.dispatch(withResponse, cc, mc, in, out);
    }

private:
    ProcessServer& server_;
};

// ---- The interface ------------------------------------------------------------------------------

namespace {

template <class... Members>
constexpr treflect::Interface<Members...> interfaceOf(Members... members) {
    return {"ReflectProcess", processobject::kClass, {members...}};
}

template <auto Get>
using Value = treflect::ReadOnlyAttribute<Get>;
template <auto Method>
using Action = treflect::Operation<Method>;

}  // namespace

// The table is not made by TreflectInterface, since the process shall know the class only when it
// has such an object, or asks for it.
constexpr auto ProcessServer::interface() {
    using namespace processobject;
    using Server = ProcessServer;
    return interfaceOf(Value<&Server::getIdentity>{"Identity", kGetIdentity},
                       Value<&Server::getUsage>{"Usage", kGetUsage},
                       Value<&Server::getTraffic>{"Traffic", kGetTraffic},
                       Value<&Server::getCalls>{"Calls", kGetCalls},
                       Value<&Server::getPermission>{"Permission", kGetPermission},
                       Value<&Server::getObservations>{"Observations", kGetObservations},
                       treflect::Attribute<&Server::getLogThreshold, &Server::setLogThreshold>{
                           {"LogThreshold", kGetLogThreshold}, kSetLogThreshold},
                       Action<&Server::classes>{"classes", kClasses},
                       Action<&Server::describeClass>{"describe", kDescribe},
                       Action<&Server::describeNamed>{"describeNamed", kDescribeNamed},
                       Action<&Server::objects>{"objects", kObjects},
                       Action<&Server::log>{"log", kLog},
                       Value<&Server::getLastRecord>{"LastRecord", kGetLastRecord});
}

bool ProcessServer::dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                             TipprmiStream& out) {
    static constexpr auto described = interface();
    static_assert(described.hasGoodCodes());
    bool served = false;
    auto const serveBy = [&](auto method) {
        served = serve(processobject::kClass, cc, mc, in, out, method);
        return true;
    };
    bool const known =
        std::apply([&](auto const&... member) { return (member.serve(mc, serveBy) || ...); },
                   described.members);
    return known ? served : TreflectServerObject::dispatch(withResponse, cc, mc, in, out);
}

void ProcessServer::describe(std::vector<TreflectMetaClass::Operation>& operations,
                             std::vector<TreflectMetaClass::Attribute>& attributes) {
    static constexpr auto described = interface();
    std::apply([&](auto const&... member) { (member.describe(operations, attributes), ...); },
               described.members);
    std::map<unsigned int, std::vector<char const*>> const parameters{
        {processobject::kSetLogThreshold, {"level"}},
        {processobject::kDescribe, {"classId"}},
        {processobject::kDescribeNamed, {"className"}},
        {processobject::kObjects, {"broker", "after", "most"}},
        {processobject::kLog, {"after"}}};
    for (TreflectMetaClass::Operation& operation : operations) {
        auto const named = parameters.find(operation.id);
        for (std::size_t i = 0; named != parameters.end() && i < operation.in.size(); ++i)
            operation.in[i] += std::string(" ") + named->second[i];
    }
}

TipprmiSequence<unsigned int, 0u> ProcessServer::getServerClassIdSeq() const {
    return TreflectProcessObject::metaClass().classIds();
}

// ---- Life --------------------------------------------------------------------------------------

ProcessServer::ProcessServer()
    : TreflectServerObject(TipprmiOID(TreflectProcessObject::identifier(), NSID_UNIT), nullptr,
                           nameOfProcess()) {
    TreflectProcessObject::metaClass();
    for (BrokerView const& broker : BrokerView::all())
        join(broker.orb());
}

ProcessServer::~ProcessServer() {
    handlerthreads::trustPermission();
    LogNotices::instance().end();
}

void ProcessServer::join(TreflectORB& orb) {
    TreflectOrbId const id = orb.orbId();
    if (id.namespaceId() == NSID_UNIT && !getORB())
        connect(nullptr, getOID());
    std::unique_ptr<Door>& door = doors_[id.namespaceId()];
    if (!door || door->getORB() != &orb)
        door = std::make_unique<Door>(*this, identifierAt(id));
}

TipprmiOID ProcessServer::identifierAt(TreflectOrbId broker) {
    char text[32];
    std::snprintf(text, sizeof text, "process/0x%08X", broker.value());
    return {text, broker.namespaceId()};
}

// ---- What it tells -----------------------------------------------------------------------------

processobject::Identity ProcessServer::getIdentity() const {
    processobject::Identity identity = processfacts::identity();
    for (BrokerView const& broker : BrokerView::all())
        identity.brokers.push_back(broker.orb().orbId().value());
    return identity;
}

processobject::Usage ProcessServer::getUsage() const {
    handlerthreads::assertPermission();
    processobject::Usage usage = processfacts::usage();
    for (BrokerView const& broker : BrokerView::all())
        usage.objects += static_cast<unsigned int>(broker.objectCount());
    return usage;
}

std::vector<processobject::Traffic> ProcessServer::getTraffic() const {
    handlerthreads::assertPermission();
    std::vector<processobject::Traffic> traffic;
    for (BrokerView const& broker : BrokerView::all()) {
        PerformanceCounters::Records const counters = broker.counters();
        for (unsigned int i = 0; i < counters.getLength(); ++i)
            traffic.push_back({broker.orb().orbId().value(),
                               broker.orb().convertId(counters[i].termination).value(),
                               counters[i].sent, counters[i].failed});
    }
    return traffic;
}

std::vector<processobject::Call> ProcessServer::getCalls() const {
    std::vector<processobject::Call> calls;
    for (BrokerView const& broker : BrokerView::all()) {
        for (OngoingRequest::Glimpse const& seen : broker.requests())
            calls.push_back(callOf(seen, broker.orb()));
    }
    return calls;
}

processobject::Permission ProcessServer::getPermission() const {
    handlerthreads::PermissionGlimpse const seen = TreflectORB::handlerThreads().glimpse();
    processobject::Permission permission;
    permission.holder = static_cast<unsigned int>(seen.holder);
    permission.levels = static_cast<unsigned int>(seen.levels);
    permission.queue.assign(seen.queue.begin(), seen.queue.end());
    return permission;
}

std::vector<processobject::Observation> ProcessServer::getObservations() const {
    handlerthreads::assertPermission();
    std::vector<processobject::Observation> told;
    for (BrokerView const& broker : BrokerView::all()) {
        for (TipprmiObjectSkeleton const* const object : broker.objects()) {
            TreflectServerObject const* const reflective = object->reflective();
            if (!reflective)
                continue;
            for (TreflectObservation const& seen : reflective->observations_())
                told.push_back(observationOf(*object, seen));
        }
        for (ClassRecords::Observers const& seen : broker.classObservers())
            addObservers(seen, broker.orb(), told);
    }
    return told;
}

int ProcessServer::getLogThreshold() const {
    return Logging::threshold();
}

TipprmiResult<void> ProcessServer::setLogThreshold(int level) {
    if (level < 0 || level > kHighestLevel)
        return TipprmiFailure(processobject::kNoThreshold);
    Logging::setThreshold(level);
    return {};
}

std::vector<processobject::KnownClass> ProcessServer::classes() const {
    std::vector<processobject::KnownClass> known;
    for (unsigned int const id : InterfaceRepository::instance()->getIfIds()) {
        if (TreflectMetaObject const* const meta = find(id))
            known.push_back({id, meta->name(), TreflectClassDescription::of(*meta).hash});
    }
    return known;
}

TipprmiResult<std::vector<TreflectClassDescription>> ProcessServer::describeClass(
    unsigned int classId) const {
    TreflectMetaObject const* const meta = find(classId);
    if (!meta)
        return TipprmiFailure(processobject::kUnknownClass);
    return Closure(*meta).takeDescriptions();
}

TipprmiResult<std::vector<TreflectClassDescription>> ProcessServer::describeNamed(
    std::string const& className) const {
    for (unsigned int const id : InterfaceRepository::instance()->getIfIds()) {
        if (nameOfClass(id) == className)
            return describeClass(id);
    }
    return TipprmiFailure(processobject::kUnknownClass);
}

std::vector<processobject::ServedObject> ProcessServer::objects(unsigned int broker,
                                                                unsigned int after,
                                                                unsigned int most) const {
    handlerthreads::assertPermission();
    std::vector<processobject::ServedObject> served;
    for (BrokerView const& view : BrokerView::all()) {
        if (view.orb().orbId().value() != broker)
            continue;
        std::vector<TipprmiObjectSkeleton*> objects = view.objects();
        auto const isTold = [after](auto const* object) {
            return object->getInternalOID() <= after;
        };
        objects.erase(std::remove_if(objects.begin(), objects.end(), isTold), objects.end());
        std::sort(objects.begin(), objects.end(), [](auto const* a, auto const* b) {
            return a->getInternalOID() < b->getInternalOID();
        });
        objects.resize(std::min<std::size_t>({objects.size(), most, kMostObjects}));
        for (TipprmiObjectSkeleton const* const object : objects)
            served.push_back(servedObjectOf(*object, view.orb()));
    }
    return served;
}

std::vector<processobject::LogRecord> ProcessServer::log(std::uint64_t after) const {
    std::vector<processobject::LogRecord> records;
    for (Logging::RecentRecord const& kept : Logging::RecentRecords::after(after))
        records.push_back(recordOf(kept));
    return records;
}

processobject::LogRecord ProcessServer::getLastRecord() const {
    std::uint64_t const last = Logging::RecentRecords::last();
    std::vector<Logging::RecentRecord> const kept =
        Logging::RecentRecords::after(last > 0 ? last - 1 : 0);
    return kept.empty() ? processobject::LogRecord() : recordOf(kept.back());
}

void ProcessServer::registerObserver(unsigned int kind, unsigned int const& cc,
                                     unsigned int const& mc, TreflectObserverClient const& client) {
    handlerthreads::trustPermission();
    TreflectServerObject::registerObserver(kind, cc, mc, client);
    if (kind != kBeforeCalls && mc == (processobject::kGetLastRecord | ChangeKey::kMark))
        LogNotices::instance().begin(*this);
}

void ProcessServer::unRegisterObserver(TreflectObserverClient const& client) {
    handlerthreads::trustPermission();
    TreflectServerObject::unRegisterObserver(client);
    LogNotices::instance().look();
}
