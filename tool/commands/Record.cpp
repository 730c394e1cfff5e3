// reflectorb record: what is done with objects, into a file.
#include <fmt/format.h>
#include <handler_threads.h>

#include <filesystem>
#include <set>

#include "Commands.h"
#include "Journal.h"
#include "Members.h"
#include "Staying.h"
#include "Wildcard.h"

namespace {

recording::Anys anysOf(Values const& values) {
    recording::Anys anys;
    anys.reserve(values.getLength());
    for (unsigned int i = 0; i < values.getLength(); ++i)
        anys.push_back(values[i]);
    return anys;
}

std::size_t sizeOf(recording::Anys const& values) {
    std::size_t size = 0;
    for (TipprmiAny const& value : values)
        size += static_cast<std::size_t>(value.getDataSize());
    return size;
}

/** One operation of an object. The object waits while it is told: what is told goes to the journal
 * as it has come. */
class CallObserver final : public TreflectObserver {
public:
    CallObserver(Journal& journal, unsigned int object, std::string operation)
        : journal_(journal), object_(object), operation_(std::move(operation)) {}

    bool update() override {
        recording::Anys values = anysOf(arguments());
        std::size_t const size = sizeOf(values);
        journal_.add(recording::Call{Journal::now(), object_, operation_, std::move(values)}, size);
        return true;
    }

private:
    Journal& journal_;
    unsigned int const object_;
    std::string const operation_;
};

/** The end of its calls. Of an operation that sets an attribute it is told, too, when the object
 * says that the value has changed: then the value is what it gets. */
class EndObserver final : public TreflectObserver {
public:
    EndObserver(Journal& journal, unsigned int object, std::string operation, std::string attribute)
        : journal_(journal),
          object_(object),
          operation_(std::move(operation)),
          attribute_(std::move(attribute)) {}

    bool update() override {
        recording::Anys values = anysOf(arguments());
        std::size_t const size = sizeOf(values);
        std::int64_t const now = Journal::now();
        if (attribute_.empty() || values.empty())
            journal_.add(recording::End{now, object_, operation_, std::move(values)}, size);
        else
            journal_.add(recording::Value{now, object_, attribute_, std::move(values[0])}, size);
        return true;
    }

private:
    Journal& journal_;
    unsigned int const object_;
    std::string const operation_;
    std::string const attribute_;  // which it sets, if it has no results; else empty
};

/** An object that is recorded. Made under the run permission. */
class Recorded {
public:
    Recorded(Found const& found, unsigned int number, Journal& journal)
        : object_(handleOn(found.place)), number_(number), journal_(journal) {}

    TreflectObject const& object() const { return object_; }
    unsigned int number() const { return number_; }

    /** Whether the object has answered that it is observed. */
    bool begin() {
        TreflectMetaObject const& meta = classOf(object_);
        bool done = true;
        for (TreflectMetaOperation const* const operation : operationsOf(meta)) {
            if (!isGetter(meta, *operation))
                done = observe(*operation, attributeSetBy(meta, *operation)) && done;
        }
        for (TreflectMetaAttribute* const attribute : attributesOf(meta)) {
            if (attribute->metaOperSet())
                noteValue(attribute->name());
            else if (attribute->metaOperGet())
                done = watch(attribute->name()) && done;
        }
        return done;
    }

private:
    static bool isGetter(TreflectMetaObject const& meta, TreflectMetaOperation const& operation) {
        for (TreflectMetaAttribute const* const attribute : attributesOf(meta)) {
            if (attribute->metaOperGet() && attribute->metaOperGet()->name() == operation.name())
                return true;
        }
        return false;
    }
    /** Empty for none, and for one whose setting has results, which could not be told apart from a
     * value. */
    static std::string attributeSetBy(TreflectMetaObject const& meta,
                                      TreflectMetaOperation const& operation) {
        for (TreflectMetaAttribute const* const attribute : attributesOf(meta)) {
            TreflectMetaOperation const* const set = attribute->metaOperSet();
            if (set && set->name() == operation.name() && set->resultTypes().empty())
                return attribute->name();
        }
        return {};
    }

    bool observe(TreflectMetaOperation const& meta, std::string const& attribute) {
        TreflectOperation& operation = operationOf(object_, meta.name());
        observers_.push_back(std::make_unique<CallObserver>(journal_, number_, meta.name()));
        TreflectObserver* const before = observers_.back().get();
        observers_.push_back(
            std::make_unique<EndObserver>(journal_, number_, meta.name(), attribute));
        return operation.preObserve(before) && operation.postObserve(observers_.back().get());
    }
    /** The value as the recording begins; others come with the calls that set it, or are told to
     * the observers of these. */
    void noteValue(std::string const& attribute) {
        TipprmiResult<Values> const values =
            attributeOf(object_, attribute).operGet().invoke(Values());
        if (values && values.value().getLength() == 1)
            journal_.add(recording::Value{Journal::now(), number_, attribute, values.value()[0]});
    }
    bool watch(std::string const& attribute) {
        watches_.push_back(std::make_unique<TreflectAttributeWatch>(
            attributeOf(object_, attribute), [this, attribute](TipprmiAny const& value) {
                journal_.add(recording::Value{Journal::now(), number_, attribute, value},
                             static_cast<std::size_t>(value.getDataSize()));
            }));
        return !watches_.back()->isError();
    }

    TreflectObject const object_;
    unsigned int const number_;
    Journal& journal_;
    std::vector<std::unique_ptr<TreflectObserver>> observers_;
    std::vector<std::unique_ptr<TreflectAttributeWatch>> watches_;
};

/** Classes that have been written, each behind its bases. */
class WrittenClasses {
public:
    explicit WrittenClasses(Journal& journal) : journal_(journal) {}

    /** The hash of the class. Under the run permission. */
    std::uint64_t add(TreflectMetaObject const& meta) {
        for (TreflectMetaObject const* const base : meta.parents())
            add(*base);
        TreflectClassDescription const described = TreflectClassDescription::of(meta);
        std::lock_guard<std::mutex> const lock(mutex_);
        if (hashes_.insert(described.hash).second)
            journal_.addToHead(described);
        return described.hash;
    }

private:
    Journal& journal_;
    std::mutex mutex_;
    std::set<std::uint64_t> hashes_;  // guarded by mutex_
};

/** What has come of beginning with an object. */
struct Begun {
    std::shared_ptr<Recorded> recorded;
    ExitCode outcome = ExitCode::kDone;
    std::string text;
};

class RecordSession final : public Session {
public:
    /** `outcome`: what has come of finding the objects. */
    RecordSession(Tool& tool, Events& events, std::vector<Found> const& objects, Journal& journal,
                  unsigned int& lastNumber, ExitCode outcome)
        : tool_(tool), events_(events), journal_(journal), outcome_(outcome) {
        journal_.resume();
        std::vector<TreflectOrbId> brokers;
        for (Found const& found : objects)
            brokers.emplace_back(found.place.broker);
        auto const classes = std::make_shared<WrittenClasses>(journal);
        unsigned int const first = lastNumber + 1;
        lastNumber += static_cast<unsigned int>(objects.size());
        Processes const& processes = tool.processes();
        auto const answers = tool.asking().each<Begun>(
            brokers, [objects, processes, classes, first, &journal](std::size_t index) {
                return std::optional(begin(objects[index], processes, *classes,
                                           first + static_cast<unsigned int>(index), journal));
            });
        for (std::size_t i = 0; i < objects.size(); ++i)
            note(objects[i], answers[i]);
        if (recorded_.empty())
            throw Failure(outcome_, "nothing is recorded");
        events.add({"", {{"event", "begun"}, {"objects", recorded_.size()}}});
        tool.output().note(fmt::format("recording {} objects; Ctrl-C ends", recorded_.size()));
    }

    /** Until all objects have gone, or nothing can be written. */
    bool goOn() override {
        if (!journal_.failure().empty())
            return false;
        TreflectHandlerState const inside(true);
        bool isAnyThere = false;
        for (auto const& recorded : recorded_) {
            if (recorded->object().isConnected())
                isAnyThere = true;
            else if (gone_.insert(recorded->number()).second)
                journal_.add(recording::Gone{Journal::now(), recorded->number()});
        }
        return isAnyThere;
    }
    void end() override {
        journal_.pause();
        std::string const failure = journal_.failure();
        if (!failure.empty()) {
            tool_.output().complain(failure);
            outcome_ = ExitCode::kNoAccess;
        }
        Journal::Counts const counts = journal_.counts();
        events_.add({fmt::format("{} calls and {} values recorded", counts.calls, counts.values),
                     {{"event", "ended"},
                      {"calls", counts.calls},
                      {"values", counts.values},
                      {"lost", counts.lost}}});
        if (counts.lost > 0)
            tool_.output().complain(fmt::format(
                "{} records were lost: they came faster than they could be written", counts.lost));
    }
    ExitCode outcome() const override { return outcome_; }

private:
    static Begun begin(Found const& found, Processes const& processes, WrittenClasses& classes,
                       unsigned int number, Journal& journal) {
        Begun begun;
        try {
            auto const recorded = std::make_shared<Recorded>(found, number, journal);
            TreflectMetaObject const& meta = classOf(recorded->object());
            journal.addToHead(recording::Object{number, found.name, meta.name(), classes.add(meta),
                                                nameOfOwner(processes, found.place.broker)});
            begun.recorded = recorded;
            if (!recorded->begin())
                throw Failure(ExitCode::kTimedOut, "it has not answered that it is observed");
        } catch (Failure const& why) {
            begun.outcome = why.outcome();
            begun.text = why.what();
        }
        return begun;
    }
    void note(Found const& object, Answer<Begun> const& answer) {
        ExitCode const outcome = answer ? answer.value.outcome : ExitCode::kTimedOut;
        if (answer.value.recorded)
            recorded_.push_back(answer.value.recorded);
        if (outcome == ExitCode::kDone)
            return;
        tool_.output().complain(object.name + ": " +
                                (answer ? answer.value.text : "no answer in time"));
        if (outcome_ == ExitCode::kDone)
            outcome_ = outcome;
    }

    Tool& tool_;
    Events& events_;
    Journal& journal_;
    std::vector<std::shared_ptr<Recorded>> recorded_;
    std::set<unsigned int> gone_;
    ExitCode outcome_;
};

class Record final : public Command {
public:
    Record() : Command("record", "Write calls and values of objects into a file") {}

    void declare(Options& options) override {
        options.words("file", words_, true,
                      "FILE [OBJECT|CLASS...]: what is recorded; all objects without");
        options.text("--size", "BYTES", size_, "A file of this size is put aside: 500K, 64M, 1G");
        options.number("--files", "N", limits_.files, "How many files are kept, 2 by default");
        options.flag("--force", force_, "Replace a file that is there");
    }
    ExitCode run(Tool&) override { return ExitCode::kDone; }
    bool stays() const override { return true; }
    ExitCode stay(Settings const& settings, Output& output) override {
        limits_.bytes = bytesOf(size_);
        if (limits_.files == 0)
            throw Failure(ExitCode::kWrongUse, "one file is kept at least");
        std::string const& path = words_.front();
        std::error_code unknown;
        auto const there = std::filesystem::status(path, unknown).type();
        if (there == std::filesystem::file_type::regular && !force_)
            throw Failure(ExitCode::kWrongUse, "\"" + path + "\" is there: --force replaces it");
        if (there != std::filesystem::file_type::regular &&
            there != std::filesystem::file_type::not_found)
            throw Failure(ExitCode::kWrongUse, "\"" + path + "\" is no file");
        return stayInGroup(settings, output, 0, [&](Tool& tool, Events& events) {
            ExitCode outcome = ExitCode::kDone;
            std::vector<Found> const objects = chosen(tool, outcome);
            // Observers and a thread use it to the end of the process.
            if (!journal_)
                journal_ = new Journal(path, limits_);
            return std::make_unique<RecordSession>(tool, events, objects, *journal_, lastNumber_,
                                                   outcome);
        });
    }

private:
    static std::uint64_t bytesOf(std::string const& text) {
        if (text.empty())
            return 0;
        std::size_t end = 0;
        std::uint64_t bytes = 0;
        try {
            bytes = std::stoull(text, &end);
        } catch (std::logic_error const&) {
            end = 0;
        }
        std::string const unit = text.substr(end);
        constexpr char kUnits[] = "KMG";
        std::size_t const which = unit.size() == 1 ? std::string(kUnits).find(unit) : 0;
        bool const isNumber = end > 0 && text[0] != '-' && bytes > 0 && bytes < 1ull << 32;
        if (!isNumber || (!unit.empty() && (unit.size() > 1 || which == std::string::npos)))
            throw Failure(ExitCode::kWrongUse, "\"" + text + "\" is no size: 500K, 64M, 1G");
        return unit.empty() ? bytes : bytes << 10 * (which + 1);
    }

    std::vector<Found> chosen(Tool& tool, ExitCode& outcome) const {
        std::vector<Found> objects;
        std::set<Place> places;
        auto const add = [&](std::vector<Found> const& found) {
            for (Found const& one : found) {
                if (places.insert(one.place).second)
                    objects.push_back(one);
            }
        };
        if (words_.size() == 1)
            add(ofClass(tool, "*"));
        for (std::size_t i = 1; i < words_.size(); ++i) {
            std::vector<Found> const found = ofClass(tool, words_[i]);
            add(found.empty() ? tool.objects().findOrComplain(words_[i], tool.output(), outcome)
                              : found);
        }
        if (objects.empty())
            throw Failure(outcome == ExitCode::kDone ? ExitCode::kNotThere : outcome,
                          "there are no objects");
        return objects;
    }
    /** What tells of a process is none of its objects. */
    static std::vector<Found> ofClass(Tool& tool, std::string const& pattern) {
        std::vector<Found> objects;
        if (pattern.find('/') != std::string::npos)
            return objects;
        Wildcard const wildcard(pattern);
        Forest const& forest = tool.objects().all();
        for (auto const& [place, node] : forest.nodes()) {
            if (node.isReflective && !node.className.empty() &&
                node.classId != processobject::kClass && wildcard.matches(node.className))
                objects.push_back({forest.nameOf(place), place});
        }
        return objects;
    }

    std::vector<std::string> words_;
    std::string size_;
    Journal::Limits limits_;
    bool force_ = false;
    Journal* journal_ = nullptr;
    unsigned int lastNumber_ = 0;
};

}  // namespace

std::unique_ptr<Command> makeRecord() {
    return std::make_unique<Record>();
}
