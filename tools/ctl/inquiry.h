// Finds out all that can be known about a keepwatch, within a time limit.
#ifndef INQUIRY_H
#define INQUIRY_H

#include "processes.h"
#include "state.h"

/** What is asked, and for how long. */
struct Inquiry
{
    bool log; ///< look for the log, and follow it
    bool modules; ///< ask the modules
    qint64 answerMs; ///< the longest time to wait for the bus daemon, and then for those on the bus
    qint64 limitMs; ///< the longest time for everything
};

/**
 * Returns a report for each of the `daemons`, or a single one of a keepwatch that does not run if there are
 * none. Asks as each daemon, in processes of their own, which are killed when the time is over: what is known
 * by then is in the report.
 */
QList<Report> inquire(const Processes &processes, const QList<Process> &daemons, const Inquiry &inquiry);

/** Returns the name of the first socket in the address of a bus, as the kernel has it. */
QByteArray socketPath(const QByteArray &address);

#endif
