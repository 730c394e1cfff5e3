#include "platform/transport/link/Bus.h"

#include <arpa/inet.h>
#include <dds/dds.h>
#include <dds/ddsrt/log.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "Link.h"
#include "logging/LineLimit.h"
#include "oswrap/Clock.h"
#include "oswrap/OutOfMemory.h"
#include "platform/transport/link/Participants.h"

namespace Link {
namespace {

constexpr char const* kSource = "LinkBus";
constexpr std::uint32_t kVersion = 1;
/** What is taken from the engine at a time. */
constexpr std::size_t kSamples = 32;

/** An entity of the engine, or an error of it. A resource. */
class Entity {
public:
    explicit Entity(dds_entity_t handle = 0) : handle_(handle) {}
    ~Entity() {
        if (handle_ > 0)
            dds_delete(handle_);
    }
    Entity(Entity&& other) noexcept : handle_(std::exchange(other.handle_, 0)) {}
    Entity& operator=(Entity&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    dds_entity_t get() const { return handle_; }
    bool valid() const { return handle_ > 0; }

private:
    dds_entity_t handle_;
};

struct DeleteQos {
    void operator()(dds_qos_t* qos) const { dds_delete_qos(qos); }
};
using Qos = std::unique_ptr<dds_qos_t, DeleteQos>;

/** Who writes does so in the partition of its slot: permissions grant no other. Who reads, in all.
 */
constexpr char const* kAllPartitions = "*";

std::string partitionOf(unsigned char slot) {
    return "slot" + std::to_string(unsigned{slot});
}

/** Nothing is lost; who writes is held up for so long when there is no room. */
Qos reliableQos(std::string const& partition, dds_duration_t patience) {
    Qos qos(dds_create_qos());
    dds_qset_partition1(qos.get(), partition.c_str());
    dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, patience);
    return qos;
}

/** One instance of each unit, which those who come later are told of, too. */
Qos unitQos(std::string const& partition) {
    Qos qos = reliableQos(partition, DDS_SECS(1));
    dds_qset_durability(qos.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, 1);
    dds_qset_liveliness(qos.get(), DDS_LIVELINESS_AUTOMATIC, DDS_SECS(1));
    return qos;
}

/** Every piece, in order. */
Qos inboxQos(std::string const& partition) {
    Qos qos = reliableQos(partition, DDS_SECS(10));
    dds_qset_durability(qos.get(), DDS_DURABILITY_VOLATILE);
    dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, 0);
    return qos;
}

std::string inboxTopic(UnitInfo const& unit) {
    char name[64];
    std::snprintf(name, sizeof name, "ReflectOrbInbox_%u_%016llx", unsigned{unit.slot},
                  static_cast<unsigned long long>(unit.epoch));
    return name;
}

bool isAddress(std::string const& interface) {
    in6_addr ignored{};
    return inet_pton(AF_INET, interface.c_str(), &ignored) == 1 ||
           inet_pton(AF_INET6, interface.c_str(), &ignored) == 1;
}

/**
 * Nothing is read from the environment. A lease of a second tells soon of a machine that has gone;
 * the short heartbeat has what is lost at the end of a burst sent again soon.
 */
std::string configuration(BusOptions const& options) {
    std::string discovery =
        "<SPDPInterval>200ms</SPDPInterval><LeaseDuration>1s</LeaseDuration>"
        "<ParticipantIndex>auto</ParticipantIndex>";
    if (!options.peers.empty()) {
        discovery += "<Peers>";
        for (std::string const& peer : options.peers)
            discovery += "<Peer Address=\"" + escaped(peer) + "\"/>";
        discovery += "</Peers>";
    }
    return "<CycloneDDS><Domain id=\"any\"><General><Interfaces><NetworkInterface " +
           std::string(isAddress(options.interface) ? "address" : "name") + "=\"" +
           escaped(options.interface) + "\"/></Interfaces><AllowMulticast>" +
           (options.peers.empty() ? "spdp" : "false") +
           "</AllowMulticast><MaxMessageSize>65500B</MaxMessageSize><FragmentSize>" +
           std::to_string(options.fragment) + "B</FragmentSize></General><Discovery>" + discovery +
           "</Discovery><Internal><Watermarks><WhcHigh>16MB</WhcHigh></Watermarks>"
           "<SocketReceiveBufferSize max=\"8MB\"/><NackDelay>2ms</NackDelay>"
           "<HeartbeatInterval min=\"2ms\" minsched=\"5ms\" max=\"1s\">10ms</HeartbeatInterval>"
           "</Internal>" +
           engineConfiguration(options.security) + "</Domain></CycloneDDS>";
}

/** The engine writes many lines a second while its interface is down. */
void logOfEngine(void*, dds_log_data_t const* data) {
    static Logging::LineLimit limit;
    int const level = (data->priority & (DDS_LC_FATAL | DDS_LC_ERROR)) != 0 ? 3 : 4;
    std::size_t size = data->size;
    while (size > 0 && data->message[size - 1] == '\n')
        --size;
    REFLECTORB_LOG_LIMITED(limit, level, kSource, "engine: %.*s", static_cast<int>(size),
                           data->message);
}

/** Loans of the engine, given back at the end of the scope. */
template <typename Sample>
class Taken {
public:
    explicit Taken(dds_entity_t reader) : reader_(reader) {
        count_ = dds_take(reader_, samples_.data(), infos_.data(), kSamples, kSamples);
    }
    ~Taken() {
        if (count_ > 0)
            dds_return_loan(reader_, samples_.data(), count_);
    }
    Taken(Taken const&) = delete;
    Taken& operator=(Taken const&) = delete;
    std::size_t count() const { return count_ > 0 ? static_cast<std::size_t>(count_) : 0; }
    Sample const& operator[](std::size_t i) const {
        return *static_cast<Sample const*>(samples_[i]);
    }
    dds_sample_info_t const& info(std::size_t i) const { return infos_[i]; }

private:
    dds_entity_t const reader_;
    std::array<void*, kSamples> samples_{};
    std::array<dds_sample_info_t, kSamples> infos_{};
    dds_return_t count_ = 0;
};

/** Who writes samples, as the engine knows it. */
struct Publisher {
    Participants::Guid participant{};
    std::string partition;
};

Participants::Guid guidOf(dds_guid_t const& key) {
    Participants::Guid guid;
    static_assert(sizeof key.v == sizeof guid);
    std::memcpy(guid.data(), key.v, sizeof guid);
    return guid;
}

std::string partitionIn(dds_qos_t const* qos) {
    std::string partition;
    std::uint32_t count = 0;
    char** names = nullptr;
    if (!dds_qget_partition(qos, &count, &names))
        return partition;
    if (count == 1)
        partition = names[0];
    for (std::uint32_t i = 0; i < count; ++i)
        dds_free(names[i]);
    dds_free(names);
    return partition;
}

/** Nothing once the engine has lost sight of it. */
std::optional<Publisher> publisherOf(dds_entity_t reader, dds_instance_handle_t writer) {
    std::unique_ptr<dds_builtintopic_endpoint_t, decltype(&dds_builtintopic_free_endpoint)> const
        endpoint(dds_get_matched_publication_data(reader, writer), dds_builtintopic_free_endpoint);
    if (endpoint == nullptr)
        return std::nullopt;
    return Publisher{guidOf(endpoint->participant_key), partitionIn(endpoint->qos)};
}

/** What a participant says of itself. */
std::string propertyOf(dds_qos_t const* qos, char const* name) {
    char* value = nullptr;
    if (!dds_qget_prop(qos, name, &value))
        return "?";
    std::string const text = value;
    dds_free(value);
    return text;
}

std::string nameOf(dds_qos_t const* qos) {
    return propertyOf(qos, "__ProcessName") + "[" + propertyOf(qos, "__Pid") + "] of host " +
           propertyOf(qos, "__Hostname") + ", " + propertyOf(qos, "__NetworkAddresses");
}

class EngineWriter final : public BusWriter {
public:
    EngineWriter(Entity topic, Entity writer, std::uint64_t epoch)
        : topic_(std::move(topic)), writer_(std::move(writer)), epoch_(epoch) {}

    bool write(Piece const& piece) override {
        ReflectOrbLink_Piece sample{};
        sample.epoch = epoch_;
        sample.from_token = piece.head.fromToken;
        sample.to_token = piece.head.toToken;
        sample.number = piece.head.number;
        sample.taken = piece.head.taken;
        sample.records._length = sample.records._maximum = static_cast<std::uint32_t>(piece.size());
        sample.records._buffer = const_cast<unsigned char*>(piece.data());  // is only read
        dds_return_t const result = dds_write(writer_.get(), &sample);
        if (result == DDS_RETCODE_OK)
            return true;
        static Logging::LineLimit limit;
        REFLECTORB_LOG_LIMITED(limit, 3, kSource, "could not write to another link: %s",
                               dds_strretcode(result));
        return false;
    }

private:
    Entity const topic_;
    Entity const writer_;
    std::uint64_t const epoch_;
};

class EngineBus final : public Bus {
public:
    EngineBus(UnitInfo own, BusListener& listener) : own_(std::move(own)), listener_(listener) {}
    /** Readers first, so that nothing is told any more. */
    ~EngineBus() override {
        retire();
        sightings_ = Entity();
        inbox_ = Entity();
        units_ = Entity();
    }

    /** The name of what failed, or null. */
    char const* open(BusOptions const& options, dds_return_t& error);
    bool announce() override;
    void retire() override;
    int tellStrangers() override {
        return participants_.tellStrangers(OSWrap::Clock::nowNanoseconds());
    }
    std::unique_ptr<BusWriter> writerTo(UnitInfo const& unit) override;

private:
    bool made(Entity& entity, dds_entity_t handle) {
        error_ = handle;
        entity = Entity(handle);
        return handle > 0;
    }
    bool makeReader(Entity& reader, Entity const& topic, Qos const& qos,
                    dds_on_data_available_fn hook);
    static void onUnits(dds_entity_t reader, void* self);
    static void onPieces(dds_entity_t reader, void* self);
    static void onParticipants(dds_entity_t reader, void* self);
    void unitTaken(ReflectOrbLink_Unit const& unit, dds_sample_info_t const& info,
                   dds_entity_t reader);
    void pieceTaken(ReflectOrbLink_Piece const& piece, dds_sample_info_t const& info,
                    dds_entity_t reader);
    bool mayAnnounce(ReflectOrbLink_Unit const& unit, dds_entity_t reader,
                     dds_instance_handle_t writer);
    bool isOfAnnouncer(std::uint64_t epoch, dds_entity_t reader, dds_instance_handle_t writer);
    bool watchStrangers();

    UnitInfo const own_;
    BusListener& listener_;
    dds_entity_t error_ = 0;
    Entity domain_;
    Entity participant_;
    Entity unitTopic_;
    Entity inboxTopic_;
    Entity announcement_;
    Entity units_;
    Entity inbox_;
    Entity sightings_;  // only where links authenticate each other
    bool announced_ = false;
    Participants participants_;
};

char const* EngineBus::open(BusOptions const& options, dds_return_t& error) {
    Qos const unit = unitQos(kAllPartitions), inbox = inboxQos(kAllPartitions);
    Qos const ownUnit = unitQos(partitionOf(own_.slot));
    char const* failed = nullptr;
    if (!made(domain_, dds_create_domain(options.domain, configuration(options).c_str())))
        failed = "domain";
    else if (!made(participant_, dds_create_participant(options.domain, nullptr, nullptr)))
        failed = "participant";
    else if (!made(unitTopic_, dds_create_topic(participant_.get(), &ReflectOrbLink_Unit_desc,
                                                "ReflectOrbUnits", nullptr, nullptr)) ||
             !made(inboxTopic_, dds_create_topic(participant_.get(), &ReflectOrbLink_Piece_desc,
                                                 inboxTopic(own_).c_str(), nullptr, nullptr)))
        failed = "topic";
    else if (!makeReader(inbox_, inboxTopic_, inbox, onPieces) ||
             !makeReader(units_, unitTopic_, unit, onUnits))
        failed = "reader";
    else if (!made(announcement_,
                   dds_create_writer(participant_.get(), unitTopic_.get(), ownUnit.get(), nullptr)))
        failed = "writer";
    else if (options.security.wanted() && !watchStrangers())
        failed = "reader of participants";
    error = error_;
    return failed;
}

bool EngineBus::makeReader(Entity& reader, Entity const& topic, Qos const& qos,
                           dds_on_data_available_fn hook) {
    dds_listener_t* const listener = dds_create_listener(this);
    dds_lset_data_available(listener, hook);
    bool const done =
        made(reader, dds_create_reader(participant_.get(), topic.get(), qos.get(), listener));
    dds_delete_listener(listener);
    return done;
}

/** Nothing may be thrown into the engine; and who is there is told once. */
void EngineBus::onUnits(dds_entity_t reader, void* self) {
    for (;;) {
        Taken<ReflectOrbLink_Unit> const taken(reader);
        if (taken.count() == 0)
            return;
        for (std::size_t i = 0; i < taken.count(); ++i)
            OSWrap::untilMemory(
                [&] { static_cast<EngineBus*>(self)->unitTaken(taken[i], taken.info(i), reader); });
    }
}

/** By the reader that is told of, since units_ may not be known yet. */
void EngineBus::unitTaken(ReflectOrbLink_Unit const& unit, dds_sample_info_t const& info,
                          dds_entity_t reader) {
    if (info.instance_state != DDS_ALIVE_INSTANCE_STATE) {
        if (!isOfAnnouncer(unit.epoch, reader, info.publication_handle))
            return;
        participants_.lost(unit.epoch);
        listener_.unitLost(unit.epoch);
    } else if (info.valid_data && unit.version == kVersion &&
               mayAnnounce(unit, reader, info.publication_handle)) {
        listener_.unitSeen({unit.epoch, unit.slot, printable(unit.machine)});
    }
}

bool EngineBus::mayAnnounce(ReflectOrbLink_Unit const& unit, dds_entity_t reader,
                            dds_instance_handle_t writer) {
    std::optional<Publisher> const publisher = publisherOf(reader, writer);
    if (!publisher)
        return false;
    if (publisher->partition == partitionOf(unit.slot) &&
        participants_.announced(unit.epoch, writer, publisher->participant))
        return true;
    static Logging::LineLimit limit;
    REFLECTORB_LOG_LIMITED(limit, 3, kSource,
                           "a link that may be %s announces itself as slot %u, machine %s: it is "
                           "passed over",
                           publisher->partition.c_str(), unsigned{unit.slot},
                           printable(unit.machine).c_str());
    return false;
}

/** The engine is asked once for each writer. */
bool EngineBus::isOfAnnouncer(std::uint64_t epoch, dds_entity_t reader,
                              dds_instance_handle_t writer) {
    if (std::optional<bool> const known = participants_.isKnown(epoch, writer))
        return *known;
    std::optional<Publisher> const publisher = publisherOf(reader, writer);
    return publisher && participants_.isOf(epoch, writer, publisher->participant);
}

/** A piece that there is no memory for is missing, which its session notices. */
void EngineBus::onPieces(dds_entity_t reader, void* self) {
    for (;;) {
        Taken<ReflectOrbLink_Piece> const taken(reader);
        if (taken.count() == 0)
            return;
        for (std::size_t i = 0; i < taken.count(); ++i)
            if (!OSWrap::withMemory([&] {
                    static_cast<EngineBus*>(self)->pieceTaken(taken[i], taken.info(i), reader);
                }))
                OSWrap::awaitMemory();
    }
}

void EngineBus::pieceTaken(ReflectOrbLink_Piece const& piece, dds_sample_info_t const& info,
                           dds_entity_t reader) {
    if (!info.valid_data || piece.records._length > kMostPieceBytes ||
        !isOfAnnouncer(piece.epoch, reader, info.publication_handle))
        return;
    PieceHead const head{piece.from_token, piece.to_token, piece.number, piece.taken};
    listener_.pieceArrived(piece.epoch, head, piece.records._buffer, piece.records._length);
}

bool EngineBus::watchStrangers() {
    dds_listener_t* const listener = dds_create_listener(this);
    dds_lset_data_available(listener, onParticipants);
    bool const done =
        made(sightings_, dds_create_reader(participant_.get(), DDS_BUILTIN_TOPIC_DCPSPARTICIPANT,
                                           nullptr, listener));
    dds_delete_listener(listener);
    return done;
}

void EngineBus::onParticipants(dds_entity_t reader, void* self) {
    EngineBus& bus = *static_cast<EngineBus*>(self);
    dds_guid_t own{};
    dds_get_guid(dds_get_participant(reader), &own);
    for (;;) {
        Taken<dds_builtintopic_participant_t> const taken(reader);
        if (taken.count() == 0)
            return bus.listener_.strangerSeen();
        for (std::size_t i = 0; i < taken.count(); ++i) {
            Participants::Guid const guid = guidOf(taken[i].key);
            OSWrap::untilMemory([&] {
                if (taken.info(i).instance_state != DDS_ALIVE_INSTANCE_STATE)
                    bus.participants_.gone(guid);
                else if (guid != guidOf(own))
                    bus.participants_.seen(guid, nameOf(taken[i].qos),
                                           OSWrap::Clock::nowNanoseconds());
            });
        }
    }
}

bool EngineBus::announce() {
    ReflectOrbLink_Unit unit{};
    unit.epoch = own_.epoch;
    unit.version = kVersion;
    unit.slot = own_.slot;
    unit.machine = const_cast<char*>(own_.machine.c_str());  // is only read
    announced_ = dds_write(announcement_.get(), &unit) == DDS_RETCODE_OK;
    return announced_;
}

void EngineBus::retire() {
    if (!std::exchange(announced_, false))
        return;
    ReflectOrbLink_Unit unit{};
    unit.epoch = own_.epoch;
    dds_dispose(announcement_.get(), &unit);
}

std::unique_ptr<BusWriter> EngineBus::writerTo(UnitInfo const& unit) {
    Entity topic, writer;
    if (made(topic, dds_create_topic(participant_.get(), &ReflectOrbLink_Piece_desc,
                                     inboxTopic(unit).c_str(), nullptr, nullptr)) &&
        made(writer, dds_create_writer(participant_.get(), topic.get(),
                                       inboxQos(partitionOf(own_.slot)).get(), nullptr)))
        return std::make_unique<EngineWriter>(std::move(topic), std::move(writer), own_.epoch);
    REFLECTORB_LOG(3, kSource, "no way to the link of slot %u: %s", unsigned{unit.slot},
                   dds_strretcode(error_));
    return nullptr;
}

}  // namespace

Bus::Opened Bus::open(BusOptions const& options, UnitInfo const& own, BusListener& listener) {
    dds_set_log_sink(logOfEngine, nullptr);
    auto bus = std::make_unique<EngineBus>(own, listener);
    dds_return_t error = 0;
    char const* const failed = bus->open(options, error);
    if (failed == nullptr)
        return {std::move(bus)};
    static Logging::LineLimit limit(1);
    bool const refused = error == DDS_RETCODE_NOT_ALLOWED_BY_SECURITY;
    if (refused)
        REFLECTORB_LOG_LIMITED(limit, 3, kSource, "%s does not let this machine be slot %u: no %s",
                               options.security.folder.c_str(), unsigned{own.slot}, failed);
    else
        REFLECTORB_LOG_LIMITED(limit, 3, kSource, "no %s on %s: %s", failed,
                               options.interface.c_str(), dds_strretcode(error));
    return {nullptr, refused};
}

}  // namespace Link
