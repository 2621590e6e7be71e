// Watches keepwatch while it runs.
#ifndef WATCH_H
#define WATCH_H

/**
 * Watches keepwatch until SIGTERM or SIGINT, and returns the exit status: warns in its log of each control
 * call that took long, asks every `intervalSeconds` for at most `limitSeconds` whether it answers, and ends
 * what hangs. A time of 0 is the default. Uses the bus that the environment names. Call it in a process that
 * does nothing else.
 */
int watch(int intervalSeconds, int limitSeconds);

#endif
