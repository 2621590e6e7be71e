// Checks where the lines go: the log file, the telegram file, and syslog.
#include "check.h"
#include "place.h"

#include <QFileInfo>

#include <cerrno>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

static const quint64 roomKilobytes = 1000; // of a file system that is not full

// Follows a link, which can lead to a file that is yet to be made.
static QString findTarget(QString path)
{
    for (int links = 0; links < 40 && !QFile::exists(path) && QFileInfo(path).isSymLink(); ++links)
        path = QFileInfo(path).symLinkTarget();
    return path;
}

// Returns why lines do not get into a file; empty if they do.
static QByteArray judgeRoom(const QString &folder, bool exists)
{
    struct statvfs room;
    if (statvfs(QFile::encodeName(folder).constData(), &room) != 0 || room.f_blocks == 0) // without end
        return QByteArray();
    const quint64 kilobytes = quint64(room.f_bavail) * room.f_frsize / 1000;
    if (kilobytes >= roomKilobytes && (exists || room.f_files == 0 || room.f_favail > 0))
        return QByteArray();
    return "lies on a file system with " + QByteArray::number(kilobytes) + " kB and "
        + QByteArray::number(quint64(room.f_favail)) + " files left, and lines will be lost; make room";
}

// The same; `error`: why there is no such file, 0 if there is, with this `mode`.
static QByteArray judgeFile(const QString &path, int error, mode_t mode)
{
    const QString folder = QFileInfo(path).path();
    errno = error;
    if (!error && (S_ISDIR(mode) || S_ISSOCK(mode)))
        return "is a folder or a socket, and lines are lost; name a file";
    if (error ? error != ENOENT : access(QFile::encodeName(path).constData(), W_OK) != 0)
        return "cannot be opened (" + systemError() + "), and lines are lost; correct it or its rights";
    if (error && access(QFile::encodeName(folder).constData(), W_OK | X_OK) != 0)
        return "cannot be made in folder " + quote(folder) + " (" + systemError()
            + "), and lines are lost; make or correct that";
    return error || S_ISREG(mode) ? judgeRoom(folder, !error) : QByteArray();
}

// The keepwatch that runs does not write a file that was moved, deleted, or named after its start.
static bool isUnwritten(const QString &path, int running)
{
    const QByteArray folder = folderOf(running), from = QFileInfo(path).isAbsolute() ? "root" : "cwd/";
    if (!running || access((folder + "fd").constData(), R_OK) != 0)
        return false;
    struct stat status = {};
    stat((folder + from + QFile::encodeName(path)).constData(), &status);
    bool isWritten = status.st_ino && !S_ISREG(status.st_mode); // a device
    for (const WrittenFile &file : openWrittenFiles(running))
        isWritten = isWritten || (file.inode == status.st_ino && file.device == status.st_dev);
    return !isWritten;
}

// Returns the one path of a file that exists or will be made; empty if none is, or several may share it.
static QString checkFile(const QByteArray &place, const QString &path, Check *check)
{
    const QFileInfo target(findTarget(path));
    struct stat status = {};
    const int error = stat(QFile::encodeName(target.filePath()).constData(), &status) ? errno : 0;
    const QByteArray misreading = error == ENOENT ? findMisreading(path) : QByteArray();
    if (path.isEmpty())
        return path;
    check->fault(place,
                 misreading.isEmpty() ? judgeFile(target.filePath(), error, status.st_mode) : misreading);
    if (S_ISFIFO(status.st_mode))
        check->note(place, "is a FIFO, and the start waits until somebody reads it");
    if (isUnwritten(path, check->running))
        check->note(place, "the keepwatch that runs does not write it; restart that");
    if (!error)
        return S_ISREG(status.st_mode) ? target.canonicalFilePath() : QString();
    return QFileInfo(target.path()).canonicalFilePath() + QLatin1Char('/') + target.fileName();
}

void checkLogs(const LoggingSettings &logging, Check *check)
{
    const QByteArray place = check->placeOf("logging/telegramfile");
    const QString log = checkFile(check->placeOf("logging/logfile"), logging.logFile, check),
                  telegrams = checkFile(place, logging.telegramFile, check);
    if (!log.isEmpty() && log == telegrams)
        check->fault(place, "is the log file too, and one overwrites the other; name two files");
    if (logging.useSyslog && access("/dev/log", W_OK) != 0)
        check->fault("/dev/log", "nobody takes lines for syslog; start its daemon before keepwatch");
}
