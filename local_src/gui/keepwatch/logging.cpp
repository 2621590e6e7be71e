#include "logging.h"

#include "main.h"
#include "settings.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QSettings>
#include <QTextStream>
#include <QThread>

#include <cstdio>
#include <cstring>
#include <syslog.h>
#include <utility>

QFile *Logging::telegramFile;
QFile *Logging::logFile;
QTextStream *Logging::logStream;
QTextStream *Logging::telegramStream;
Logging *Logging::instance;
bool Logging::closed;
QMutex Logging::mutex;

static const Qt::HANDLE mainThread = QThread::currentThreadId();

// The levels and the formats are an interface, as are the texts of all log statements: see watchdog.h.
static const char *const marks[] = { "++", "WW", "EE", "->", "<-", "  " }; // by level
static const int priorities[] = { LOG_INFO, LOG_WARNING, LOG_ERR, LOG_INFO, LOG_INFO, LOG_INFO };

static const QLatin1String stampFormat("yyyy-MM-dd hh:mm:ss.zzz");

// A minute whose timestamps are known. Qt's conversion of timestamps would take most of the time of a log
// line. Within a minute, only the digits after "yyyy-MM-dd hh:mm:" change, so Qt is called once per minute.
// Two minutes are kept, because the clock of one source of lines can differ. The type has no destructor,
// because messages can arrive after statics and thread locals are destroyed.
struct Minute
{
    QChar text[17]; // the first characters of its timestamps
    qint64 start; // ms since the epoch
    bool plain; // whether text, seconds, and milliseconds make up a timestamp; otherwise Qt converts each one
};
static thread_local Minute minutes[2]; // the current one first

static bool isCurrentMinute(const QString &stamp)
{
    return memcmp(stamp.constData(), minutes[0].text, sizeof minutes[0].text) == 0;
}

// Makes the minute of `stamp`, which has 23 characters, the current one. Returns whether it is plain.
static bool enterMinute(const QString &stamp)
{
    if (!isCurrentMinute(stamp))
        std::swap(minutes[0], minutes[1]);
    if (isCurrentMinute(stamp))
        return minutes[0].plain;
    memcpy(minutes[0].text, stamp.constData(), sizeof minutes[0].text);
    const QString first = stamp.left(17) + QLatin1String("00.000");
    const QString last = stamp.left(17) + QLatin1String("59.999");
    minutes[0].start = QDateTime::fromString(first, stampFormat).toMSecsSinceEpoch();
    // Not plain: other digits than ASCII, 24:00, and a minute that a clock change skips or cuts.
    minutes[0].plain = QDateTime::fromMSecsSinceEpoch(minutes[0].start).toString(stampFormat) == first
        && QDateTime::fromMSecsSinceEpoch(minutes[0].start + 59999).toString(stampFormat) == last
        && QDateTime::fromString(last, stampFormat).toMSecsSinceEpoch() == minutes[0].start + 59999;
    return minutes[0].plain;
}

QString writeStamp(qint64 time)
{
    const qint64 rest = time - minutes[0].start;
    if (minutes[0].plain && rest >= 0 && rest < 60000) {
        char digits[16];
        qsnprintf(digits, sizeof digits, "%02d.%03d", int(rest / 1000), int(rest % 1000));
        return QString(minutes[0].text, 17) + QLatin1String(digits);
    }
    QString stamp = QDateTime::fromMSecsSinceEpoch(time).toString(stampFormat);
    if (stamp.size() == 23)
        enterMinute(stamp);
    return stamp;
}

bool readStamp(const QString &stamp, qint64 *time)
{
    if (stamp.size() == 23 && stamp[19] == QLatin1Char('.')) {
        bool plain = true;
        int ms = 0;
        for (int i : { 17, 18, 20, 21, 22 }) { // "ss" and "zzz"
            const int digit = stamp[i].unicode() - '0';
            plain = plain && digit >= 0 && digit <= 9;
            ms = ms * 10 + digit;
        }
        if (plain && ms < 60000 && enterMinute(stamp)) {
            *time = minutes[0].start + ms;
            return true;
        }
    }
    const QDateTime read = QDateTime::fromString(stamp, stampFormat);
    *time = read.toMSecsSinceEpoch();
    return read.isValid();
}

// If the file cannot be opened, it stays closed, and the text for it is dropped.
static void openFile(const QString &path, QFile **file, QTextStream **stream)
{
    if (path.isEmpty())
        return;
    *file = new QFile(path);
    *stream = new QTextStream(*file);
    (*file)->open(QIODevice::WriteOnly | QIODevice::Truncate);
}

// Resets the error of the previous text, because a stream with an error writes nothing. If only a part of a
// line fits on the disk, the rest stays in the buffer of the file and is written before the next line.
static void write(QFile *file, QTextStream *stream, const QString &text)
{
    if (!stream || !file->isOpen())
        return;
    stream->resetStatus();
    *stream << text;
    stream->flush();
    file->flush(); // after a full disk, the buffer holds two blocks, and Qt 5 writes one per call
}

// Returns false for a text with NUL, too, because the C library stops there.
static bool isAscii(const QString &text)
{
    for (const QChar c : text) {
        if (c.isNull() || c.unicode() > 127)
            return false;
    }
    return true;
}

// Formats a line as QString::sprintf of Qt 4 does: %s takes the bytes of `message` in the encoding of the
// locale, up to the first NUL, and reads them as UTF-8. ASCII text needs no conversion.
static QString formatLine(const char *mark, int delay, const QString &message)
{
    char head[32];
    qsnprintf(head, sizeof head, "[%05i] %s ", delay, mark);
    QString line;
    line.reserve(int(sizeof head) + message.size());
    line += QLatin1String(head);
    line += isAscii(message) ? message : QString::fromUtf8(message.toLocal8Bit().constData());
    return line += QLatin1Char('\n');
}

Logging::Logging()
    : useSyslog(false)
{
    instance = this; // without the lock, because no other thread logs yet
    closed = false;
    const LoggingSettings settings = readLoggingSettings(QSettings()); // Qt logs a malformed value

    openFile(settings.telegramFile, &telegramFile, &telegramStream);
    openFile(settings.logFile, &logFile, &logStream);

    useSyslog = settings.useSyslog;
    if (useSyslog)
        openlog("torvi", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_LOCAL1);

    logInfo() << "********starting new logging session********";
}

Logging::~Logging()
{
    mutex.lock();
    instance = 0;
    closed = true;
    mutex.unlock();
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall); // lines of other threads

    delete telegramFile; // closes it
    delete logFile;
    delete logStream;
    delete telegramStream;
    telegramFile = logFile = 0;
    telegramStream = logStream = 0;
    if (useSyslog)
        closelog();
}

Logging *Logging::getInstance()
{
    // Not qFatal, because from within the message handler it would lose the timestamp and the name.
    if (!instance)
        messageHandler(QtFatalMsg, "no Logging instance");
    return instance;
}

void Logging::deliver(uint level, const QString &line)
{
    // The main thread needs no lock, because no other thread writes what the lock protects.
    if (QThread::currentThreadId() == mainThread) {
        if (!closed)
            getInstance()->onMessage(level, line);
        return;
    }
    QMutexLocker locker(&mutex);
    if (!closed)
        QMetaObject::invokeMethod(getInstance(), "onMessage", Qt::QueuedConnection, Q_ARG(uint, level),
                                  Q_ARG(QString, line));
}

void Logging::onMessage(uint level, QString message)
{
    if (level >= sizeof marks / sizeof *marks)
        return;

    qint64 stamp;
    const bool stamped = readStamp(message.mid(1, 23), &stamp);
    const int delay = stamped ? int(QDateTime::currentMSecsSinceEpoch() - stamp) : 0;

    const QString text = formatLine(marks[level], delay, message);

    if (useSyslog)
        syslog(priorities[level], "%s", text.toUtf8().constData());
    else
        fputs(text.toLocal8Bit().constData(), stdout);
    write(logFile, logStream, text);
}

void Logging::onTelegrams(QString telegrams)
{
    write(telegramFile, telegramStream, telegrams);
}
