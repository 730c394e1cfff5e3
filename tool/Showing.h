// What an object is, as it tells now.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Members.h"

/** All that is told of one object. A value. */
struct Description {
    struct Attribute {
        std::string name;
        std::string type;
        bool writable = false;
        Done value;
        std::string doc;   // the first line of its comment
        std::string unit;  // of its numbers, if that is known
    };
    struct Operation {
        std::string signature;
        Json json;
    };

    std::string className;
    std::vector<std::pair<std::string, std::vector<std::string>>> classes;  // with their bases
    std::vector<Attribute> attributes;
    std::vector<Operation> operations;
    ExitCode outcome = ExitCode::kDone;
    std::string failure;
};

/** Asks the object. */
Description describe(Asking& asking, Found const& found);
/** `process`: its name. */
Json jsonOf(Found const& found, std::string const& process, Description const& told);
