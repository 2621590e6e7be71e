// Does keepwatch answer, and if not, which process hangs?
#ifndef PING_H
#define PING_H

#include "processes.h"
#include "verdict.h"

enum Outcome { Answers, Hangs, CannotTell, ModuleHangs }; // the exit status of the command "ping"

struct Ping
{
    Outcome outcome;
    Finding finding; ///< what is wrong and what to do, such as what to kill
    bool runs; ///< there is a keepwatch
    bool isBus; ///< the bus daemon hangs, not keepwatch
    Process hanging; ///< the bus daemon or the daemon, as it was found; with the id 0 if it was not
};

/** Asks keepwatch, and with `modules` also its modules, until all answer, for at most `limitSeconds`. */
Ping ping(int limitSeconds, bool modules);

/** Returns how long modules that hang can block keepwatch, seconds. It answers in time after that. */
int longestWait();

#endif
