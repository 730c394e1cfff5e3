#include "RecordedCalls.h"

#include <fmt/format.h>

#include <fstream>
#include <map>

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

/** Finds out which end belongs to which call. Notices do not tell that: of calls of one operation
 * that have not ended, an end is the last one's. The others have been forbidden, mostly. */
class Pairing {
public:
    explicit Pairing(RecordedCalls& calls) : calls_(calls) {}

    void call(unsigned int object, std::string const& operation) {
        open_[{object, operation}].push_back(calls_.size() - 1);
    }
    void end(recording::End const& end) {
        using Fate = RecordedCall::Fate;
        auto& open = open_[{end.object, end.operation}];
        if (open.empty())
            return;  // its call was before the recording, or lost
        RecordedCall& call = calls_[open.back()];
        open.pop_back();
        call.fate = end.results.empty() && !call.resultTypes.empty() ? Fate::kRefused : Fate::kDone;
        call.results = end.results;
    }

private:
    RecordedCalls& calls_;
    std::map<std::pair<unsigned int, std::string>, std::vector<std::size_t>> open_;
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
        write(call.time,
              fmt::format("call {}/{}({})", name(call.object), call.operation,
                          texts(types, call.arguments)),
              "call",
              {{"object", name(call.object)},
               {"member", call.operation},
               {"arguments", jsons(types, call.arguments)}});
    }
    void one(recording::End const& end) {
        Types const types = known_.resultTypes(end.object, end.operation);
        std::string const fate = fateOf(types, end.results.size());
        write(end.time,
              fmt::format("end  {}/{}{}", name(end.object), end.operation,
                          !end.results.empty() ? " -> " + texts(types, end.results)
                          : types.empty()      ? ""
                                               : " " + fate),
              "end",
              {{"object", name(end.object)},
               {"member", end.operation},
               {"results", jsons(types, end.results)},
               {"fate", fate}});
    }
    void one(recording::Value const& value) {
        Shown const shown =
            show(known_.attributeTypes(value.object, value.attribute), 0, value.value);
        write(value.time,
              fmt::format("{}/{} = {}", name(value.object), value.attribute, shown.text), "value",
              {{"object", name(value.object)},
               {"member", value.attribute},
               {"type", shown.type},
               {"value", shown.json}});
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
    Pairing pairing(calls);
    while (std::optional<recording::Record> const record = reader.next()) {
        known.note(*record);
        if (auto const* const end = std::get_if<recording::End>(&*record))
            pairing.end(*end);
        auto const* const call = std::get_if<recording::Call>(&*record);
        recording::Object const* const object = call ? known.object(call->object) : nullptr;
        if (!object)
            continue;
        calls.push_back({call->time,
                         object->name,
                         call->operation,
                         call->arguments,
                         known.argumentTypes(call->object, call->operation),
                         RecordedCall::Fate::kNoEnd,
                         {},
                         known.resultTypes(call->object, call->operation)});
        pairing.call(call->object, call->operation);
    }
    tellEnding(path, reader.ending(), output);
    return calls;
}

bool isRecording(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::string mark(recording::kMarkSize, '\0');
    return file.read(mark.data(), static_cast<std::streamsize>(mark.size())) &&
           mark == recording::kMark;
}

ExitCode showRecording(std::string const& path, Settings const& settings, Output& output) {
    constexpr int kAtOnce = 20'000;
    std::ifstream file = opened(path);
    Reader reader(file);
    Teller teller(output);
    while (reader.ending() == Reader::Ending::kNone && !output.isBroken()) {
        {
            Group const group(settings.verbose);
            std::optional<recording::Record> record;
            for (int i = 0; i < kAtOnce && (record = reader.next()); ++i)
                teller.tell(*record);
        }
        output.flush();
    }
    tellEnding(path, reader.ending(), output);
    return ExitCode::kDone;
}
