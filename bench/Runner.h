#pragma once

#include <string>

#include "Measure.h"

namespace bench {

/** Where and beside what a pair of processes is measured: wherever the system puts their threads,
 * both on one processor, each on one of its own, or beside a program that computes on each. */
enum class Load { kFree, kOneProcessor, kSplit, kBusy };

/** Starts a server and a client process of `subject`, measures `scenario`, ends them; empty when
 * that failed. The figures of "start" are measured here: process start to first answered call. */
Figures runPair(std::string const& subject, std::string const& scenario, Load load);

/** What the started processes do; `arguments` begin behind the program's name. */
int serveMain(std::string const& subject, std::string const& folder);
int clientMain(std::string const& subject, std::string const& scenario, std::string const& folder,
               int server);
/** Keeps a processor busy until killed. */
int busyMain();

}  // namespace bench
