#include "oldlogs.h"

#include "settings.h"
#include "text.h"

#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

static const int places = 9;
static const qint64 totalBytes = 10 << 20; // of all older logs
static const quint64 spareBytes = 1 << 20; // of a file system that is not full
static const qint64 endBytes = 500000; // what remains of LOG.1 on a full file system

static QByteArray placeOf(const QByteArray &log, int place)
{
    return place == 0 ? log : log + "." + QByteArray::number(place);
}

// A start that failed at once has left one line, which is not worth a place.
static bool hasTwoLines(const QByteArray &log)
{
    QFile file(QFile::decodeName(log));
    return file.open(QIODevice::ReadOnly) && file.read(65536).count('\n') >= 2;
}

static bool move(const QByteArray &log)
{
    struct stat status;
    int last = 1; // the first free place, or the last one
    while (last < places && lstat(placeOf(log, last).constData(), &status) == 0)
        ++last;
    for (int place = last; place > 0; --place) {
        const QByteArray from = placeOf(log, place - 1), to = placeOf(log, place);
        if (rename(from.constData(), to.constData()) != 0) {
            fprintf(stderr, "zarn5ctl: cannot rename %s: %s; correct the rights of its folder\n",
                    escape(from).constData(), strerror(errno));
            return false;
        }
    }
    return true;
}

// Returns false if the free space is unknown.
static bool isFull(const QByteArray &log)
{
    struct statvfs space;
    return statvfs(log.constData(), &space) == 0 && space.f_blocks > 0
        && quint64(space.f_bavail) * space.f_frsize < spareBytes;
}

// The log can lie in memory. On a full file system, keepwatch needs the space for the next log.
static void removeOldest(const QByteArray &log)
{
    const qint64 limit = isFull(placeOf(log, 1)) ? 0 : totalBytes;
    qint64 bytes = 0;
    for (int place = 1; place <= places; ++place) {
        const QByteArray path = placeOf(log, place);
        struct stat status;
        if (lstat(path.constData(), &status) != 0)
            continue;
        bytes += status.st_blocks * qint64(512);
        if (place > 1 && bytes > limit)
            unlink(path.constData());
    }
}

static void keepEnd(const QByteArray &log)
{
    QFile file(QFile::decodeName(log));
    if (file.size() <= endBytes || !file.open(QIODevice::ReadWrite))
        return;
    file.seek(file.size() - endBytes);
    const QByteArray end = file.read(endBytes);
    file.resize(0); // first, because there can be no space for another byte
    file.seek(0);
    file.write(end);
}

void moveOldLogs()
{
    const QString path
        = readLoggingSettings(QSettings(QLatin1String("zarn5"), QLatin1String("keepwatch"))).logFile;
    const QFileInfo file(QFileInfo(path).canonicalFilePath()); // the target of a link
    if (path.isEmpty() || !file.isFile())
        return;
    const QByteArray log = QFile::encodeName(file.filePath());
    if (!hasTwoLines(log) || !move(log))
        return;
    removeOldest(log);
    if (isFull(placeOf(log, 1)))
        keepEnd(placeOf(log, 1));
}
