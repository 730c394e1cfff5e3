// JSON as this program writes it: members in the order in which they are set.
#pragma once

#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;
