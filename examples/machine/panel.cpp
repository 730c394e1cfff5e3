// The actor `panel` finds the objects of the actor `machine` by their identifiers, calls them, and
// shows what they answer as a small live table. When the machine goes away it says so, keeps
// looking, and goes on when the machine is back.
#include <getopt.h>
#include <handler_threads.h>
#include <logging.h>
#include <unistd.h>

#include <oswrap.h>
#include <cstdio>
#include <cstdlib>

#include "Cpu.h"
#include "Disk.h"
#include "Machine.h"
#include "Memory.h"
#include "NetworkInterface.h"
#include "Table.h"

namespace {

struct Options {
    unsigned int refreshes = 10;
    unsigned int interval = 1000;              // milliseconds between two refreshes
    unsigned int patience = 30;                // seconds to look for a machine that is not there
    unsigned int alarmLimit = 0;               // percent, for all processors; 0: leave theirs
    bool redraw = isatty(STDOUT_FILENO) == 1;  // paint each table over the last one
};

// ---- What is shown -----------------------------------------------------------------------------
// Each function makes its handles anew from identifiers: that finds the objects again wherever they
// are now. A handle that is kept would be quicker, and dead once its object's process has gone.

/** A figure as text, or a mark that there is none: the machine may go at any moment. */
template <class T, class Text>
std::string shown(TipprmiResult<T> const& result, Text const& text) {
    return result ? text(result.value()) : std::string("?");
}

template <class Row>
void forEachPart(MachineClient const& machine, char const* kind, Row const& row) {
    TipprmiResult<Names> const names = machine.parts(kind);
    for (unsigned int i = 0; i < names.value().getLength(); ++i)
        row(names.value()[i], machine::partId(kind, names.value()[i]));
}

void showCpus(MachineClient const& machine, Table& table) {
    table.heading({"PROCESSOR", "load", "", "alarm at"});
    forEachPart(machine, machine::kCpu, [&](std::string const& name, TipprmiOID const& id) {
        CpuClient const cpu(id);
        std::string const load = shown(cpu.getLoad(), percentText);
        table.row({name, load, "", shown(cpu.getAlarm(), alarmText)});
    });
}

void showMemory(MachineClient const& machine, Table& table) {
    table.heading({"MEMORY", "total", "free", "alarm at"});
    forEachPart(machine, machine::kMemory, [&](std::string const& name, TipprmiOID const& id) {
        MemoryClient const memory(id);
        table.row({name, shown(memory.getTotal(), bytesText), shown(memory.getFree(), bytesText),
                   shown(memory.getAlarm(), alarmText)});
    });
}

void showNetwork(MachineClient const& machine, Table& table) {
    table.heading({"NETWORK", "received", "sent"});
    forEachPart(machine, machine::kNetwork, [&](std::string const& name, TipprmiOID const& id) {
        NetworkInterfaceClient const interface(id);
        table.row({name, shown(interface.getReceivedBytes(), bytesText),
                   shown(interface.getSentBytes(), bytesText)});
    });
}

void showDisks(MachineClient const& machine, Table& table) {
    table.heading({"DISK", "size", "free", "alarm at"});
    forEachPart(machine, machine::kDisk, [&](std::string const& name, TipprmiOID const& id) {
        DiskClient const disk(id);
        table.row({name, shown(disk.getTotal(), bytesText), shown(disk.getFree(), bytesText),
                   shown(disk.getAlarm(), alarmText)});
    });
}

/** False when the machine is not there. */
bool showMachine(unsigned int number, Options const& options) {
    MachineClient const machine(machine::id());
    if (!machine.isConnected())
        return false;
    TipprmiResult<std::string> const host = machine.getHost();
    Table table;
    showCpus(machine, table);
    showMemory(machine, table);
    showNetwork(machine, table);
    showDisks(machine, table);
    // The process behind the handle may have gone meanwhile, and half the figures with it.
    if (!host || !machine.isConnected())
        return false;
    std::printf("%smachine %s, refresh %u of %u\n%s\n", options.redraw ? "\033[H\033[J" : "",
                host.value().c_str(), number, options.refreshes, table.text().c_str());
    return true;
}

/** A call that changes something. */
bool setAlarmLimits(unsigned int percent) {
    bool allSet = true;
    MachineClient const machine(machine::id());
    forEachPart(machine, machine::kCpu, [&](std::string const& name, TipprmiOID const& id) {
        TipprmiResult<void> const done = CpuClient(id).setAlarmLimit(percent);
        if (done)
            return;
        allSet = false;
        if (done.code() == TipprmiFailure::kVetoed)
            std::printf("panel: an observer forbids a new alarm limit of %s\n", name.c_str());
        else
            std::printf("panel: %s refuses an alarm limit of %u %% (code %u)\n", name.c_str(),
                        percent, done.code());
    });
    return allSet;
}

// ---- The actor ---------------------------------------------------------------------------------

void pause(unsigned int milliseconds) {
    std::fflush(stdout);
    TreflectReleaseHandlerState const outside;
    OSWrap::Thread::sleep(milliseconds / 1000, milliseconds % 1000 * 1000000ul);
}

/** Looks for the machine and sets its limits; false when it stays away, or refuses them. */
bool findMachine(Options const& options) {
    constexpr unsigned int kStep = 100;
    for (unsigned int waited = 0; waited < options.patience * 1000; waited += kStep) {
        if (MachineClient(machine::id()).isConnected())
            return options.alarmLimit == 0 || setAlarmLimits(options.alarmLimit);
        pause(kStep);
    }
    std::puts("panel: the machine stays away, giving up");
    return false;
}

bool run(Options const& options) {
    if (options.redraw)
        std::printf("\033[2J");
    if (!findMachine(options))
        return false;
    for (unsigned int number = 1; number <= options.refreshes;) {
        if (showMachine(number, options)) {
            if (++number <= options.refreshes)
                pause(options.interval);
            continue;
        }
        std::puts("panel: the machine is gone, looking for it");
        if (!findMachine(options))
            return false;
        std::puts("panel: the machine is back");
    }
    return true;
}

[[noreturn]] void usage(int code) {
    std::puts(
        "usage: panel [--once] [--refreshes N] [--interval MS] [--patience S] [--alarm PERCENT]\n"
        "             [--redraw]\n"
        "  --once        show the table once\n"
        "  --refreshes   show it N times (default 10)\n"
        "  --interval    milliseconds between two refreshes (default 1000)\n"
        "  --patience    seconds to look for a machine that is not there (default 30)\n"
        "  --alarm       first set the alarm limit of all processors\n"
        "  --redraw      paint over the last table also when the output is no terminal");
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
