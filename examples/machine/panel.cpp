// The actor `panel` shows the parts of the machine, and what they answer when they are called, as a
// small live table. It is told which parts there are: when one comes or goes, or the machine
// itself, it says so.
#include <getopt.h>
#include <handler_threads.h>
#include <logging.h>
#include <unistd.h>

#include <oswrap.h>
#include <cstdio>
#include <cstdlib>

#include "PartWatch.h"
#include "Table.h"
#include "generated/machine.h"

namespace {

struct Options {
    unsigned int refreshes = 10;
    unsigned int interval = 1000;              // milliseconds between two refreshes
    unsigned int patience = 30;                // seconds to wait for a machine that is not there
    unsigned int alarmLimit = 0;               // percent, for all processors; 0: leave theirs
    bool redraw = isatty(STDOUT_FILENO) == 1;  // paint each table over the last one
    bool node = false;                         // all machines, instead of this one with its parts
};

// ---- What is shown -----------------------------------------------------------------------------

/** A figure as text, or a mark that there is none: the machine may go at any moment. */
template <class T, class Text>
std::string shown(TipprmiResult<T> const& result, Text const& text) {
    return result ? text(result.value()) : std::string("?");
}

void showCpus(PartWatch const& watch, Table& table) {
    table.heading({"PROCESSOR", "load", "", "alarm at"});
    for (PartWatch::Part const& part : watch.parts(cpu::kClass)) {
        auto const cpu = part.object.as<CpuClient>();
        std::string const load = shown(cpu.getLoad(), percentText);
        table.row({part.name, load, "", shown(cpu.getAlarm(), alarmText)});
    }
}

void showMemory(PartWatch const& watch, Table& table) {
    table.heading({"MEMORY", "total", "free", "alarm at"});
    for (PartWatch::Part const& part : watch.parts(memory::kClass)) {
        auto const memory = part.object.as<MemoryClient>();
        table.row({part.name, shown(memory.getTotal(), bytesText),
                   shown(memory.getFree(), bytesText), shown(memory.getAlarm(), alarmText)});
    }
}

void showNetwork(PartWatch const& watch, Table& table) {
    table.heading({"NETWORK", "received", "sent"});
    for (PartWatch::Part const& part : watch.parts(networkInterface::kClass)) {
        auto const interface = part.object.as<NetworkInterfaceClient>();
        table.row({part.name, shown(interface.getReceivedBytes(), bytesText),
                   shown(interface.getSentBytes(), bytesText)});
    }
}

void showDisks(PartWatch const& watch, Table& table) {
    table.heading({"DISK", "size", "free", "alarm at"});
    for (PartWatch::Part const& part : watch.parts(disk::kClass)) {
        auto const disk = part.object.as<DiskClient>();
        table.row({part.name, shown(disk.getTotal(), bytesText), shown(disk.getFree(), bytesText),
                   shown(disk.getAlarm(), alarmText)});
    }
}

void showProcesses(PartWatch const& watch, Table& table) {
    std::vector<PartWatch::Part> const processes = watch.parts(process::kClass);
    if (processes.empty())
        return;
    table.heading({"PROCESS", "number", "resident"});
    for (PartWatch::Part const& part : processes) {
        auto const process = part.object.as<ProcessClient>();
        table.row({part.name,
                   shown(process.getPid(), [](unsigned int pid) { return std::to_string(pid); }),
                   shown(process.getResident(), bytesText)});
    }
}

void showNews(PartWatch& watch) {
    for (std::string const& line : watch.takeNews())
        std::printf("panel: %s\n", line.c_str());
}

/** False when the machine is not there. */
bool showMachine(PartWatch& watch, unsigned int number, Options const& options) {
    std::vector<PartWatch::Part> const machines = watch.parts(machine::kClass);
    if (machines.empty())
        return false;
    auto const machine = machines.front().object.as<MachineClient>();
    TipprmiResult<std::string> const host = machine.getHost();
    Table table;
    showCpus(watch, table);
    showMemory(watch, table);
    showNetwork(watch, table);
    showDisks(watch, table);
    showProcesses(watch, table);
    // The process behind the handle may have gone meanwhile, and half the figures with it.
    if (!host || !machine.isConnected())
        return false;
    std::printf("%smachine %s, refresh %u of %u\n%s\n", options.redraw ? "\033[H\033[J" : "",
                host.value().c_str(), number, options.refreshes, table.text().c_str());
    showNews(watch);
    return true;
}

/** A line for each machine of the node; false when there is none. */
bool showMachines(PartWatch& watch, unsigned int number, Options const& options) {
    std::vector<PartWatch::Part> const machines = watch.parts(machine::kClass);
    Table table;
    table.heading({"MACHINE", "host", "processors"});
    for (PartWatch::Part const& part : machines) {
        auto const machine = part.object.as<MachineClient>();
        auto const cpus = machine.parts("cpu");
        auto const host = machine.getHost();
        if (host && cpus)
            table.row({part.name, host.value(), std::to_string(cpus.value().size())});
    }
    std::printf("%s%zu machines, refresh %u of %u\n%s\n", options.redraw ? "\033[H\033[J" : "",
                machines.size(), number, options.refreshes, table.text().c_str());
    showNews(watch);
    return !machines.empty();
}

/** A call that changes something. */
bool setAlarmLimits(PartWatch const& watch, unsigned int percent) {
    bool allSet = true;
    for (PartWatch::Part const& part : watch.parts(cpu::kClass)) {
        auto const done = part.object.as<CpuClient>().setAlarmLimit(percent);
        if (done)
            continue;
        allSet = false;
        if (done.code() == TipprmiFailure::kVetoed)
            std::printf("panel: an observer forbids a new alarm limit of %s\n", part.name.c_str());
        else if (auto const* const refusal = done.raised<watchedPart::BadLimit>())
            std::printf("panel: %s refuses an alarm limit above %u %%\n", part.name.c_str(),
                        refusal->highest);
        else
            std::printf("panel: %s refuses an alarm limit of %u %% (code %u)\n", part.name.c_str(),
                        percent, done.code());
    }
    return allSet;
}

// ---- The actor ---------------------------------------------------------------------------------

void pause(unsigned int milliseconds) {
    std::fflush(stdout);
    TreflectReleaseHandlerState const outside;
    OSWrap::Thread::sleep(milliseconds / 1000, milliseconds % 1000 * 1000000ul);
}

/** Waits for the machine and sets its limits; false when it stays away, or refuses them. */
bool findMachine(PartWatch& watch, Options const& options) {
    if (watch.awaitMachine(options.patience))
        return options.alarmLimit == 0 || setAlarmLimits(watch, options.alarmLimit);
    std::puts("panel: the machine stays away, giving up");
    return false;
}

bool run(Options const& options) {
    if (options.redraw)
        std::printf("\033[2J");
    PartWatch watch(options.node ? NSID_NODE : NSID_UNIT);
    if (!findMachine(watch, options))
        return false;
    for (unsigned int number = 1; number <= options.refreshes;) {
        if ((options.node ? showMachines : showMachine)(watch, number, options)) {
            if (++number <= options.refreshes)
                pause(options.interval);
            continue;
        }
        std::puts("panel: the machine is gone, waiting for it");
        std::fflush(stdout);
        if (!findMachine(watch, options))
            return false;
        std::puts("panel: the machine is back");
    }
    return true;
}

[[noreturn]] void usage(int code) {
    std::puts(
        "usage: panel [--once] [--refreshes N] [--interval MS] [--patience S] [--alarm PERCENT]\n"
        "             [--redraw] [--node]\n"
        "  --once        show the table once\n"
        "  --refreshes   show it N times (default 10)\n"
        "  --interval    milliseconds between two refreshes (default 1000)\n"
        "  --patience    seconds to wait for a machine that is not there (default 30)\n"
        "  --alarm       first set the alarm limit of all processors\n"
        "  --redraw      paint over the last table also when the output is no terminal\n"
        "  --node        show all machines of the node that have a name there, a line each");
    std::exit(code);
}

unsigned int number(char const* text) {
    char* end = nullptr;
    unsigned long const value = std::strtoul(text, &end, 10);
    if (end == text || *end != '\0' || value > 1000000)
        usage(2);
    return static_cast<unsigned int>(value);
}

Options read(int argc, char** argv) {
    static option const kOptions[] = {{"once", no_argument, nullptr, 'o'},
                                      {"refreshes", required_argument, nullptr, 'r'},
                                      {"interval", required_argument, nullptr, 'i'},
                                      {"patience", required_argument, nullptr, 'p'},
                                      {"alarm", required_argument, nullptr, 'a'},
                                      {"redraw", no_argument, nullptr, 'd'},
                                      {"node", no_argument, nullptr, 'n'},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    Options options;
    for (int found = 0; (found = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        switch (found) {
            case 'o':
                options.refreshes = 1;
                break;
            case 'r':
                options.refreshes = number(optarg);
                break;
            case 'i':
                options.interval = number(optarg);
                break;
            case 'p':
                options.patience = number(optarg);
                break;
            case 'a':
                options.alarmLimit = number(optarg);
                break;
            case 'd':
                options.redraw = true;
                break;
            case 'n':
                options.node = true;
                break;
            default:
                usage(found == 'h' ? 0 : 2);
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    Options const options = read(argc, argv);
    Logging::setThreshold(2);  // the panel tells of failed calls in its own words
    // Handles are made, used and destroyed under the run permission.
    TreflectHandlerState const inside(true);
    return run(options) ? 0 : 1;
}
