// What every part of keepwatch shares: the log statement, the handler that it ends in, the pgrep
// run and the question to the bus.
#ifndef MAIN_H
#define MAIN_H

#include "qtversion.h"

#include <QStringList>

/** A log statement: "logWarning() << item << item;". Every item is followed by one blank. */
#define logInfo() LogStatement(QtDebugMsg, "NODEBUG:%1,%2:", __FILE__, __LINE__)
#define logWarning() LogStatement(QtWarningMsg, "%1,%2:", __FILE__, __LINE__)
#define logError() LogStatement(QtCriticalMsg, "%1,%2:", __FILE__, __LINE__)

/**
 * Gathers the items of one log statement and hands the text to Qt's message output when it is
 * destroyed. QDebug is no substitute: from Qt 5 on it escapes texts and drops the last blank.
 */
class LogStatement
{
public:
    /** The first item, the tag: file name (20 characters) and line (5) put into `form`. */
    LogStatement(QtMsgType type, const char *form, const char *path, int line);
    ~LogStatement();

    LogStatement &operator<<(const char *text); ///< bare, each byte one character
    LogStatement &operator<<(const QString &text); ///< in double quotes, nothing escaped
    LogStatement &operator<<(qint64 number);

private:
    Q_DISABLE_COPY(LogStatement)

    QtMsgType type;
    QString buffer;
};

/**
 * The end of every message of the process, on whatever thread: adds stamp and name, and passes the
 * line to the Logging object. A fatal message goes to stderr and ends the process.
 */
void messageHandler(QtMsgType type, const char *msg);

/**
 * Runs "pgrep name" and returns the ids that it prints, in order; an empty list if it cannot be
 * started. Blocks until pgrep has ended or said nothing for 30000 ms. `process` is the caller's,
 * since a pgrep that hangs must live on: destroying it here would be a message of its own.
 */
QStringList findProcesses(const QString &name, ChildProcess *process);

/**
 * Asks the bus until `service` has no owner, 100 times at most; then serves all that came in ahead of the
 * last answer, the loss of the service included. Any slot may run inside, so a caller touches nothing
 * afterwards that one may change. An answer is waited for a second; to a bus that stands still the question
 * is put 25 times, since its report, too, is late then.
 */
void serveBus(const QString &service);

#endif
