// Numbers with their units, for people.
#pragma once

#include <cstdint>
#include <string>

/** "3d 4h", "12m 5s", "0.8s" */
std::string durationText(double seconds);
/** "4.2 MiB" */
std::string bytesText(std::int64_t bytes);
/** Microseconds since 1970. */
std::int64_t timeNow();
/** "16:42:07.123", local time */
std::string timeText(std::int64_t microsecondsSince1970);

/** The unit that a comment tells: "@unit mV", "In percent.", "Bytes of memory", "Speed [km/h]".
 * Its sign, or the word behind "@unit" as it is; empty when it tells none. */
std::string unitIn(std::string const& comment);
/** Whether a type has numbers alone: "unsigned", "sequence<double>". */
bool isOfNumbers(std::string const& type);
