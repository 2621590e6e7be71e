// Log statements and the message handler, which all parts of keepwatch share.
#ifndef MAIN_H
#define MAIN_H

#include "qtversion.h"

#include <QString>

/** Write a log statement as "logWarning() << item << item;". A blank follows each item. */
#define logInfo() LogStatement(QtDebugMsg, "NODEBUG:%1,%2:", __FILE__, __LINE__)
#define logWarning() LogStatement(QtWarningMsg, "%1,%2:", __FILE__, __LINE__)
#define logError() LogStatement(QtCriticalMsg, "%1,%2:", __FILE__, __LINE__)

/**
 * Collects the items of one log statement. The destructor passes the text to Qt's message handler. QDebug
 * is unsuitable: from Qt 5 on, it escapes text and drops the trailing blank.
 */
class LogStatement
{
public:
    /**
     * Adds the first item, the tag: `form` with the file name (20 characters) and the line (5) filled in.
     */
    LogStatement(QtMsgType type, const char *form, const char *path, int line);
    ~LogStatement();

    LogStatement &operator<<(const char *text); ///< without quotes; each byte becomes one character
    LogStatement &operator<<(const QString &text); ///< in double quotes, nothing is escaped
    LogStatement &operator<<(qint64 number);

private:
    Q_DISABLE_COPY(LogStatement)

    QtMsgType type;
    QString buffer;
};

/**
 * Handles all Qt messages of the process, from any thread: drops debug and trace messages that the settings
 * suppress, adds the timestamp and the name, and passes the line to Logging. Writes a fatal message to stderr
 * and aborts the process.
 */
void messageHandler(QtMsgType type, const char *msg);

#endif
