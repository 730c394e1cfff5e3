// reflectorb replay: the calls of a recording, once more.
#include <fmt/format.h>
#include <handler_threads.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <thread>

#include "Commands.h"
#include "Members.h"
#include "RecordedCalls.h"
#include "Staying.h"
#include "Wildcard.h"

namespace {

using namespace std::chrono;

/** How the calls are made. */
struct Manner {
    double speed = 1;  // 0: one after the other without a pause
    bool isStepped = false;
    bool isChecked = false;
    nanoseconds patience{};
};

Values valuesOf(recording::Anys const& anys) {
    Values values;
    values.setLength(static_cast<unsigned int>(anys.size()));
    for (unsigned int i = 0; i < values.getLength(); ++i)
        values[i] = anys[i];
    return values;
}

bool areEqual(Values const& values, recording::Anys const& others) {
    if (values.getLength() != others.size())
        return false;
    for (unsigned int i = 0; i < values.getLength(); ++i) {
        auto const bytes = [](TipprmiAny const& any) {
            return std::string_view(reinterpret_cast<char const*>(any.getDataPtr()),
                                    static_cast<std::size_t>(any.getDataSize()));
        };
        if (bytes(values[i]) != bytes(others[i]))
            return false;
    }
    return true;
}

/** What has been done, by the thread that plays, for the main thread. */
struct Progress {
    std::atomic<std::size_t> next{0};  // the call that comes next
    std::atomic<std::size_t> differences{0};
    std::atomic<ExitCode> outcome{ExitCode::kDone};

    void fail(ExitCode why) {
        ExitCode none = ExitCode::kDone;
        outcome.compare_exchange_strong(none, why);
    }
};

/** Makes the calls, one after the other, on a thread of its own. Shared with that thread, which may
 * outlast the session while a call waits. */
class Player {
public:
    Player(RecordedCalls const& calls, Manner manner, std::map<std::string, Place> places,
           Progress& progress, Events& events)
        : calls_(calls),
          manner_(manner),
          places_(std::move(places)),
          progress_(progress),
          events_(events) {}

    void play() {
        auto const start = steady_clock::now();
        std::size_t const first = progress_.next;
        while (!isStopped_ && progress_.next < calls_.size()) {
            RecordedCall const& call = calls_[progress_.next];
            if (manner_.isStepped ? !awaitLine(call) : !awaitTime(call, calls_[first], start))
                break;
            ++progress_.next;
            perform(call);
        }
        isOver_ = true;
    }
    void stop() { isStopped_ = true; }
    bool isOver() const { return isOver_; }

private:
    bool awaitTime(RecordedCall const& call, RecordedCall const& first,
                   steady_clock::time_point start) const {
        constexpr milliseconds kNowAndThen(100);
        if (manner_.speed <= 0)
            return !isStopped_;
        constexpr duration<double, std::micro> kLongest = std::chrono::hours(24 * 365);
        duration<double, std::micro> const recorded(static_cast<double>(call.time) -
                                                    static_cast<double>(first.time));
        auto const due = start + duration_cast<steady_clock::duration>(
                                     std::clamp(recorded / manner_.speed, -kLongest, kLongest));
        while (!isStopped_ && steady_clock::now() < due)
            std::this_thread::sleep_until(std::min(due, steady_clock::now() + kNowAndThen));
        return !isStopped_;
    }
    /** False at the end of standard input, and for a line that begins with q. */
    bool awaitLine(RecordedCall const& call) {
        constexpr int kNowAndThen = 100;  // milliseconds
        tell("next", call, {}, {});
        pollfd input{STDIN_FILENO, POLLIN, 0};
        while (!isStopped_) {
            if (std::cin.rdbuf()->in_avail() == 0 && poll(&input, 1, kNowAndThen) <= 0)
                continue;
            std::string line;
            return std::getline(std::cin, line) && (line.empty() || line[0] != 'q');
        }
        return false;
    }

    void perform(RecordedCall const& call) {
        std::string difference;
        try {
            Values const results = made(call);
            if (manner_.isChecked)
                difference = differenceOf(call, results);
            std::string const text = valuesText(call.resultTypes, results);
            tell("replayed", call, {{"results", valuesJson(call.resultTypes, results)}},
                 text.empty() ? "" : " -> " + text);
        } catch (Failure const& why) {
            difference = differenceOf(call, why);
            tell("replayed", call, {{"error", errorJson(why.outcome(), why.what())}},
                 std::string(": ") + why.what());
        }
        if (difference.empty())
            return;
        ++progress_.differences;
        progress_.fail(ExitCode::kRefused);
        tell("difference", call, {{"text", difference}}, ": " + difference);
    }
    /** An object may have come, or come anew, by a call of the recording itself. */
    Values made(RecordedCall const& call) {
        TreflectHandlerState const inside(true);
        TreflectDeadline const within(manner_.patience);
        bool const isNew = places_.count(call.object) == 0;
        if (isNew)
            places_[call.object] = placeNow(call.object);
        try {
            return madeAt(places_[call.object], call);
        } catch (Failure const& why) {
            if (isNew || why.outcome() != ExitCode::kNotThere)
                throw;
        }
        places_[call.object] = placeNow(call.object);
        return madeAt(places_[call.object], call);
    }
    static Values madeAt(Place place, RecordedCall const& call) {
        if (!place.isSomewhere())
            throw Failure(ExitCode::kNotThere, "the object is not there");
        TreflectObject const object = handleOn(place);
        return callOperation(operationOf(object, call.operation), valuesOf(call.arguments));
    }
    /** Where an object of that name or identifier is now. */
    static Place placeNow(std::string const& name) {
        bool const isName = name[0] == '/';
        std::size_t end = isName ? name.find('/', 1) : std::string::npos;
        std::string const root = name.substr(isName, end - isName);
        TreflectObject object(TipprmiOID(root, NSID_UNIT));
        while (end != std::string::npos && object.isConnected()) {
            std::size_t const begin = end + 1;
            end = name.find('/', begin);
            object = object.getChild(name.substr(begin, end - begin));
        }
        return object.isConnected() ? placeOf(object) : Place();
    }
    static std::string thenText(RecordedCall const& call) {
        if (!call.refusal.empty())
            return call.refusal;
        std::string const text = valuesText(call.resultTypes, valuesOf(call.results));
        return text.empty() ? "done" : text;
    }
    static std::string nowText(RecordedCall const& call, Values const& results) {
        std::string const text = valuesText(call.resultTypes, results);
        return text.empty() ? "done" : text;
    }
    static std::string differenceOf(RecordedCall const& call, Values const& results) {
        using Kind = Fate::Kind;
        // Handles on an object and on another one of its name differ, and are shown alike.
        bool const isSame =
            !call.fate || call.fate->kind == Kind::kEnded ||
            (call.fate->kind == Kind::kDone &&
             (areEqual(results, call.results) || thenText(call) == nowText(call, results)));
        return isSame ? "" : thenText(call) + " then, now " + nowText(call, results);
    }
    /** Whether it was refused then in the same way. */
    static bool isSameRefusal(RecordedCall const& call, Failure const& why) {
        if (!call.fate || !call.fate->isRefusal())
            return false;
        if (call.fate->code == 0)
            return why.outcome() == ExitCode::kRefused;  // how is not known
        Failure const then = failureOf(call.fate->code);
        std::string const now = why.what();
        return then.outcome() == why.outcome() &&
               now.substr(0, now.find(',')) == std::string(then.what());
    }
    /** A call that cannot be made is a failure in any case; one that is refused only if it was not
     * then. */
    std::string differenceOf(RecordedCall const& call, Failure const& why) {
        bool const isKnown = call.fate && call.fate->kind != Fate::Kind::kEnded;
        if (isSameRefusal(call, why))
            return {};
        if (isKnown || why.outcome() != ExitCode::kRefused)
            progress_.fail(why.outcome());
        return isKnown && manner_.isChecked ? thenText(call) + " then, now " + why.what()
                                            : std::string();
    }
    void tell(char const* event, RecordedCall const& call, Json const& more,
              std::string const& text) {
        std::string const what = call.object + "/" + call.operation;
        Values const arguments = valuesOf(call.arguments);
        Json json = {{"event", event}, {"object", call.object}, {"member", call.operation}};
        json["arguments"] = valuesJson(call.argumentTypes, arguments);
        json.update(more.is_null() ? Json::object() : more);
        events_.add({fmt::format("{:10} {}({}){}", event, what,
                                 valuesText(call.argumentTypes, arguments), text),
                     json});
    }

    RecordedCalls const& calls_;
    Manner const manner_;
    std::map<std::string, Place> places_;
    Progress& progress_;
    Events& events_;
    std::atomic<bool> isStopped_{false};
    std::atomic<bool> isOver_{false};
};

/** Where the objects of the calls are; those that are not there yet are left out. */
std::map<std::string, Place> placesOf(Tool& tool, RecordedCalls const& calls) {
    std::map<std::string, Place> places;
    for (RecordedCall const& call : calls)
        places.emplace(call.object, Place());
    tool.objects().expect(places.size());
    for (auto at = places.begin(); at != places.end();) {
        try {
            at->second = tool.objects().find(at->first).front().place;
            ++at;
        } catch (Failure const& why) {
            tool.output().note(why.what());
            at = places.erase(at);
        }
    }
    if (places.empty())
        throw Failure(ExitCode::kNotThere, "none of the objects is there");
    return places;
}

class ReplaySession final : public Session {
public:
    ReplaySession(Tool& tool, Events& events, RecordedCalls const& calls, Manner const& manner,
                  Progress& progress)
        : events_(events),
          progress_(progress),
          isChecked_(manner.isChecked),
          player_(
              std::make_shared<Player>(calls, manner, placesOf(tool, calls), progress, events)) {
        events.add({"", {{"event", "begun"}, {"calls", calls.size() - progress.next}}});
        std::thread([player = player_] { player->play(); }).detach();
    }

    bool goOn() override { return !player_->isOver(); }
    void end() override {
        player_->stop();
        std::size_t const made = progress_.next;
        std::size_t const differences = progress_.differences;
        events_.add({fmt::format("{} calls made", made) +
                         (isChecked_ ? fmt::format(", {} differences", differences) : ""),
                     {{"event", "ended"}, {"calls", made}, {"differences", differences}}});
    }
    ExitCode outcome() const override { return progress_.outcome; }

private:
    Events& events_;
    Progress& progress_;
    bool const isChecked_;
    std::shared_ptr<Player> const player_;
};

class Replay final : public Command {
public:
    Replay() : Command("replay", "Make the calls of a recording once more") {}

    void declare(Options& options) override {
        options.word("file", file_, true, "What reflectorb record has written");
        options.text("--speed", "FACTOR", speed_, "2: twice as fast; 0: without pauses");
        options.flag("--step", manner_.isStepped, "Wait for Enter before each call; q ends");
        options.text("--only", "PATTERN", only_, "OBJECT, or OBJECT/OPERATION");
        options.text("--to", "OBJECT", to_, "Make all calls to this object");
        options.flag("--check", manner_.isChecked, "Compare what comes of them; 1 for differences");
    }
    ExitCode run(Tool&) override { return ExitCode::kDone; }
    bool stays() const override { return true; }
    ExitCode stay(Settings const& settings, Output& output) override {
        if (manner_.isStepped)
            std::ios::sync_with_stdio(
                false);  // else in_avail() knows of no line that was read ahead
        manner_.patience = settings.patience();
        readSpeed();
        // The thread that plays uses them to the end of the process.
        auto& calls = *new RecordedCalls;
        auto& progress = *new Progress;
        if (Wildcard::isIn(to_))
            throw Failure(ExitCode::kWrongUse, "--to takes one object, no pattern");
        return stayInGroup(settings, output, 0, [&](Tool& tool, Events& events) {
            if (calls.empty())
                calls = chosen(output);
            return std::make_unique<ReplaySession>(tool, events, calls, manner_, progress);
        });
    }

private:
    void readSpeed() {
        char* end = nullptr;
        manner_.speed = std::strtod(speed_.c_str(), &end);
        if (speed_.empty() || *end != '\0' || !(manner_.speed >= 0 && manner_.speed < 1e9))
            throw Failure(ExitCode::kWrongUse, "\"" + speed_ + "\" is no factor");
    }
    /** Reading needs the buffers of the group's messages. */
    RecordedCalls chosen(Output& output) const {
        Wildcard const wildcard(only_);
        RecordedCalls calls;
        for (RecordedCall& call : readCalls(file_, output)) {
            if (!only_.empty() && !wildcard.matches(call.object) &&
                !wildcard.matches(call.object + "/" + call.operation))
                continue;
            if (!to_.empty())
                call.object = to_;
            calls.push_back(std::move(call));
        }
        if (calls.empty())
            throw Failure(ExitCode::kNotThere, "the recording has no such calls");
        return calls;
    }

    std::string file_;
    std::string speed_ = "1";
    std::string only_;
    std::string to_;
    Manner manner_;
};

}  // namespace

std::unique_ptr<Command> makeReplay() {
    return std::make_unique<Replay>();
}
