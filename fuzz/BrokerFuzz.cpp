// A broker with a few objects, and a peer that plays another broker: it sends requests, responses
// and notices of unknown origin, and gives answers of unknown origin to what it is asked.
#include <deque>

#include "FuzzProcess.h"
#include "Script.h"
#include "tests/reflect/ReflectiveClasses.h"
#include "tests/support/RawPeer.h"

namespace {

/**
 * An input is a row of steps: a step's byte, the length of its text in a byte (255: all the rest),
 * the text. The byte's lower half, or what it says from 11 on, is the step; with kRaw the text is a
 * payload as it stands, else the data of a stream, whose length the target puts before it. With
 * kForged a response comes from a stranger; an answer is the stranger's, who knows the transaction
 * id, to a call that is made at once, and comes just before that of the peer, which must count.
 *
 * Four bytes FE ED w k in a text stand for a number that is different in each run: w says which
 * (see number), k of which object.
 *
 * With FUZZ_REQUEST=n in the environment all requests are of type n: one type at a time gets
 * further, as what the inputs reach is not shared with the others.
 */
enum Step : unsigned char {
    kRequest,  // 0 to 10: a request of this type
    kOneWay = 11,
    kResponse,       // that nobody waits for, unless its id is that of a call
    kNoDestination,  // likewise
    kAnswer,         // the peer's answer to the next question
    kUndeliverable,  // instead of an answer
    kWholeMessage,   // with its header, or less than that
    kUse,            // the program uses an object of the peer, or one of its own
    kSteps
};
constexpr unsigned char kRaw = 0x80;
constexpr unsigned char kForged = 0x40;
constexpr unsigned char kStepBits = 0x1F;

/** So often the broker is made anew: what requests leave behind in it ends with it. */
constexpr unsigned int kInputsPerBroker = 2000;
constexpr unsigned int kPeersObject = 0x77;

/** The type that all requests are to have; none: each its own. */
std::optional<unsigned char> onlyType() {
    char const* const text = std::getenv("FUZZ_REQUEST");
    if (!text)
        return std::nullopt;
    return static_cast<unsigned char>(std::strtoul(text, nullptr, 10));
}

/** How many requests of each type were served, for the one who runs the target. */
class Tally {
public:
    ~Tally() {
        for (std::size_t type = 0; type < served_.size(); ++type)
            if (served_[type] > 0)
                std::fprintf(stderr, "requests of type %2zu: %lu\n", type, served_[type]);
        if (responses > 0)
            std::fprintf(stderr, "answers and stray responses: %lu\n", responses.load());
    }
    void request(std::size_t type) { ++served_[std::min(type, served_.size() - 1)]; }

    std::atomic<unsigned long> responses{0};

private:
    std::array<unsigned long, 12> served_{};  // the last one: all others
};

Tally tally;

/** An answer of the peer. */
struct Answer {
    TreflectMessage::kind_t kind = TreflectMessage::kResponse;
    std::string payload;
    std::optional<std::string> forged;  // what the stranger answers before
};

std::string bigEndian(std::size_t number) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes += static_cast<char>(number >> shift);
    return bytes;
}

/** A stream of `data`, with some unused room. */
std::string streamOf(std::string const& data) {
    return bigEndian(data.size()) + data + std::string(data.size() % 3, '\xCC');
}

class Peer {
public:
    Peer(Transport::GroupId group, Peer* stranger)
        : stranger_(stranger), raw_(group, [this](RawPeer&, TreflectMessage& message) {
              if (message.kind() == TreflectMessage::kRequest)
                  answer(message);
          }) {}

    Transport::TerminationId termId() const { return raw_.termId(); }
    void begin() {
        std::lock_guard<std::mutex> const lock(mutex_);
        answers_.clear();
        raw_.forget();
    }
    void willAnswer(Answer answer) {
        std::lock_guard<std::mutex> const lock(mutex_);
        answers_.push_back(std::move(answer));
    }
    void willAnswerFirst(Answer answer) {
        std::lock_guard<std::mutex> const lock(mutex_);
        answers_.push_front(std::move(answer));
    }
    TreflectMessage make(unsigned int id, unsigned int type, TreflectMessage::kind_t kind,
                         std::string const& payload) {
        TreflectMessage message =
            raw_.make(id, static_cast<TreflectMessage::type_t>(type), kind,
                      static_cast<unsigned int>(std::max<std::size_t>(payload.size(), 4)));
        std::memcpy(message.buf(), payload.data(), payload.size());
        return message;
    }
    /** With its header. */
    TreflectMessage whole(std::string const& bytes) {
        Transport::AddressedMessage message =
            raw_.allocateMessage(std::max<std::size_t>(bytes.size(), 1), 5);
        std::memcpy(message.buf(), bytes.data(), bytes.size());
        return TreflectMessage(message);
    }
    void send(Transport::TerminationId to, TreflectMessage message) { raw_.send(to, message); }
    void awaitResponse(unsigned int id) {
        if (wire::awaitResponse(raw_, id).empty())
            std::abort();
    }

private:
    void answer(TreflectMessage const& request) {
        Answer answer{TreflectMessage::kResponse, streamOf({}), std::nullopt};
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            if (!answers_.empty()) {
                answer = std::move(answers_.front());
                answers_.pop_front();
            }
        }
        ++tally.responses;
        auto const send = [&](Peer& from, TreflectMessage::kind_t kind,
                              std::string const& payload) {
            from.send(request.originator(),
                      from.make(request.transactionId(), request.type(), kind, payload));
        };
        if (answer.forged)
            send(*stranger_, answer.kind, *answer.forged);
        send(*this, answer.kind, answer.payload);
        if (request.type() == TreflectMessage::tPayload && isReturnedOneWay(answer))
            send(*this, TreflectMessage::kResponse, streamOf({}));
    }
    /** What says that a one-way call has come back answers nobody. */
    static bool isReturnedOneWay(Answer const& answer) {
        constexpr std::size_t kLength = 4;
        constexpr std::size_t kCallHeader = 16;
        return answer.kind == TreflectMessage::kNoDestination &&
               answer.payload.size() >= kLength + kCallHeader &&
               answer.payload.compare(kLength + 4, 4, std::string(4, '\0')) == 0;
    }

    Peer* const stranger_;
    std::mutex mutex_;
    std::deque<Answer> answers_;  // guarded by mutex_
    RawPeer raw_;                 // uses what stands above from its beginning on
};

/** Calls that are running in objects, which must not be destroyed meanwhile. */
std::atomic<int> running{0};
/** More than one input can have running, unless a call leads back to itself. */
constexpr int kMostRunning = 100;

struct Running {
    Running() {
        if (++running > kMostRunning)
            std::abort();
    }
    ~Running() { --running; }
    Running(Running const&) = delete;
    Running& operator=(Running const&) = delete;
};

class Device : public CombiObject {
public:
    Device(std::string const& name, TreflectObject const* parent) : CombiObject(name, parent) {
        release();
    }
    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        Running const now;
        return CombiObject::dispatch(withResponse, cc, mc, in, out);
    }
};

class Watcher : public TreflectObserver {
public:
    Watcher() : TreflectObserver(TipprmiOID("watcher", NSID_UNIT), nullptr, "watcher") {}

    bool dispatch(bool withResponse, unsigned int cc, unsigned int mc, TipprmiStream& in,
                  TipprmiStream& out) override {
        Running const now;
        return TreflectObserver::dispatch(withResponse, cc, mc, in, out);
    }
    bool update() override {
        TipprmiSequence<TipprmiAny, 0u> values = arguments();
        std::string text;
        for (unsigned int i = 0; i < std::min(values.getLength(), 4u); ++i)
            values[i].extract(text);
        return text != "no";
    }
};

/** The objects of one input. Made and destroyed holding the run permission. */
struct Objects {
    Device house{"house", nullptr};
    Device kitchen{"kitchen", house.getClient()};
    Device stove{"stove", kitchen.getClient()};
    Watcher watcher;

    TreflectServerObject& operator[](unsigned int i) {
        TreflectServerObject* const all[] = {&house, &kitchen, &stove, &watcher};
        return *all[i % 4];
    }
};

/** What the program does with an object `target`: something that depends on `which`. */
class Use {
public:
    Use(Objects& objects, TreflectObject& target, std::string const& argument)
        : objects_(objects), target_(target), argument_(argument) {}

    void operator()(unsigned int which) {
        // Their order is that of the corpus.
        static std::vector<void (Use::*)()> const uses = {
            &Use::name,    &Use::child,      &Use::walk,       &Use::adopt,
            &Use::invoke,  &Use::attributes, &Use::watchCalls, &Use::watchObjects,
            &Use::brokers, &Use::find,       &Use::tell,       &Use::call};
        (this->*uses[which % uses.size()])();
    }

private:
    void name() { target_.getAbsName(); }
    void child() { target_.getChild(target_.getRelName()); }
    void adopt() {
        target_.registerChild(argument_, target_);
        target_.unregisterChild(argument_);
    }
    void brokers() { TreflectORB::getInstance(NSID_UNIT)->getBrokers(); }
    void find() { TreflectObject(TipprmiOID(argument_, NSID_UNIT)).meta(); }
    void tell() {
        objects_.house.sendCreationEvent();
        objects_.house.sendDeletionEvent();
    }
    void walk() {
        TipprmiSequence<TreflectObject, 0u> const children = target_.getChilds();
        for (unsigned int i = 0; i < std::min(children.getLength(), 4u); ++i)
            children[i].meta();
        target_.getParent().getRelName();
    }
    void invoke() {
        TreflectOperation& operation =
            target_.operation(argument_.empty() ? "getCrowd" : argument_);
        TipprmiSequence<TipprmiAny, 0u> arguments;
        arguments.setLength(1);
        arguments[0].insert(3u);
        auto const results = operation.invoke(arguments);
        if (!results || operation.isError())
            return;
        std::vector<TreflectParameterType> const types = operation.meta()->resultTypes();
        // The peer may answer with more or fewer than it has described.
        for (unsigned int i = 0;
             i < std::min<std::size_t>(types.size(), results.value().getLength()); ++i)
            types[i].print(results.value()[i]);
    }
    template <class Value>
    void exchange(char const* name) {
        TreflectAttribute& attribute = target_.attribute(name);
        Value value{};
        attribute.get(value);
        attribute.set(value);
    }
    void elements(char const*) {
        bool lit = false;
        target_.attribute("Switches")[2].get(lit);
        target_.attribute("Others")[1].attribute("Level").get(objects_.house.level);
    }
    void attributes() {
        static std::vector<std::pair<char const*, void (Use::*)(char const*)>> const all = {
            {"Level", &Use::exchange<unsigned int>},
            {"Label", &Use::exchange<std::string>},
            {"Extra", &Use::exchange<TipprmiAny>},
            {"Codes", &Use::exchange<TipprmiSequence<unsigned int, 0u>>},
            {"Colour", &Use::exchange<Colour>},
            {"Next", &Use::exchange<TreflectObject>},
            {"", &Use::elements},
            {"Crowd", &Use::exchange<TipprmiSequence<TreflectObject, 0u>>}};
        auto const& [name, use] = all[argument_.size() % all.size()];
        (this->*use)(name);
    }
    void watchCalls() {
        TreflectOperation& operation = target_.operation("setLevel");
        operation.preObserve(&objects_.watcher);
        operation.postObserve(&objects_.watcher);
        target_.attribute("Level").set(5u);
        operation.removeObserver(&objects_.watcher);
    }
    void watchObjects() {
        TreflectMetaObject* const lamps =
            InterfaceRepository::instance()->findInterface(lamp::kClass);
        lamps->observeCreations(&objects_.watcher, true);
        lamps->observeDeletions(&objects_.watcher);
        lamps->removeObserver(&objects_.watcher);
    }
    void call() {
        tipprmiCall<TipprmiSequence<TipprmiAny, 0u>>(target_, lamp::kClass, lamp::kCodes,
                                                     argument_);
    }

    Objects& objects_;
    TreflectObject& target_;
    std::string const& argument_;
};

/** A broker and its peer. */
class Stage {
public:
    Stage()
        : broker_(TreflectORB::getInstance(NSID_UNIT)->termId()),
          stranger_(kStrangersGroup, nullptr),
          peer_(broker_.groupId(), &stranger_) {}

    void play(fuzz::Script script) {
        peer_.begin();
        {
            TreflectHandlerState const inside(true);
            objects_.emplace();
        }
        for (int i = 0; i < kMostSteps && script.more(); ++i)
            take(script);
        settle();
        TreflectHandlerState const inside(true);
        objects_.reset();
    }

private:
    static constexpr int kMostSteps = 24;
    static constexpr Transport::GroupId kStrangersGroup = 0xF0;

    TreflectORB& orb() const { return *TreflectORB::getInstance(NSID_UNIT); }

    void take(fuzz::Script& script) {
        unsigned char const head = script.byte();
        auto const step = static_cast<unsigned char>((head & kStepBits) % kSteps);
        std::string const text = filledIn(script.text());
        std::string const payload = (head & kRaw) != 0 ? text : streamOf(text);
        bool const isResponse = step == kResponse || step == kAnswer;
        auto const kind = isResponse ? TreflectMessage::kResponse : TreflectMessage::kNoDestination;
        bool const forged = (head & kForged) != 0;
        if (step == kResponse || step == kNoDestination) {
            ++tally.responses;
            deliver(peer_.make(idIn(text), TreflectMessage::tPayload, kind, payload),
                    forged ? stranger_ : peer_);
        } else if (step == kAnswer && forged) {
            callWithForgedAnswer(payload);
        } else if (step == kAnswer || step == kUndeliverable) {
            peer_.willAnswer({kind, payload, std::nullopt});
        } else if (step == kWholeMessage) {
            deliverWhole(text);
        } else if (step == kUse) {
            use(text);
        } else if (step == kOneWay) {
            deliver(
                peer_.make(++lastId_, TreflectMessage::tPayload, TreflectMessage::kMsg, payload));
        } else {
            deliver(peer_.make(++lastId_, onlyType_.value_or(step), TreflectMessage::kRequest,
                               payload));
        }
    }

    /** The numbers that nobody can know before. */
    std::uint32_t number(unsigned char which, unsigned char k) {
        constexpr unsigned int kClasses[] = {device::kClass, lamp::kClass, heater::kClass,
                                             combi::kClass, TreflectObserverSkeleton::kClassId};
        std::uint32_t const all[] = {(*objects_)[k].getInternalOID(), orb().orbId().value(),
                                     orb().convertId(peer_.termId()).value(),
                                     kClasses[k % std::size(kClasses)]};
        return all[which % 4];
    }
    std::string filledIn(std::string text) {
        for (std::size_t at = text.find("\xFE\xED");
             at != std::string::npos && at + 4 <= text.size(); at = text.find("\xFE\xED", at + 4)) {
            text.replace(at, 4,
                         bigEndian(number(static_cast<unsigned char>(text[at + 2]),
                                          static_cast<unsigned char>(text[at + 3]))));
        }
        return text;
    }
    static unsigned int idIn(std::string const& text) {
        fuzz::Script digits(reinterpret_cast<std::uint8_t const*>(text.data()), text.size());
        return digits.number();
    }

    /** Hands a message in, and waits until it has been served. */
    void deliver(TreflectMessage message) { deliver(std::move(message), peer_); }
    void deliver(TreflectMessage message, Peer& sender) {
        bool const answered = isAnswered(message);
        if (message.kind() <= TreflectMessage::kRequest)
            tally.request(message.type());
        sender.send(broker_, message);
        if (answered)
            peer_.awaitResponse(message.transactionId());
        else
            passThrough();
    }
    void deliverWhole(std::string const& bytes) {
        TreflectMessage message = peer_.whole(bytes);
        if (bytes.size() < TreflectMessage::kHeaderSize + 4) {
            peer_.send(broker_, message);
            return;
        }
        // That one ends the process, as it must.
        if (message.kind() == TreflectMessage::kResponseFailure)
            return;
        if (message.kind() != TreflectMessage::kResponse)
            message.transactionId(++lastId_);
        deliver(message);
    }
    static bool isAnswered(TreflectMessage const& message) {
        if (message.kind() == TreflectMessage::kResponse ||
            message.kind() == TreflectMessage::kNoDestination)
            return false;
        if (message.type() != TreflectMessage::tPayload)
            return message.type() != TreflectMessage::tUndef &&
                   message.type() != TreflectMessage::tOrbAppeared &&
                   message.type() <= TreflectMessage::tPerfCounters;
        TipprmiStream stream(message, false);
        unsigned int ioid = 0;
        bool transaction = false;
        stream >> ioid >> transaction;
        return transaction;
    }
    /** What was sent before has been taken up when a search is answered. */
    void passThrough() { exchange(TreflectMessage::tResolve, std::string(8, '\0')); }

    void exchange(TreflectMessage::type_t type, std::string const& data) {
        peer_.send(broker_, peer_.make(++lastId_, type, TreflectMessage::kRequest, streamOf(data)));
        peer_.awaitResponse(lastId_);
    }

    /** What the stranger answers must not reach the caller. */
    void callWithForgedAnswer(std::string const& forged) {
        constexpr unsigned int kGenuine = 0x600D;
        std::string const exception = bigEndian(0) + bigEndian(0);
        peer_.willAnswerFirst(
            {TreflectMessage::kResponse, streamOf(exception + bigEndian(kGenuine)), forged});
        TreflectHandlerState const inside(true);
        auto const result = tipprmiCall<unsigned int>(objectOfPeer(), lamp::kClass, lamp::kCodes);
        if (!result || result.value() != kGenuine)
            std::abort();
    }

    TreflectObject objectOfPeer() {
        TipprmiStream stream(100);
        stream << TipprmiOID(static_cast<char const*>(nullptr), NSID_UNIT) << kPeersObject
               << orb().convertId(peer_.termId()).value();
        TreflectObject object;
        stream >> object;
        return object;
    }

    void use(std::string const& text) {
        if (text.empty())
            return;
        auto const which = static_cast<unsigned char>(text[0]);
        TreflectHandlerState const inside(true);
        TreflectObject target = which < 0x80 ? objectOfPeer() : *objects_->house.getClient();
        Use(*objects_, target, text.substr(1))(which % 0x80);
    }

    /** Nothing runs in the objects any more, and nobody is subscribed to their classes. */
    void settle() {
        for (unsigned int const id : {lamp::kClass, combi::kClass})
            exchange(TreflectMessage::tOCNUnsubscribe, bigEndian(id));
        if (!testsupport::eventually([] { return running == 0; }))
            std::abort();
    }

    Transport::TerminationId const broker_;
    Peer stranger_;
    Peer peer_;
    std::optional<Objects> objects_;
    std::optional<unsigned char> const onlyType_ = onlyType();
    unsigned int lastId_ = 0;
};

std::unique_ptr<Stage> stage;

void runBroker(std::uint8_t const* data, std::size_t size) {
    static unsigned int inputs = 0;
    if (inputs++ % kInputsPerBroker == 0) {
        stage.reset();
        TreflectORB::prepareForDeletion();
        stage = std::make_unique<Stage>();
    }
    stage->play(fuzz::Script(data, size));
}

}  // namespace

FUZZ_TARGET(broker, runBroker)
