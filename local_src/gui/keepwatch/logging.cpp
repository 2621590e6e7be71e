#include "logging.h"

#include "main.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFile>
#include <QSettings>
#include <QThread>

#include <cstdio>
#include <syslog.h>
#include <unistd.h>

QFile *Logging::telegramFile;
QFile *Logging::logFile;
Logging *Logging::instance;
bool Logging::closed;
QMutex Logging::mutex;

static const Qt::HANDLE mainThread = QThread::currentThreadId();

static const struct
{
    const char *format;
    int priority;
} levels[] = {
    { "[%05i] ++ %s\n", LOG_INFO }, // 0: debug
    { "[%05i] WW %s\n", LOG_WARNING }, // 1: warning
    { "[%05i] EE %s\n", LOG_ERR }, // 2: error
    { "[%05i] -> %s\n", LOG_INFO }, // 3: trace, forward
    { "[%05i] <- %s\n", LOG_INFO }, // 4: trace, backward
    { "[%05i]    %s\n", LOG_INFO }, // 5: info
};

// A file that cannot be opened stays closed, and what is written to it is lost.
static QFile *openFile(const QString &path)
{
    if (path.isEmpty())
        return 0;
    QFile *file = new QFile(path);
    file->open(QIODevice::WriteOnly | QIODevice::Truncate);
    return file;
}

// One write, whole or not at all. The buffers of QTextStream and QFile would keep what finds no
// room on the disk, growing without end and never writing again.
static void append(QFile *file, const QByteArray &text)
{
    if (!file || !file->isOpen())
        return;
    const ssize_t written = write(file->handle(), text.constData(), text.size());
    if (written > 0 && written < text.size()) {
        const off_t start = lseek(file->handle(), -written, SEEK_CUR);
        if (start < 0 || ftruncate(file->handle(), start) != 0)
            return; // a pipe: what it took cannot be taken back
    }
}

Logging::Logging()
    : useSyslog(false)
{
    QSettings settings;
    {
        QMutexLocker locker(&mutex);
        instance = this;
        closed = false;
    }

    telegramFile = openFile(settings.value(QLatin1String("logging/telegramfile")).toString());
    logFile = openFile(settings.value(QLatin1String("logging/logfile")).toString());

    const QLatin1String off("false");
    useSyslog = settings.value(QLatin1String("logging/syslog"), off).toString() != off;
    if (useSyslog)
        openlog("torvi", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_LOCAL1);

    logInfo() << "********starting new logging session********";
}

Logging::~Logging()
{
    {
        QMutexLocker locker(&mutex);
        instance = 0;
        closed = true;
    }
    // What modules published while they were shut down still waits here.
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);

    delete telegramFile;
    telegramFile = 0;
    delete logFile;
    logFile = 0;
    if (useSyslog)
        closelog();
}

Logging *Logging::getInstance()
{
    // Not qFatal: called from the message handler it would lose stamp and name.
    if (!instance)
        messageHandler(QtFatalMsg, "no Logging instance");
    return instance;
}

void Logging::deliver(uint level, const QString &line)
{
    // The main thread takes no lock: it alone writes what the lock guards.
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
    if (level >= sizeof levels / sizeof *levels)
        return;

    int delay = 0;
    const QDateTime stamp
        = QDateTime::fromString(message.mid(1, 23), QLatin1String("yyyy-MM-dd hh:mm:ss.zzz"));
    if (stamp.isValid())
        delay = int(stamp.msecsTo(QDateTime::currentDateTime()));

    QString text;
    text.sprintf(levels[level].format, delay, message.toLocal8Bit().constData());
    const QByteArray local = text.toLocal8Bit();
    if (useSyslog)
        syslog(levels[level].priority, "%s", text.toUtf8().constData());
    else
        printf("%s", local.constData());
    append(logFile, local);
}

void Logging::onTelegrams(QString telegrams)
{
    append(telegramFile, telegrams.toLocal8Bit());
}
