#include "Units.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <ctime>
#include <set>
#include <string_view>
#include <vector>

std::string durationText(double seconds) {
    constexpr long kMinute = 60;
    constexpr long kHour = 60 * kMinute;
    constexpr long kDay = 24 * kHour;
    long const whole = static_cast<long>(seconds);
    if (whole >= kDay)
        return fmt::format("{}d {}h", whole / kDay, whole % kDay / kHour);
    if (whole >= kHour)
        return fmt::format("{}h {}m", whole / kHour, whole % kHour / kMinute);
    if (whole >= kMinute)
        return fmt::format("{}m {}s", whole / kMinute, whole % kMinute);
    return fmt::format("{:.1f}s", seconds);
}

std::string bytesText(std::int64_t bytes) {
    constexpr double kStep = 1024;
    double amount = static_cast<double>(bytes);
    char const* unit = "B";
    for (char const* const next : {"KiB", "MiB", "GiB"}) {
        if (amount < kStep)
            break;
        amount /= kStep;
        unit = next;
    }
    return fmt::format("{:.1f} {}", amount, unit);
}

std::int64_t timeNow() {
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
}

std::string timeText(std::int64_t microsecondsSince1970) {
    constexpr std::int64_t kSecond = 1'000'000;
    auto const seconds = static_cast<std::time_t>(microsecondsSince1970 / kSecond);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    return fmt::format("{:02}:{:02}:{:02}.{:03}", parts.tm_hour, parts.tm_min, parts.tm_sec,
                       microsecondsSince1970 % kSecond / 1000);
}

// ---- Units in comments -------------------------------------------------------------------------

namespace {

struct Unit {
    char const* sign;
    std::vector<char const*> names;  // in small letters
};

std::vector<Unit> const& units() {
    static std::vector<Unit> const all{
        {"%", {"percent", "per cent"}},
        {"B", {"byte", "bytes"}},
        {"KiB", {"kibibyte", "kibibytes"}},
        {"MiB", {"mebibyte", "mebibytes"}},
        {"GiB", {"gibibyte", "gibibytes"}},
        {"kB", {"kilobyte", "kilobytes"}},
        {"MB", {"megabyte", "megabytes"}},
        {"GB", {"gigabyte", "gigabytes"}},
        {"bit", {"bit", "bits"}},
        {"kbit", {"kilobit", "kilobits"}},
        {"Mbit", {"megabit", "megabits"}},
        {"ns", {"nanosecond", "nanoseconds"}},
        {"µs", {"microsecond", "microseconds"}},
        {"ms", {"millisecond", "milliseconds"}},
        {"s", {"second", "seconds"}},
        {"min", {"minute", "minutes"}},
        {"h", {"hour", "hours"}},
        {"d", {"day", "days"}},
        {"Hz", {"hertz"}},
        {"kHz", {"kilohertz"}},
        {"MHz", {"megahertz"}},
        {"GHz", {"gigahertz"}},
        {"mV", {"millivolt", "millivolts"}},
        {"V", {"volt", "volts"}},
        {"kV", {"kilovolt", "kilovolts"}},
        {"mA", {"milliampere", "milliamperes"}},
        {"A", {"ampere", "amperes"}},
        {"mW", {"milliwatt", "milliwatts"}},
        {"W", {"watt", "watts"}},
        {"kW", {"kilowatt", "kilowatts"}},
        {"J", {"joule", "joules"}},
        {"N", {"newton", "newtons"}},
        {"Ω", {"ohm", "ohms"}},
        {"°C", {"degree celsius", "degrees celsius", "celsius"}},
        {"K", {"kelvin"}},
        {"°", {"degree", "degrees"}},
        {"mm", {"millimetre", "millimetres", "millimeter", "millimeters"}},
        {"cm", {"centimetre", "centimetres", "centimeter", "centimeters"}},
        {"m", {"metre", "metres", "meter", "meters"}},
        {"km", {"kilometre", "kilometres", "kilometer", "kilometers"}},
        {"g", {"gram", "grams"}},
        {"kg", {"kilogram", "kilograms"}},
        {"Pa", {"pascal"}},
        {"hPa", {"hectopascal"}},
        {"dB", {"decibel", "decibels"}},
        {"dBm", {}},
        {"lx", {"lux"}},
        {"ppm", {}},
        {"rpm", {"revolutions per minute"}}};
    return all;
}

bool isInWord(char letter) {
    auto const byte = static_cast<unsigned char>(letter);
    return std::isalnum(byte) != 0 || byte >= 0x80;
}

/** The text without its case, as far as ASCII goes. */
std::string lowered(std::string text) {
    for (char& letter : text)
        letter = static_cast<char>(letter >= 'A' && letter <= 'Z' ? letter - 'A' + 'a' : letter);
    return text;
}

/** Reads units from a place in a comment on. */
class UnitReader {
public:
    explicit UnitReader(std::string text) : text_(std::move(text)), lower_(lowered(text_)) {}

    /** The sign of the longest unit whose name begins at a place, perhaps per another one. */
    std::string nameAt(std::size_t at, std::size_t& end) const {
        std::string sign;
        std::size_t longest = 0;
        for (Unit const& unit : units()) {
            for (char const* const name : unit.names) {
                std::size_t const size = std::string_view(name).size();
                if (size > longest && lower_.compare(at, size, name) == 0 && isEnd(at + size)) {
                    sign = unit.sign;
                    longest = size;
                }
            }
        }
        end = at + longest;
        constexpr std::string_view kPer = " per ";
        if (sign.empty() || lower_.compare(end, kPer.size(), kPer) != 0)
            return sign;
        std::size_t perEnd = 0;
        std::string const per = nameAt(end + kPer.size(), perEnd);
        if (per.empty())
            return {};  // of what is not known here
        end = perEnd;
        return sign + "/" + per;
    }
    /** The sign itself, which may be a single letter: so the sentence ends there. */
    std::string signAt(std::size_t at) const {
        std::size_t const end = std::min(text_.find_first_of(" \t\n.,;:)]", at), text_.size());
        std::string const word = text_.substr(at, end - at);
        bool const isLast = end == text_.size() || text_[end] != ' ';
        std::size_t const slash = word.find('/');
        bool const isKnown = isSign(word.substr(0, slash)) &&
                             (slash == std::string::npos || isSign(word.substr(slash + 1)));
        return isKnown && (isLast || word == "%") ? word : "";
    }

    /** Behind a mark, a word as it stands there. */
    std::string marked() const {
        for (char const* const mark : {"@unit ", "\\unit ", "unit: "}) {
            std::size_t const found = lower_.find(mark);
            if (found == std::string::npos || (found > 0 && isInWord(lower_[found - 1])))
                continue;
            std::size_t const begin = text_.find_first_not_of(' ', found + std::strlen(mark));
            std::size_t const end = std::min(text_.find_first_of(" \t\n", begin), text_.size());
            if (begin != std::string::npos)
                return text_.substr(begin, end - begin);
        }
        return {};
    }
    /** Behind each opening mark, a unit. */
    std::string behind(std::string_view mark) const {
        for (std::size_t at = lower_.find(mark); at != std::string::npos;
             at = lower_.find(mark, at + 1)) {
            if (isInWord(mark.front()) && at > 0 && isInWord(lower_[at - 1]))
                continue;
            std::size_t end = 0;
            std::string const name = nameAt(at + mark.size(), end);
            std::string const sign = name.empty() ? signAt(at + mark.size()) : name;
            if (!sign.empty())
                return sign;
        }
        return {};
    }
    /** At the beginning: "Percent of the time". */
    std::string first() const {
        std::size_t end = 0;
        std::string const sign = nameAt(0, end);
        bool const isFollowed = lower_.compare(end, 4, " of ") == 0 ||
                                lower_.compare(end, 6, " that ") == 0 ||
                                lower_.compare(end, 7, " since ") == 0 ||
                                lower_.compare(end, 7, " until ") == 0 || isSentenceEnd(end);
        return isFollowed ? sign : "";
    }

private:
    bool isEnd(std::size_t at) const { return at >= text_.size() || !isInWord(text_[at]); }
    bool isSentenceEnd(std::size_t at) const {
        return at >= text_.size() ||
               std::string_view(".,;:\n").find(text_[at]) != std::string::npos;
    }
    static bool isSign(std::string const& word) {
        return std::any_of(units().begin(), units().end(),
                           [&](Unit const& unit) { return word == unit.sign; });
    }

    std::string const text_;
    std::string const lower_;
};

}  // namespace

std::string unitIn(std::string const& comment) {
    std::size_t const begin = comment.find_first_not_of(" \t\n/*!");
    if (begin == std::string::npos)
        return {};
    UnitReader const reader(comment.substr(begin));
    std::string unit = reader.marked();
    for (char const* const mark : {"[", "in "})
        unit = unit.empty() ? reader.behind(mark) : unit;
    return unit.empty() ? reader.first() : unit;
}

bool isOfNumbers(std::string const& type) {
    static std::set<std::string> const numbers{"int",   "unsigned", "int8",  "uint8",
                                               "int16", "uint16",   "int32", "uint32",
                                               "int64", "uint64",   "float", "double"};
    for (char const* const several : {"sequence<", "array<"}) {
        std::size_t const size = std::string_view(several).size();
        if (type.compare(0, size, several) == 0)
            return isOfNumbers(type.substr(size));
    }
    return numbers.count(type.substr(0, type.find_first_of(" ,>"))) != 0;
}
