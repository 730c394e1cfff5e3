// The command line.
#pragma once

#include <string>
#include <vector>

struct Options {
    enum class Action { kDescribe, kTree, kSet, kCall, kWatch, kVeto, kBrokers, kFollow };

    std::string object;  // an absolute name or an identifier; empty when it is about the group
    Action action = Action::kDescribe;
    std::string member;              // the attribute or the operation that it is about
    std::vector<std::string> texts;  // the value to set, or the arguments of the call
    unsigned int count = 0;          // what to wait for before the end; 0: until a signal comes
};

/** Ends the program when it was asked for help, or in a way that cannot be understood. */
Options readOptions(int argc, char** argv);
