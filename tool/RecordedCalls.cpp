#include "RecordedCalls.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <tuple>

#include "Group.h"
#include "Units.h"
#include "Values.h"

namespace {

using recording::Reader;

std::ifstream opened(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw Failure(ExitCode::kNotThere, "cannot read \"" + path + "\"");
    return file;
}

/** Says how a file has ended, unless that is well. */
void tellEnding(std::string const& path, Reader::Ending ending, Output& output) {
    if (ending == Reader::Ending::kNoRecording)
        throw Failure(ExitCode::kWrongUse, "\"" + path + "\" is no recording that is known here");
    if (ending == Reader::Ending::kDamaged)
        throw Failure(ExitCode::kWrongUse, "\"" + path + "\" is damaged behind what has been read");
    if (ending == Reader::Ending::kCutOff)
        output.complain("\"" + path + "\" was cut off: its last record is not whole");
}

/** What has come of a call. Of one whose caller was not heard of it is known by its results alone,
 * if it has any. */
Fate fateOf(recording::End const& end, recording::Types const& resultTypes) {
    using Kind = Fate::Kind;
    Fate fate{end.fate <= static_cast<unsigned int>(Kind::kForbidden) ? static_cast<Kind>(end.fate)
                                                                      : Kind::kEnded,
              end.code, end.fields};
    if (fate.kind == Kind::kEnded && !resultTypes.empty())
        fate.kind = end.results.empty() ? Kind::kRefused : Kind::kDone;
    return fate;
}

/** Finds out which end belongs to which call. */
class Pairing {
public:
    Pairing(RecordedCalls& calls, recording::Known const& known) : calls_(calls), known_(known) {}

    void call(recording::Call const& call) { open_[keyOf(call)] = calls_.size() - 1; }
    void end(recording::End const& end) {
        auto const found = open_.find(keyOf(end));
        if (found == open_.end())
            return;  // its call was before the recording, or lost
        RecordedCall& call = calls_[found->second];
        open_.erase(found);
        call.fate = fateOf(end, call.resultTypes);
        call.begunUntilEnd = calls_.size();
        call.results = end.results;
        call.refusal = call.fate->text(known_.exceptionType(end.object, end.operation, end.code));
    }

private:
    struct Key {
        unsigned int object;
        std::string operation;
        unsigned int number;

        friend bool operator<(Key const& a, Key const& b) {
            return std::tie(a.object, a.number, a.operation) <
                   std::tie(b.object, b.number, b.operation);
        }
    };
    template <class Record>
    static Key keyOf(Record const& record) {
        return {record.object, record.operation, record.number};
    }

    RecordedCalls& calls_;
    recording::Known const& known_;
    std::map<Key, std::size_t> open_;
};

/** A line for people and an object for programs for each record. */
class Teller {
public:
    Teller(Output& output) : output_(output) {}

    void tell(recording::Record const& record) {
        known_.note(record);
        std::visit([this](auto const& told) { one(told); }, record);
    }

private:
    void one(recording::Begin const& begin) {
        write(begin.time, "recorded by " + begin.writer, "recording", {{"writer", begin.writer}});
    }
    void one(TreflectClassDescription const& described) {
        output_.event({{"event", "class"},
                       {"class", described.name},
                       {"id", described.id},
                       {"hash", fmt::format("{:016x}", described.hash)}});
    }
    void one(recording::Object const& object) {
        output_.event({{"event", "object"},
                       {"object", object.name},
                       {"class", object.className},
                       {"process", object.process}});
    }
    void one(recording::Call const& call) {
        Types const types = known_.argumentTypes(call.object, call.operation);
        Json told = {{"object", name(call.object)},
                     {"member", call.operation},
                     {"arguments", jsons(types, call.arguments)}};
        if (call.number != 0)
            told.update({{"caller", call.caller}, {"call", call.number}});
        write(call.time,
              fmt::format("call {}/{}({}){}", name(call.object), call.operation,
                          texts(types, call.arguments),
                          call.caller.empty() ? "" : "  by " + call.caller),
              "call", told);
    }
    void one(recording::End const& end) {
        Types const types = known_.resultTypes(end.object, end.operation);
        Fate const fate = fateOf(end, types);
        std::string const refusal =
            fate.text(known_.exceptionType(end.object, end.operation, end.code));
        Json told = {{"object", name(end.object)},
                     {"member", end.operation},
                     {"results", jsons(types, end.results)},
                     {"fate", fate.name()}};
        if (end.number != 0)
            told["call"] = end.number;
        if (!refusal.empty())
            told["error"] = {{"code", fate.code}, {"text", refusal}};
        write(end.time,
              fmt::format("end  {}/{}{}", name(end.object), end.operation,
                          !end.results.empty() ? " -> " + texts(types, end.results)
                          : refusal.empty()    ? ""
                                               : ": " + refusal),
              "end", told);
    }
    void one(recording::Value const& value) {
        Shown shown = show(known_.attributeTypes(value.object, value.attribute), 0, value.value);
        if (isOfNumbers(shown.type))
            shown.unit = unitIn(known_.attributeComment(value.object, value.attribute));
        Json told = {{"object", name(value.object)},
                     {"member", value.attribute},
                     {"type", shown.type},
                     {"value", shown.json}};
        shown.addUnit(told);
        write(value.time,
              fmt::format("{}/{} = {}", name(value.object), value.attribute, shown.textWithUnit()),
              "value", told);
    }
    void one(recording::Gone const& gone) {
        write(gone.time, "gone " + name(gone.object), "gone", {{"object", name(gone.object)}});
    }
    void one(recording::Lost const& lost) {
        write(lost.time, fmt::format("{} records were lost here", lost.count), "lost",
              {{"count", lost.count}});
    }
    void one(recording::Finish const& finish) {
        write(finish.time, "the recording was ended", "ended", Json::object());
    }

    void write(std::int64_t time, std::string const& line, char const* event, Json const& more) {
        output_.line(timeText(time) + "  " + line);
        Json json = {{"time", time}, {"event", event}};
        json.update(more);
        output_.event(json);
    }
    std::string name(unsigned int number) const {
        recording::Object const* const object = known_.object(number);
        return object ? object->name : "?" + std::to_string(number);
    }
    static std::string texts(Types const& types, recording::Anys const& anys) {
        std::string text;
        for (unsigned int i = 0; i < anys.size(); ++i)
            text += (i == 0 ? "" : ", ") + show(types, i, anys[i]).text;
        return text;
    }
    static Json jsons(Types const& types, recording::Anys const& anys) {
        Json all = Json::array();
        for (unsigned int i = 0; i < anys.size(); ++i)
            all.push_back(show(types, i, anys[i]).json);
        return all;
    }

    Output& output_;
    recording::Known known_;
};

}  // namespace

RecordedCalls readCalls(std::string const& path, Output& output) {
    std::ifstream file = opened(path);
    Reader reader(file);
    recording::Known known;
    RecordedCalls calls;
    Pairing pairing(calls, known);
    while (std::optional<recording::Record> const record = reader.next()) {
        known.note(*record);
        if (auto const* const end = std::get_if<recording::End>(&*record))
            pairing.end(*end);
        auto const* const call = std::get_if<recording::Call>(&*record);
        recording::Object const* const object = call ? known.object(call->object) : nullptr;
        if (!object)
            continue;
        std::size_t const position = calls.size();
        RecordedCall& recorded = calls.emplace_back();
        recorded.time = call->time;
        recorded.object = object->name;
        recorded.operation = call->operation;
        recorded.caller = call->caller;
        recorded.position = position;
        recorded.arguments = call->arguments;
        recorded.argumentTypes = known.argumentTypes(call->object, call->operation);
        recorded.resultTypes = known.resultTypes(call->object, call->operation);
        pairing.call(*call);
    }
    tellEnding(path, reader.ending(), output);
    return calls;
}

bool isRecording(std::string const& path) {
    std::error_code unknown;
    if (!std::filesystem::is_regular_file(path, unknown))
        return false;
    std::ifstream file(path, std::ios::binary);
    std::string mark(recording::kMarkSize, '\0');
    file.read(mark.data(), static_cast<std::streamsize>(mark.size()));
    // One that has not got any further was interrupted as soon as it had begun.
    mark.resize(static_cast<std::size_t>(file.gcount()));
    return std::string(recording::kMark).compare(0, mark.size(), mark) == 0;
}

ExitCode showRecording(std::string const& path, Output& output) {
    constexpr int kAtOnce = 20'000;
    NoGroup const noGroup;
    std::ifstream file = opened(path);
    Reader reader(file);
    Teller teller(output);
    while (reader.ending() == Reader::Ending::kNone && !output.isBroken()) {
        std::optional<recording::Record> record;
        for (int i = 0; i < kAtOnce && (record = reader.next()); ++i)
            teller.tell(*record);
        output.flush();
    }
    tellEnding(path, reader.ending(), output);
    return ExitCode::kDone;
}
