// The subcommands, each made in the file of its name.
#pragma once

#include "Command.h"

std::unique_ptr<Command> makeList();
std::unique_ptr<Command> makeTree();
std::unique_ptr<Command> makeShow();
std::unique_ptr<Command> makeGet();
std::unique_ptr<Command> makeSet();
std::unique_ptr<Command> makeCall();
std::unique_ptr<Command> makeProcesses();
std::unique_ptr<Command> makeClasses();
std::unique_ptr<Command> makeDescribe();
std::unique_ptr<Command> makeWatch();
std::unique_ptr<Command> makeVeto();
std::unique_ptr<Command> makeFollow();
std::unique_ptr<Command> makeRecord();
std::unique_ptr<Command> makeReplay();
std::unique_ptr<Command> makeLog();
std::unique_ptr<Command> makeCalls();
std::unique_ptr<Command> makeWaits();
std::unique_ptr<Command> makeDiff();
std::unique_ptr<Command> makeCheck();
std::unique_ptr<Command> makeComplete();
/** Only where there is ncurses. */
std::unique_ptr<Command> makeTop();
/** Only where there is cpp-httplib. */
std::unique_ptr<Command> makeWeb();
