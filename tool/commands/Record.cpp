// reflectorb record: what is done with objects, into a file.
#include <fmt/format.h>
#include <handler_threads.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "CallObserver.h"
#include "Commands.h"
#include "Journal.h"
#include "Lookout.h"
#include "Members.h"
#include "Staying.h"
#include "Units.h"
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

/** Hears when an object says that the value of an attribute has changed: as if a call had set it,
 * with the value in the place of results. */
class ChangeObserver final : public TreflectObserver {
public:
    ChangeObserver(Journal& journal, unsigned int object, std::string attribute)
        : journal_(journal), object_(object), attribute_(std::move(attribute)) {}

    bool update() override {
        recording::Anys values = anysOf(arguments());
        std::size_t const size = sizeOf(values);
        if (!values.empty())
            journal_.add(recording::Value{timeNow(), object_, attribute_, std::move(values[0])},
                         size);
        return true;
    }

private:
    Journal& journal_;
    unsigned int const object_;
    std::string const attribute_;
};

/** The calls of one operation of an object. The object waits while it is told: what is told goes to
 * the journal as it has come. Under the run permission. */
class CallRecorder {
public:
    /** `attribute`: which it sets; empty for none. */
    CallRecorder(Journal& journal, unsigned int object, std::string operation,
                 std::string attribute)
        : journal_(journal),
          object_(object),
          operation_(std::move(operation)),
          attribute_(std::move(attribute)),
          observer_([this](HeardCall const& call) { begun(call); },
                    [this](HeardCall const& call, Fate const& fate) { ended(call, fate); }) {}

    CallObserver& observer() { return observer_; }

private:
    void begun(HeardCall const& call) {
        constexpr std::size_t kMostOpen = 1000;  // of some no end is told
        recording::Anys values = anysOf(call.values);
        std::size_t const size = sizeOf(values);
        if (!attribute_.empty() && values.size() == 1) {
            if (set_.size() == kMostOpen)
                set_.erase(set_.begin());
            set_[call.number] = values[0];
        }
        journal_.add(recording::Call{timeNow(), object_, operation_, std::move(values), call.number,
                                     call.caller},
                     size);
    }
    void ended(HeardCall const& call, Fate const& fate) {
        recording::Anys values = anysOf(call.values);
        std::size_t const size = sizeOf(values);
        std::int64_t const now = timeNow();
        journal_.add(recording::End{now, object_, operation_, std::move(values), call.number,
                                    static_cast<unsigned int>(fate.kind), fate.code, fate.fields},
                     size);
        auto const set = set_.find(call.number);
        if (set == set_.end())
            return;
        if (fate.kind == Fate::Kind::kDone)
            journal_.add(recording::Value{now, object_, attribute_, set->second},
                         static_cast<std::size_t>(set->second.getDataSize()));
        set_.erase(set);
    }

    Journal& journal_;
    unsigned int const object_;
    std::string const operation_;
    std::string const attribute_;
    std::map<unsigned int, TipprmiAny> set_;  // what calls that have begun set, by their numbers
    CallObserver observer_;
};

/** An object that is recorded. Made under the run permission. */
class Recorded {
public:
    Recorded(Found const& found, unsigned int number, Journal& journal)
        : object_(handleOn(found.place)), number_(number), journal_(journal) {}

    TreflectObject const& object() const { return object_; }

    /** Whether the object has answered that it is observed. */
    bool begin() {
        TreflectMetaObject const& meta = classOf(object_);
        bool done = true;
        for (TreflectMetaOperation const* const operation : operationsOf(meta)) {
            if (!isGetter(meta, *operation))
                done = observe(*operation, attributeSetBy(meta, *operation)) && done;
        }
        for (TreflectMetaAttribute* const attribute : attributesOf(meta)) {
            if (attribute->metaOperGet() && !attribute->metaOperSet())
                done = watch(attribute->name()) && done;
        }
        return done;
    }
    /** The values that the recording begins with; others come with the calls that set them, or are
     * told to the observers of these. One that cannot be read in time costs those behind it only.
     */
    void noteValues() {
        try {
            for (TreflectMetaAttribute* const attribute : attributesOf(classOf(object_))) {
                if (attribute->metaOperGet() && attribute->metaOperSet())
                    noteValue(attribute->name());
            }
        } catch (Failure const&) {
            return;  // no time is left
        }
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

    bool observe(TreflectMetaOperation const& operation, std::string const& attribute) {
        calls_.push_back(
            std::make_unique<CallRecorder>(journal_, number_, operation.name(), attribute));
        bool const done = calls_.back()->observer().observe(object_, operation);
        if (attribute.empty())
            return done;
        changes_.push_back(std::make_unique<ChangeObserver>(journal_, number_, attribute));
        return operationOf(object_, operation.name()).postObserve(changes_.back().get()) && done;
    }
    void noteValue(std::string const& attribute) {
        TipprmiResult<Values> const values =
            attributeOf(object_, attribute).operGet().invoke(Values());
        if (values && values.value().getLength() == 1)
            journal_.add(recording::Value{timeNow(), number_, attribute, values.value()[0]});
    }
    bool watch(std::string const& attribute) {
        watches_.push_back(std::make_unique<TreflectAttributeWatch>(
            attributeOf(object_, attribute), [this, attribute](TipprmiAny const& value) {
                journal_.add(recording::Value{timeNow(), number_, attribute, value},
                             static_cast<std::size_t>(value.getDataSize()));
            }));
        return !watches_.back()->isError();
    }

    TreflectObject const object_;
    unsigned int const number_;
    Journal& journal_;
    std::vector<std::unique_ptr<CallRecorder>> calls_;
    std::vector<std::unique_ptr<ChangeObserver>> changes_;
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

/** What is to be recorded: names of objects and classes, or patterns; empty: all objects. */
using Words = std::vector<std::string>;

/** What tells of a process is none of its objects. */
bool isAnObject(unsigned int classId) {
    return classId != processobject::kClass && classId != TreflectObserverSkeleton::kClassId;
}

/** Observes all members of the objects that are wished. Numbers them, over all sessions. */
class Recorder final : public Attendant {
public:
    Recorder(Words words, Asking& asking, Processes processes, Events& events, Journal& journal,
             unsigned int& lastNumber)
        : words_(std::move(words)),
          asking_(asking),
          processes_(std::move(processes)),
          events_(events),
          journal_(journal),
          classes_(journal),
          lastNumber_(lastNumber) {}

    Targets find(Tool& tool) override {
        std::vector<Failure> unheard;
        return find(tool, unheard);
    }
    /** `failures`: why a word tells nothing. */
    Targets find(Tool& tool, std::vector<Failure>& failures) {
        std::map<Place, Found> found;
        if (words_.empty())
            addClass(tool, "*", found);
        for (std::string const& word : words_) {
            if (word.find('/') == std::string::npos && addClass(tool, word, found))
                continue;
            try {
                for (Found const& one : tool.objects().find(word))
                    found.emplace(one.place, one);
            } catch (Failure const& why) {
                bool const mayCome = isOpen(word) || isClass(tool, word);
                if (!mayCome || why.outcome() != ExitCode::kNotThere)
                    failures.push_back(why);
            }
        }
        Targets targets;
        for (auto const& one : found)
            targets.push_back({one.second});
        return targets;
    }
    Targets matching(Newcomer const& newcomer) override {
        TreflectObject const object = handleOn(newcomer.place);
        TreflectMetaObject const& meta = classOf(object);
        std::string const name = absoluteNameOf(object);
        bool isMeant = words_.empty() && isAnObject(meta.getClassId());
        for (std::string const& word : words_) {
            Wildcard const wildcard(word);
            isMeant = isMeant || wildcard.matches(name) || wildcard.matches(newcomer.identifier) ||
                      wildcard.matches(meta.name());
        }
        return isMeant ? Targets{{{name, newcomer.place}}} : Targets();
    }
    /** Of a name it is not known of which class its object will be. */
    bool concerns(std::string const& className) const override {
        return words_.empty() ||
               std::any_of(words_.begin(), words_.end(), [&](std::string const& word) {
                   return word.find('/') != std::string::npos || Wildcard(word).matches(className);
               });
    }
    /** Whether a word may mean objects that nobody has named. */
    static bool isOpen(std::string const& word) { return Wildcard::isIn(word); }

    Begun begin(Target const& target, Comes when) override {
        constexpr char kSilent[] = "it has not answered that it is observed";
        Place const place = target.object.place;
        auto const recorded = std::make_shared<Recorded>(target.object, number(target), journal_);
        bool const done = recorded->begin();
        if (!done && when == Comes::kLater)
            throw Failure(ExitCode::kTimedOut, kSilent);  // it is tried again
        recorded->noteValues();
        if (present_.insert(place).second && when == Comes::kLater)
            tell("+ ", "came", target);
        if (done)
            return {recorded};
        return {recorded, ExitCode::kTimedOut, kSilent};
    }
    void gone(Target const& target) override {
        auto const number = numbers_.find(target.object.place);
        if (number == numbers_.end())
            return;
        journal_.addGone(number->second);
        numbers_.erase(number);
        if (present_.erase(target.object.place) != 0)
            tell("- ", "gone", target);
    }

private:
    static bool addClass(Tool& tool, std::string const& pattern, std::map<Place, Found>& found) {
        Wildcard const wildcard(pattern);
        Forest const& forest = tool.objects().all();
        bool isAny = false;
        for (auto const& [place, node] : forest.nodes()) {
            if (!node.isReflective || node.className.empty() || !isAnObject(node.classId) ||
                !wildcard.matches(node.className))
                continue;
            found.emplace(place, Found{forest.nameOf(place), place});
            isAny = true;
        }
        return isAny;
    }
    /** Whether there may be objects of a class, though there are none now. */
    static bool isClass(Tool& tool, std::string const& name) {
        using Known = std::vector<processobject::KnownClass>;
        auto const answers = askProcessObjects<Known>(
            tool.asking(), tool.processes(),
            [](TreflectProcessClient const& client) { return valueOf(client.classes()); });
        return std::any_of(answers.begin(), answers.end(), [&](Answer<Known> const& answer) {
            return std::any_of(answer.value.begin(), answer.value.end(),
                               [&](auto const& known) { return known.name == name; });
        });
    }
    /** Of an object that is recorded now, or is about to be: takes it down when it is new. What has
     * been heard of one that is tried again is in the file already. */
    unsigned int number(Target const& target) {
        Place const place = target.object.place;
        auto const known = numbers_.find(place);
        if (known != numbers_.end())
            return known->second;
        TreflectMetaObject const& meta = classOf(handleOn(place));
        recording::Object const object{++lastNumber_, target.object.name, meta.name(),
                                       classes_.add(meta), processOf(place)};
        journal_.addToHead(object);
        return numbers_[place] = object.number;
    }
    std::string processOf(Place place) {
        if (!ownerOf(processes_, place.broker))
            processes_ = presentProcesses(asking_);
        return nameOfOwner(processes_, place.broker);
    }
    void tell(char const* sign, char const* event, Target const& target) {
        events_.add(
            {sign + target.object.name, {{"event", event}, {"object", target.object.name}}, false});
    }

    Words const words_;
    Asking& asking_;
    Processes processes_;  // guarded by the run permission, as the numbers
    Events& events_;
    Journal& journal_;
    WrittenClasses classes_;
    unsigned int& lastNumber_;
    std::map<Place, unsigned int> numbers_;
    std::set<Place> present_;  // those that are recorded, which have been told to
};

class RecordSession final : public LookoutSession {
public:
    RecordSession(Tool& tool, Events& events, Words const& words, Journal& journal,
                  unsigned int& lastNumber)
        : LookoutSession(tool),
          events_(events),
          journal_(journal),
          recorder_(
              *new Recorder(words, tool.asking(), tool.processes(), events, journal, lastNumber)),
          lookout_(*new Lookout(tool, recorder_)) {
        std::vector<Failure> failures;
        Targets const targets = recorder_.find(tool, failures);
        for (Failure const& why : failures)
            note(why.what(), why.outcome());
        bool const isOpen =
            words.empty() || std::any_of(words.begin(), words.end(), &Recorder::isOpen);
        if (tool.objects().missing().isAnySilent()) {
            tool.objects().missing().tell(tool.output());
            fail(ExitCode::kTimedOut);
        }
        journal_.resume();
        std::size_t begun = 0;
        std::vector<Begun> const all = lookout_.start(targets);
        for (std::size_t i = 0; i < targets.size(); ++i) {
            begun += all[i].attended != nullptr;
            if (all[i].outcome != ExitCode::kDone)
                note(targets[i].object.name + ": " + all[i].text, all[i].outcome);
        }
        bool const mayCome = targets.empty() && failures.empty() && lookout_.expectsAny();
        if (begun == 0 && !mayCome)
            throw Failure(outcome_ == ExitCode::kDone ? ExitCode::kNotThere : outcome_,
                          isOpen ? "there are no objects" : "nothing is recorded");
        events.add({"", {{"event", "begun"}, {"objects", begun}}});
        tool.output().note(fmt::format("recording {} objects; Ctrl-C ends", begun));
    }

    /** Until nothing can be written any more. */
    bool goOn() override {
        for (std::string const& failure : lookout_.tend())
            tool_.output().complain(failure);
        return journal_.failure().empty();
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

private:
    Events& events_;
    Journal& journal_;
    Recorder& recorder_;
    Lookout& lookout_;
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
        makeRoom(path);
        Words const words(words_.begin() + 1, words_.end());
        return stayInGroup(settings, output, 0, [&](Tool& tool, Events& events) {
            // Observers and a thread use it to the end of the process.
            if (!journal_)
                journal_ = new Journal(path, limits_);
            return std::make_unique<RecordSession>(tool, events, words, *journal_, lastNumber_);
        });
    }

private:
    /** Earlier recordings go when that is wanted only, those that were put aside, too. */
    void makeRoom(std::string const& path) const {
        namespace fs = std::filesystem;
        std::error_code unknown;
        for (unsigned int i = 0; i == 0 || (limits_.bytes > 0 && i < limits_.files); ++i) {
            std::string const name = i == 0 ? path : path + "." + std::to_string(i);
            auto const there = fs::status(name, unknown).type();
            if (there == fs::file_type::not_found)
                continue;
            if (there != fs::file_type::regular)
                throw Failure(ExitCode::kWrongUse, "\"" + name + "\" is no file");
            if (!force_)
                throw Failure(ExitCode::kWrongUse,
                              "\"" + name + "\" is there: --force replaces it");
            if (i > 0)
                fs::remove(name, unknown);
        }
    }
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
