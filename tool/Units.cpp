#include "Units.h"

#include <fmt/format.h>

#include <ctime>

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

std::string timeText(std::int64_t microsecondsSince1970) {
    constexpr std::int64_t kSecond = 1'000'000;
    auto const seconds = static_cast<std::time_t>(microsecondsSince1970 / kSecond);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    return fmt::format("{:02}:{:02}:{:02}.{:03}", parts.tm_hour, parts.tm_min, parts.tm_sec,
                       microsecondsSince1970 % kSecond / 1000);
}
