// Writes all log lines and telegrams of the device.
#ifndef LOGGING_H
#define LOGGING_H

#include <QMutex>
#include <QObject>
#include <QString>

class QFile;
class QTextStream;

/** Formats `time`, in ms since the epoch, as a timestamp: "yyyy-MM-dd hh:mm:ss.zzz", local time. */
QString writeStamp(qint64 time);

/**
 * Parses a timestamp into `time`, in ms since the epoch. Returns false if `stamp` is not a valid timestamp.
 */
bool readStamp(const QString &stamp, qint64 *time);

/**
 * Writes log lines to stdout or syslog and to the log file, each with its delay and level marker in front.
 * Writes telegrams to the telegram file. Owns both files and their streams. There is one instance per
 * process; it lives on the main thread.
 *
 * Silently drops the text that does not fit on a full disk. Later text is written again as soon as it fits.
 */
class Logging : public QObject
{
    Q_OBJECT

public:
    /** Reads the settings of the section "logging", truncates both files, and logs the first line. */
    Logging();
    /** Writes the lines that other threads have queued, then closes the files. */
    ~Logging();

    /** Returns the single instance. Aborts the process with a fatal message if there is none. */
    static Logging *getInstance();

    /**
     * Passes a log line to the single instance. Can be called from any thread: the main thread writes the
     * line immediately, other threads queue it for the main thread. Drops the line after the instance is
     * destroyed, and aborts the process before it is created.
     */
    static void deliver(uint level, const QString &line);

public slots:
    /**
     * Writes one log line. `level` is 0 debug, 1 warning, 2 error, 3 or 4 trace, or 5 info; a line with any
     * other level is dropped. `message` has the form "(yyyy-MM-dd hh:mm:ss.zzz) name: text", in local time.
     * The delay is 0 if the timestamp cannot be parsed.
     */
    void onMessage(uint level, QString message);
    /** Appends `telegrams` unchanged to the telegram file, if one is configured. */
    void onTelegrams(QString telegrams);

private:
    friend class InsideTest;

    bool useSyslog;

    // Null if the file is not configured.
    static QFile *telegramFile;
    static QFile *logFile;
    static QTextStream *logStream;
    static QTextStream *telegramStream;
    static Logging *instance;
    static bool closed;
    // Protects instance and closed. Only the main thread writes them, so it reads them without the lock.
    static QMutex mutex;
};

#endif
