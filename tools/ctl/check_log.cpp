// Checks where the lines go: the log file, the telegram file, and syslog.
#include "check.h"

#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

static const quint64 roomBytes = 1000000; // of a file system that is not full

// Returns why lines do not get into a file; empty if they do. `error`: why it does not exist, or 0; then it
// has this mode.
static QByteArray judgeFile(const QFileInfo &file, int error, mode_t mode)
{
    const QByteArray path = QFile::encodeName(file.filePath()), folder = QFile::encodeName(file.path());
    if (!error && (S_ISDIR(mode) || S_ISSOCK(mode)))
        return "is a folder or a socket, and lines are lost; name a file";
    if (error == ENOENT && access(folder.constData(), W_OK | X_OK) != 0)
        return "cannot be made in \"" + folder + "\" (" + QByteArray(strerror(errno))
            + "), and lines are lost; correct that";
    if (error != ENOENT && access(path.constData(), W_OK) != 0)
        return QByteArray("cannot be opened (") + QByteArray(strerror(errno))
            + "), and lines are lost; correct its rights";
    struct statvfs room;
    if ((!error && !S_ISREG(mode)) || statvfs(folder.constData(), &room) != 0 || room.f_blocks == 0)
        return QByteArray(); // a device, or a file system without end
    const quint64 bytes = quint64(room.f_bavail) * room.f_frsize;
    if (bytes >= roomBytes && (!error || room.f_files == 0 || room.f_favail > 0))
        return QByteArray();
    return "has " + QByteArray::number(bytes / 1000) + " kB and " + QByteArray::number(quint64(room.f_favail))
        + " new files left on its file system, and lines will be lost; make room";
}

// Returns the one path of a file that exists or will be made; empty if none is, or several may share it.
static QString checkFile(const QByteArray &place, const QString &path, Check *check)
{
    if (path.isEmpty())
        return path;
    QFileInfo file(path);
    if (!file.exists() && file.isSymLink()) // to a file that is yet to be made
        file.setFile(file.symLinkTarget());
    struct stat status = {};
    const int error = stat(QFile::encodeName(file.filePath()).constData(), &status) ? errno : 0;
    const bool isDevice = !error && !S_ISREG(status.st_mode);
    check->fault(place, judgeFile(file, error, status.st_mode));
    if (S_ISFIFO(status.st_mode))
        check->note(place, "is a FIFO, and the start waits until somebody reads it");
    bool isWritten = !check->isRunning || isDevice;
    for (const WrittenFile &written : check->written)
        isWritten = isWritten || (written.inode == status.st_ino && written.device == status.st_dev);
    if (!isWritten) // it was moved, deleted, or named after the start
        check->note(place, "the keepwatch that runs does not write it; restart keepwatch");
    const QString made = QFileInfo(file.path()).canonicalFilePath() + QLatin1Char('/') + file.fileName();
    return isDevice ? QString() : error ? made : file.canonicalFilePath();
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
