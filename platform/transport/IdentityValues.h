#pragma once

#include <optional>
#include <string>
#include <vector>

#include "transport/IdInfo.h"

namespace Transport {

// What counts as a sensible value of this process's identity. Pure functions.

constexpr int kHighestSlot = 255;
/** Slots 1 and 2 hold the controllers, so no auxiliary unit can be there. */
constexpr int kHighestControllerSlot = 2;
constexpr std::size_t kLongestActor = 255;

constexpr int kLeastBacklogKibibytes = 16;
constexpr int kMostBacklogKibibytes = 1024 * 1024;
constexpr int kLeastBacklogMessages = 2;
constexpr int kMostBacklogMessages = 1'000'000;

/** A decimal number without sign or blanks, between the two limits. */
std::optional<int> parseNumber(std::string const& text, int lowest, int highest);
/** Numbers with commas between them, each the slot of an auxiliary unit. */
std::optional<std::vector<int>> parseAxuSlots(std::string const& text);
bool isAxuSlot(int slot);
/** Each of the four within its bounds. */
bool isBacklog(Backlog const& most);
/** Not empty, at most 255 bytes, without control characters. */
bool isActorName(std::string const& name);
/** Absolute: processes started in different places would not find each other else. */
bool isFolderPath(std::string const& path);

/** The environment variable; an empty one counts as not set. */
std::optional<std::string> environment(char const* variable);

/**
 * A folder of the user's own: `reflectorb` below XDG_RUNTIME_DIR or /run/user/<uid>, whichever
 * first exists and belongs to the user; else /tmp/reflectorb-<uid>.
 */
std::string defaultFolder();

}  // namespace Transport
