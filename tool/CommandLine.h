// The command line.
#pragma once

#include "Command.h"
#include "Settings.h"

/** Reads the command line into the settings and the variables of the command that is chosen, and
 * replaces "-" among its words by the lines of standard input. Ends the program when it was asked
 * for help or cannot be understood. */
Command& readCommandLine(int argc, char** argv, Commands const& commands, Settings& settings);
