// The command "check", with what a start needs beside the settings: other processes, commands, and the bus.
#include "bus.h"
#include "check.h"
#include "commands.h"
#include "state.h"

#include <QFileInfo>

#include <csignal>
#include <cstdio>
#include <paths.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

static const rlim_t openFiles = 32; // for the bus, the logs, and pipes to two modules and a command

static const char busPlace[] = "DBUS_SESSION_BUS_ADDRESS";

QByteArray describe(const Process &process)
{
    return "process " + QByteArray::number(process.id) + " (" + process.name + ")";
}

// If a keepwatch runs, this is about its next start, and so with its user, folder, and environment. Returns
// false if this user cannot have them.
static bool takeRunning(Check *check)
{
    const Processes all = check->processes;
    const Process daemon = findDaemons(all).value(0);
    QByteArray prefix, advice = "check as root";
    check->isRunning = daemon.id;
    if (!daemon.id)
        return true;
    const bool isOld = readLink(daemon.id, "exe").endsWith(" (deleted)");
    check->written = openWrittenFiles(daemon.id);
    if (!takePlace(daemon.id, &prefix, &advice) || !prefix.isEmpty()) {
        complain(describe(daemon) + " runs, and its surroundings are not known; " + advice);
        return false;
    }
    check->note("keepwatch",
                describe(daemon) + " runs; this is about its next start with the same surroundings");
    if (isOld)
        check->note("keepwatch", describe(daemon) + " is still the program of before an upgrade; restart it");
    for (const Process &process : all) {
        if (descendsFrom(all, process.id, daemon.id))
            check->processes.remove(process.id);
    }
    return true;
}

// Returns the file that a start runs; empty if there is none.
static QString findCommand(const char *name)
{
    const QByteArray path = qgetenv("PATH");
    for (const QByteArray &folder : (path.isNull() ? QByteArray(_PATH_DEFPATH) : path).split(':')) {
        const QFileInfo file(QFile::decodeName(folder + "/" + name));
        if (file.isFile() && file.isExecutable())
            return file.filePath();
    }
    return QString();
}

QList<Process> findNamed(const QByteArray &pattern, const Processes &processes)
{
    // The pgrep of busybox looks at the path that a process was started by.
    const QString pgrep = QFileInfo(findCommand("pgrep")).canonicalFilePath();
    const bool byPath = pgrep.endsWith(QLatin1String("/busybox"));
    QList<Process> found;
    for (const Process &process : processes) {
        if (process.name.contains(pattern)
            || (byPath && readFile(process.id, "cmdline").split('\0').first().contains(pattern)))
            found.append(process);
    }
    return found;
}

// Checks what a start needs of the system.
static void checkSystem(qint64 busDeadline, Check *check)
{
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < openFiles)
        check->fault("ulimit -n", "is below 32, and modules are not started; allow 1024");
    if (check->processes.isEmpty())
        check->fault("/proc", "shows no process, and old processes stay; mount it");
    for (const char *name : { "pgrep", "kill" }) {
        const QString file = findCommand(name);
        check->fault(
            name, file.isEmpty() ? "is not in PATH, and old processes stay; install it" : judgeProgram(file));
    }
    for (const Process &process : findNamed("keepwatch", check->processes)) {
        const Process parent = check->processes.value(process.parent);
        const QByteArray end = parent.id > 1 ? "end its parent, " + describe(parent) : "reboot";
        check->fault(
            "keepwatch",
            "does not start beside " + describe(process)
                + (process.runs() ? "; end that, or rename it" : ", which has exited but stays; " + end));
    }
    const QByteArray address = busAddress(), state = Bus().open(address, busDeadline);
    if (state == "silent")
        check->fault(busPlace, address + " is silent, and the start waits; start another bus");
    else if (state != "answers")
        check->fault(busPlace,
                     "\"" + address + "\" is " + state + ", and keepwatch aborts; start a session bus");
}

static int checkHere(CheckOutput output, qint64 busDeadline)
{
    Check check;
    check.processes = readProcesses();
    if (output == Everything && !takeRunning(&check))
        return 2;
    actAsKeepwatch();
    checkSettings(&check);
    checkSystem(busDeadline, &check);
    if (check.faults.isEmpty())
        check.lines.append("no fault found");
    for (const QByteArray &line : output == Everything ? check.lines + check.faults : check.faults)
        fprintf(output == Everything ? stdout : stderr, "%s\n", escape(line).constData());
    return !finishOutput() ? 2 : check.faults.isEmpty() ? 0 : 1;
}

int checkStart(CheckOutput output, int seconds)
{
    const qint64 begin = monotonicMs(), end = begin + seconds * qint64(1000);
    const pid_t checker = fork();
    if (checker == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, 0);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(checkHere(output, (begin + end) / 2));
    }
    int status = 0;
    pid_t ended = 0;
    for (; ended == 0 && monotonicMs() < end; usleep(10000))
        ended = waitpid(checker, &status, WNOHANG);
    if (ended > 0 && WIFEXITED(status))
        return WEXITSTATUS(status);
    if (ended == 0)
        kill(checker, SIGKILL);
    complain("the check did not come to an end; see whether a disk hangs, or processes are too many");
    return 2;
}

int checkCommand(const Options &options)
{
    return options.seconds ? checkStart(Everything, options.seconds) : checkStart(Everything);
}
