// Judges what is known about a keepwatch.
#ifndef VERDICT_H
#define VERDICT_H

#include "text.h"

struct Finding
{
    QByteArray text; ///< what is wrong or not known, fit for the subject of a mail
    QByteArray advice; ///< what to do
};

/** All is well only if there is no finding: if all that matters was seen to be well. */
struct Verdict
{
    QList<Finding> faults; ///< the cause of the others first
    QList<Finding> doubts; ///< what is not known

    int status() const
    {
        return !faults.isEmpty() ? 1 : !doubts.isEmpty() ? 2 : 0;
    } ///< exit status
};

/** Judges a report of inquire; or one of a log alone, which has the fact "source". */
Verdict judge(const Report &report);

/** Returns the first line of a page. */
QByteArray headline(const Report &report, const Verdict &verdict);

/** Returns the name of a module: that of the settings, or that in the log. */
QByteArray nameOf(const Facts &module);

#endif
