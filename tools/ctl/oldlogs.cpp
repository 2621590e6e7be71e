#include "oldlogs.h"

#include "check.h"
#include "text.h"

#include <QFileInfo>
#include <QStringList>

#include <cerrno>
#include <cstdio>
#include <sys/statvfs.h>

static const int lastPlace = 9;
static const qint64 totalBytes = 10 << 20; // of all older logs
static const quint64 spareBytes = 1 << 20; // of a file system that is not full
static const qint64 endBytes = 500000; // what remains of LOG.1 on a full file system

// Returns false if the free space is unknown.
static bool isFull(const QString &path)
{
    struct statvfs space;
    return statvfs(QFile::encodeName(path).constData(), &space) == 0 && space.f_blocks > 0
        && quint64(space.f_bavail) * space.f_frsize < spareBytes;
}

// `places`: LOG, LOG.1, ...
static void move(const QStringList &places)
{
    int last = 1; // the first free place, or the last one
    while (last < lastPlace && QFile::exists(places[last]))
        ++last;
    for (int place = last; place > 0; --place) {
        const QByteArray from = QFile::encodeName(places[place - 1]);
        if (rename(from.constData(), QFile::encodeName(places[place]).constData()) != 0) {
            complain("no log is kept, because " + from + " cannot move: " + QByteArray(strerror(errno)));
            return;
        }
    }
}

// The logs can lie in memory. On a full file system, the next log needs the space.
static void removeOldest(const QStringList &places)
{
    const qint64 limit = isFull(places[1]) ? 0 : totalBytes;
    qint64 bytes = QFileInfo(places[1]).size();
    for (int place = 2; place <= lastPlace; ++place) {
        bytes += QFileInfo(places[place]).size();
        if (bytes > limit)
            QFile::remove(places[place]);
    }
}

static void keepEnd(const QString &log)
{
    QFile file(log);
    if (file.size() <= endBytes || !file.open(QIODevice::ReadWrite))
        return;
    file.seek(file.size() - endBytes);
    const QByteArray end = file.read(endBytes);
    file.resize(0); // first, because there can be no space for another byte; also sets the position to 0
    file.write(end);
}

void moveOldLogs()
{
    actAsKeepwatch();
    const QSettings settings;
    const QString log = QFileInfo(readLoggingSettings(settings).logFile).canonicalFilePath();
    QFile file(log);
    // A start that failed at once has left one line, which is not worth a place.
    if (!QFileInfo(log).isFile() || !file.open(QIODevice::ReadOnly) || file.read(100000).count('\n') < 2)
        return;
    QStringList places(log);
    for (int place = 1; place <= lastPlace; ++place)
        places << log + QLatin1Char('.') + QString::number(place);
    move(places);
    removeOldest(places);
    if (isFull(places[1]))
        keepEnd(places[1]);
}
