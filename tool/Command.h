// A subcommand.
#pragma once

#include <memory>
#include <vector>

#include "Failure.h"
#include "Options.h"
#include "Tool.h"

class Command {
public:
    Command(char const* name, char const* help) : name_(name), help_(help) {}
    virtual ~Command() = default;
    Command(Command const&) = delete;
    Command& operator=(Command const&) = delete;

    char const* name() const { return name_; }
    char const* help() const { return help_; }
    /** Whether it is for other programs rather than people. */
    virtual bool isHidden() const { return false; }

    virtual void declare(Options& options) = 0;
    /** Does its work in the group, and collects what is to be written. Throws a Failure. */
    virtual ExitCode run(Tool& tool) = 0;
    /** Whether the command goes on until it is told to end: it joins the group, waits and writes by
     * itself then (`stay`), and `run` is not called. */
    virtual bool stays() const { return false; }
    virtual ExitCode stay(Settings const&, Output&) { return ExitCode::kDone; }

private:
    char const* const name_;
    char const* const help_;
};

using Commands = std::vector<std::unique_ptr<Command>>;

/** All of them, in the order in which help tells them. */
Commands makeCommands();
