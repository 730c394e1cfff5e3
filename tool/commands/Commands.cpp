#include "Commands.h"

Commands makeCommands() {
    Commands commands;
    for (auto const make :
         {makeList,    makeTree,     makeShow,  makeGet,  makeSet,    makeCall,    makeProcesses,
          makeClasses, makeDescribe, makeWatch, makeVeto, makeFollow, makeRecord,  makeReplay,
          makeCalls,   makeWaits,    makeLog,   makeDiff, makeCheck,  makeComplete})
        commands.push_back(make());
#ifdef REFLECTORB_HAS_NCURSES
    commands.push_back(makeTop());
#endif
#ifdef REFLECTORB_HAS_WEB
    commands.push_back(makeWeb());
#endif
    return commands;
}
