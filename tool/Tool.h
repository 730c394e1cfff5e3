// What subcommands work with.
#pragma once

#include <string>
#include <vector>

#include "Asking.h"
#include "Objects.h"
#include "Output.h"
#include "Processes.h"
#include "Settings.h"

/** A process that has joined the group, and looks at it. A resource of the main thread. */
class Tool {
public:
    Tool(Settings const& settings, Output& output)
        : settings_(settings),
          output_(output),
          asking_(settings.patience()),
          processes_(presentProcesses(asking_)),
          objects_(asking_, processes_) {}

    Settings const& settings() const { return settings_; }
    Output& output() { return output_; }
    Asking& asking() { return asking_; }
    /** Those that were there when the tool came, or looked again. */
    Processes const& processes() const { return processes_; }
    Objects& objects() { return objects_; }
    /** Finds out anew who is there; what has been heard of objects is forgotten. */
    void lookAgain() {
        processes_ = presentProcesses(asking_);
        objects_.forget();
    }

private:
    Settings const& settings_;
    Output& output_;
    Asking asking_;
    Processes processes_;
    Objects objects_;
};
