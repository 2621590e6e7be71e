// Signals, and sleeping until one comes.
#ifndef SIGNALS_H
#define SIGNALS_H

#include <QtGlobal>

#include <csignal>

/** Whether SIGTERM or SIGINT has come. */
extern volatile sig_atomic_t isEnding;

/**
 * Blocks SIGTERM, SIGINT, SIGCHLD, and SIGCONT except in sleepUntil, so that none is lost between a look and
 * a sleep.
 */
void takeSignals();

/**
 * Sleeps until `due` of the monotonic clock, a signal, or input from `descriptor` (-1: none), at most for an
 * hour. Returns whether there is input, or its end.
 */
bool sleepUntil(qint64 due, int descriptor = -1);

#endif
