// The sink of all log lines and telegrams of the device.
#ifndef LOGGING_H
#define LOGGING_H

#include <QMutex>
#include <QObject>
#include <QString>

class QFile;
class QTextStream;

/** The stamp of a log line, "yyyy-MM-dd hh:mm:ss.zzz" in local time. `time`: ms since the epoch. */
QString writeStamp(qint64 time);

/** Reads such a stamp into `time`, ms since the epoch; false if it is none. */
bool readStamp(const QString &stamp, qint64 *time);

/**
 * Writes log lines, with delay and level marker in front, to stdout or syslog and to the log file,
 * and telegrams to the telegram file. Owns both files and their streams. One object a process, on the main
 * thread. What finds no room on the disk is lost without a report; what comes after it is not.
 */
class Logging : public QObject
{
    Q_OBJECT

public:
    /** Reads the logging settings, truncates the files that they name, logs the first line. */
    Logging();
    /** Serves what other threads have queued for this object, then closes the files. */
    ~Logging();

    /** The one object; ends the process with a fatal message if there is none. */
    static Logging *getInstance();

    /**
     * Passes a line to the one object from any thread: at once on the main thread, else through
     * its event queue. Once the object is gone the line is dropped.
     */
    static void deliver(uint level, const QString &line);

public slots:
    /**
     * Writes one log line. `level`: 0 debug, 1 warning, 2 error, 3 and 4 trace, 5 info; any other
     * drops the line. `message`: "(yyyy-MM-dd hh:mm:ss.zzz) name: text", local time; without a
     * readable stamp the delay is 0.
     */
    void onMessage(uint level, QString message);
    /** Writes `telegrams` to the telegram file as they stand, if there is one. */
    void onTelegrams(QString telegrams);

private:
    friend class InsideTest;

    bool useSyslog;

    // Null without a setting.
    static QFile *telegramFile;
    static QFile *logFile;
    static QTextStream *logStream;
    static QTextStream *telegramStream;
    static Logging *instance;
    static bool closed;
    static QMutex mutex; // guards instance and closed against threads other than the main one
};

#endif
