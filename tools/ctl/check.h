// Will keepwatch start? Checks its settings, its environment, and its bus. Changes nothing.
#ifndef CHECK_H
#define CHECK_H

#include "place.h"
#include "processes.h"
#include "settings.h"

#include <QSet>
#include <QSettings>

#include <deque>

/** What is printed: all to standard output, or the faults alone to standard error. */
enum CheckOutput { Everything, FaultsAlone };

/**
 * Checks whether keepwatch will start, and prints each fault as a line "fault: PLACE: what is wrong; what to
 * do". The faults alone are those of a start by this process; with everything, if a keepwatch runs, those of
 * its next start. Works in a child process, which does not change this one and is killed after `seconds`.
 * Returns 0 if there is no fault, 1 if there is one, and 2 if that is not known.
 */
int checkStart(CheckOutput output, int seconds = 20);

/** Names this process to Qt as keepwatch does, so that it finds the same settings. */
void actAsKeepwatch();

/** What is looked at, and what is found. */
struct Check
{
    Processes processes; ///< without a keepwatch that runs and all below it, which count as ended
    QList<WrittenFile> written; ///< by the keepwatch that runs
    bool isRunning = false;
    std::deque<QSettings> files; ///< where keepwatch looks for a key, in this order
    QSet<QString> known; ///< keys that keepwatch reads
    QList<QByteArray> lines; ///< the settings as keepwatch reads them, and notes
    QList<QByteArray> faults;

    void note(const QByteArray &place, const QByteArray &text);
    void fault(const QByteArray &place, const QByteArray &text); ///< an empty text is none
    QByteArray placeOf(const QByteArray &key) const; ///< the key, and the file that has it
};

/** Shows and checks the settings, and what they name. */
void checkSettings(Check *check);
void checkLogs(const LoggingSettings &logging, Check *check);
void checkModules(const QSettings &settings, Check *check);

/** Returns why a program cannot be executed; empty if it can. */
QByteArray judgeProgram(const QString &path);

/** Returns the processes that a start finds by a part of their name. */
QList<Process> findNamed(const QByteArray &pattern, const Processes &processes);

/** Returns "process ID (NAME)". */
QByteArray describe(const Process &process);

#endif
