// What the kernel says about processes.
#ifndef PROCESSES_H
#define PROCESSES_H

#include <QByteArray>
#include <QList>
#include <QMap>

struct Process
{
    int id;
    int parent;
    QByteArray name; ///< at most 15 characters
    char state; ///< as in /proc
    qint64 started; ///< clock ticks after the boot

    bool runs() const
    {
        return state != 'Z' && state != 'X';
    }
    bool isStopped() const
    {
        return state == 'T' || state == 't';
    }
};

typedef QMap<int, Process> Processes; ///< by id

/** Reads all processes that this user can see. */
Processes readProcesses();

/** Returns false if other users' processes are hidden, so that this user cannot say that one is missing. */
bool seesAllProcesses();

/** Returns the daemons, the oldest first. */
QList<Process> findDaemons(const Processes &processes);

/** Returns whether `process` is `ancestor` or one of its descendants. */
bool descendsFrom(const Processes &processes, int process, int ancestor);

/** Returns all ids of a process, one per PID namespace: others can know it by any of them. */
QList<int> namespaceIds(int process);

/** Returns the user of a process; -1 if it is gone. */
int userOf(int process);
QByteArray userName(int user);

/** Returns when a process started, milliseconds since 1970. */
qint64 startTime(const Process &process);

/** Returns the words after `key` in /proc/ID/status, such as "Uid:". */
QList<QByteArray> readStatus(int process, const QByteArray &key);

/** Returns at most 1 MB of a file in the folder of a process; empty if it cannot be read. */
QByteArray readFile(int process, const char *file);

/** Returns the target of a symbolic link in the folder of a process; empty if it cannot be read. */
QByteArray readLink(int process, const QByteArray &link);

/** Returns the names in a folder, without those that begin with a dot. */
QList<QByteArray> namesIn(const QByteArray &folder);

/** Returns the folder of a process, with a slash at the end; 0: this one. */
QByteArray folderOf(int process);

/**
 * Returns the bus daemon that listens on the socket at `path` ('@' in front: abstract), in the network of
 * `process`; 0 if there is none or this user cannot see it.
 */
int findListener(const Processes &processes, int process, const QByteArray &path);

#endif
