// What a log says about keepwatch: its state, its releases, and the exits of its modules.
#ifndef STATE_H
#define STATE_H

#include "reader.h"

/** States of the supervisor, as a log shows them. Wait: not released, and more is not known. */
enum State { Unknown, Start, Wait, Run, Pause, Reestablish, Shutdown, Down };
extern const char *const stateNames[]; ///< as they are printed

/** What a message means, beside the state that it begins. */
enum Event { Nothing, RunStarts, Release, Lost, Skip, Await, Launch, Exit };

/** A text of keepwatch and its meaning. `*` stands for a name, `#` for a number. */
struct LogText
{
    const char *pattern;
    State enters; ///< Unknown: none
    Event event;
};
extern const LogText logTexts[]; ///< the last pattern is null

/** A keepwatch message. */
struct Statement
{
    State enters;
    Event event;
    Piece name;
    qint64 number;
    qint64 times; ///< usually 1; more where a tool has shortened the log
};

/** Returns whether `line` is a message of keepwatch about itself, and what it says. */
bool parseStatement(const LogLine &line, Statement *statement);

/** Returns whether a service and a module have like names, as com.qel.zarn5.gui and zarn5_gui. */
bool isAlike(const QByteArray &service, const QByteArray &module);

static const int bucketCount = 6;
extern const double buckets[bucketCount]; ///< upper bounds of delays, seconds

/** Follows the lines of a log. Of several runs, only the last one counts. */
class LogState
{
public:
    void add(const LogLine &line);

    /**
     * Adds what the log says to `report`, by way of facts. `now`: milliseconds since 1970, from which ages
     * count; 0 for the last line.
     */
    void describe(qint64 now, Report *report);

private:
    void count(const LogLine &line);
    void addOutput(const LogLine &line);
    void enter(State entered, const Piece &stamp);
    void exited(const Statement &statement, const Piece &stamp);
    void describeLines(Facts *facts) const;
    void describeAwaited(Report *report) const;

    State state = Unknown;
    Facts facts;
    QList<Facts> modules;
    QList<QByteArray> awaited; // services that are missing, modules that cannot be launched
    Facts outputs; // the last one of each service
    Clock clock = Clock(Clock::Local);
    char last[23] = {}; // timestamp of the last line; NUL before the first one
    qint64 gapStart = 0; // of the period without a release, milliseconds since 1970; 0 while released
    qint64 gap = 0, unreleased = 0; // the last such period, and all of them, milliseconds
    qint64 releases = 0, late = 0;
    qint64 lines[LevelCount] = {};
    qint64 delays[bucketCount + 1] = {}; // lines per bucket; in the last one are those above all bounds
    qint64 delaySum = 0; // milliseconds
    bool complete = false; // there are lines of others
    bool shortened = false; // of what was said several times, a line is left
};

/**
 * Follows the log in `file` into facts. `deadline`: of reading, milliseconds of the monotonic clock; 0 for
 * none. `current`: whether somebody still writes it, so that ages count from now.
 */
void describeLog(int file, qint64 deadline, bool current, Report *report);

/** Returns milliseconds of the monotonic clock. */
qint64 monotonicMs();

#endif
