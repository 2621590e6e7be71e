#include "processes.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

static const int fileLimit = 1000000;

QByteArray folderOf(int process)
{
    return process ? "/proc/" + QByteArray::number(process) + "/" : "/proc/self/";
}

QByteArray readFile(int process, const char *name)
{
    QByteArray content;
    const int file = open((folderOf(process) + name).constData(), O_RDONLY | O_CLOEXEC);
    char buffer[4096];
    for (ssize_t count; content.size() < fileLimit && (count = read(file, buffer, sizeof buffer)) > 0;)
        content.append(buffer, int(count));
    close(file);
    return content;
}

QByteArray readLink(int process, const QByteArray &link)
{
    char target[4096];
    const ssize_t size = readlink((folderOf(process) + link).constData(), target, sizeof target);
    return QByteArray(target, size > 0 ? int(size) : 0);
}

QList<QByteArray> namesIn(const QByteArray &folder)
{
    QList<QByteArray> names;
    DIR *const directory = opendir(folder.constData());
    if (!directory)
        return names;
    while (const struct dirent *entry = readdir(directory)) {
        if (entry->d_name[0] != '.')
            names.append(entry->d_name);
    }
    closedir(directory);
    return names;
}

Processes readProcesses()
{
    Processes processes;
    for (const QByteArray &name : namesIn("/proc")) {
        Process process;
        process.id = name.toInt();
        const QByteArray stat = process.id ? readFile(process.id, "stat") : QByteArray();
        // The name can have brackets and blanks of its own.
        const int begin = int(stat.indexOf('(')) + 1, end = int(stat.lastIndexOf(')'));
        const QList<QByteArray> fields = stat.mid(end + 2).split(' ');
        if (begin == 0 || fields.size() < 20)
            continue;
        process.name = stat.mid(begin, end - begin);
        process.state = fields[0].constData()[0];
        process.parent = fields[1].toInt();
        process.started = fields[19].toLongLong();
        processes[process.id] = process;
    }
    return processes;
}

bool seesAllProcesses()
{
    return access("/proc/1/stat", R_OK) == 0;
}

// A script of that name is not a daemon. A child of the daemon that is about to become a module has its name,
// too.
static bool isDaemon(const Processes &processes, const Process &process)
{
    const auto parent = processes.find(process.parent);
    if (process.name != "keepwatch" || !process.runs()
        || (parent != processes.end() && parent->name == process.name && parent->runs()))
        return false;
    const QByteArray executable = readLink(process.id, "exe");
    return executable.isEmpty() || executable.contains("/keepwatch");
}

QList<Process> findDaemons(const Processes &processes)
{
    QList<Process> daemons;
    for (const Process &process : processes) {
        if (isDaemon(processes, process))
            daemons.append(process);
    }
    std::stable_sort(daemons.begin(), daemons.end(),
                     [](const Process &a, const Process &b) { return a.started < b.started; });
    return daemons;
}

bool descendsFrom(const Processes &processes, int process, int ancestor)
{
    for (int steps = 0; steps < 1000 && process > 0 && process != ancestor; ++steps)
        process = processes.contains(process) ? processes[process].parent : 0;
    return process > 0 && process == ancestor;
}

QList<QByteArray> readStatus(int process, const QByteArray &key)
{
    const QByteArray status = readFile(process, "status");
    const int at = int(status.indexOf("\n" + key)), begin = at + 1 + int(key.size());
    if (at < 0)
        return QList<QByteArray>();
    QList<QByteArray> words = status.mid(begin, status.indexOf('\n', begin) - begin).simplified().split(' ');
    words.removeAll(QByteArray());
    return words;
}

QList<int> namespaceIds(int process)
{
    QList<int> ids;
    ids.append(process);
    for (const QByteArray &id : readStatus(process, "NSpid:"))
        ids.append(id.toInt());
    return ids;
}

int userOf(int process)
{
    const QList<QByteArray> users = readStatus(process, "Uid:");
    return users.isEmpty() ? -1 : users[0].toInt();
}

QByteArray userName(int user)
{
    const struct passwd *const entry = getpwuid(uid_t(user));
    return entry ? QByteArray(entry->pw_name) : "user " + QByteArray::number(user);
}

qint64 startTime(const Process &process)
{
    struct timespec now, uptime;
    clock_gettime(CLOCK_REALTIME, &now);
    clock_gettime(CLOCK_BOOTTIME, &uptime);
    const qint64 boot
        = (now.tv_sec - uptime.tv_sec) * qint64(1000) + (now.tv_nsec - uptime.tv_nsec) / 1000000;
    return boot + process.started * 1000 / sysconf(_SC_CLK_TCK);
}

int findListener(const Processes &processes, int daemon, const QByteArray &path)
{
    QList<QByteArray> sockets;
    for (const QByteArray &line : readFile(daemon, "net/unix").split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        // A connection that was accepted there has the same path, but not the state of an unconnected socket.
        // A path can have blanks.
        if (fields.size() >= 8 && line.endsWith(' ' + path) && fields[5] == "01")
            sockets.append("socket:[" + fields[6] + "]");
    }
    for (const Process &process : processes) {
        if (!process.name.startsWith("dbus-")) // a service manager can have the socket, too
            continue;
        for (const QByteArray &descriptor : namesIn(folderOf(process.id) + "fd")) {
            if (sockets.contains(readLink(process.id, "fd/" + descriptor)))
                return process.id;
        }
    }
    return 0;
}
