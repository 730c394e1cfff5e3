// reflectorb replay: the calls of a recording, once more.
#include <fmt/format.h>

#include <cstdlib>
#include <iostream>
#include <map>

#include "Commands.h"
#include "Player.h"
#include "RecordedCalls.h"
#include "Staying.h"
#include "Wildcard.h"

namespace {

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
        events.add({"", {{"event", "begun"}, {"calls", progress.left().size()}}});
        player_->start();
    }

    bool goOn() override { return !player_->isOver(); }
    void end() override {
        player_->stop();
        std::size_t const made = progress_.begun();
        std::size_t const differences = progress_.differences();
        events_.add({fmt::format("{} calls made", made) +
                         (isChecked_ ? fmt::format(", {} differences", differences) : ""),
                     {{"event", "ended"}, {"calls", made}, {"differences", differences}}});
    }
    ExitCode outcome() const override { return progress_.outcome(); }

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
        // Threads that play use them to the end of the process.
        auto& calls = *new RecordedCalls;
        Progress* progress = nullptr;
        if (Wildcard::isIn(to_))
            throw Failure(ExitCode::kWrongUse, "--to takes one object, no pattern");
        return stayInGroup(settings, output, 0, [&](Tool& tool, Events& events) {
            if (!progress) {
                calls = chosen(output);
                progress = new Progress(calls.size());
            }
            return std::make_unique<ReplaySession>(tool, events, calls, manner_, *progress);
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
