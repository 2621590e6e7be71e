// The command "check", with what a start needs beside the settings: other processes, commands, and the bus.
#include "bus.h"
#include "check.h"
#include "commands.h"
#include "state.h"

#include <QDir>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <paths.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

static const rlim_t openFiles = 32; // for the bus, the logs, and pipes to two modules and a command
static const char busVariable[] = "DBUS_SESSION_BUS_ADDRESS";

QByteArray describe(const Process &process)
{
    return "process " + QByteArray::number(process.id) + " (" + process.name + ")";
}

// Notes what is not the same for the keepwatch that runs. Returns its value.
static QByteArray compare(const char *name, const QByteArray &its, const QByteArray &ours, Check *check)
{
    if (its != ours)
        check->note(name, "is \"" + its + "\" for the keepwatch that runs and \"" + ours + "\" here");
    return its;
}

static void compareEnvironment(Check *check)
{
    bool readable;
    const QByteArray environment = '\0' + readFile(check->running, "environ", &readable);
    if (!readable)
        return check->note("environ", "is hidden from this user, and can differ for the keepwatch that runs");
    for (const char *name : { "HOME", "XDG_CONFIG_HOME", "XDG_CONFIG_DIRS", busVariable }) {
        const QByteArray ours = qgetenv(name), key = '\0' + QByteArray(name) + '=';
        const int at = int(environment.indexOf(key));
        QByteArray its = at < 0 ? "" : environment.constData() + at + key.size();
        compare(name, its, ours, check);
        // Its bus is looked at where it has it: for example, in a /tmp of its own.
        if (name == busVariable && ours.isEmpty())
            qputenv(name, its.replace("unix:path=", "unix:path=" + folderOf(check->running) + "root"));
    }
}

static void findRunning(Check *check)
{
    const Process daemon = findDaemons(check->processes).value(0);
    check->running = daemon.id;
    if (!daemon.id)
        return;
    const QByteArray program = readLink(daemon.id, "exe"), user = userName(userOf(daemon.id));
    check->note("keepwatch", "runs as " + describe(daemon) + "; this is about its next start");
    if (program.endsWith(" (deleted)"))
        check->note("keepwatch", "runs the program of before an upgrade; restart it");
    if (userOf(daemon.id) != int(getuid()))
        check->fault("keepwatch",
                     "runs as " + user + ", whose rights and settings count; check as that user");
    compare("working directory", readLink(daemon.id, "cwd"), readLink(0, "cwd"), check);
    compareEnvironment(check);
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

QList<Process> findNamed(const QByteArray &pattern, const Check &check)
{
    // The pgrep of busybox looks at the path that a process was started by.
    const bool byPath
        = QFileInfo(findCommand("pgrep")).canonicalFilePath().endsWith(QLatin1String("/busybox"));
    QList<Process> found;
    for (const Process &process : check.processes) {
        const QByteArray path = byPath ? readFile(process.id, "cmdline").split('\0').first() : QByteArray();
        const bool ends = check.running && descendsFrom(check.processes, process.id, check.running);
        if (!ends && (path.isEmpty() ? process.name : path).contains(pattern))
            found.append(process);
    }
    return found;
}

static void checkCommands(Check *check)
{
    if (check->processes.isEmpty())
        check->fault("/proc", "shows no process, and old processes stay; mount it");
    for (const char *name : { "pgrep", "kill" }) {
        const QString file = findCommand(name);
        if (file.isEmpty())
            check->fault(name, "is in no folder of PATH, and old processes stay; install it or correct PATH");
        else
            check->fault(name, judgeProgram(file));
    }
}

// Faults what keepwatch takes for another keepwatch.
static void checkRivals(Check *check)
{
    for (const Process &process : findNamed("keepwatch", *check)) {
        const Process parent = check->processes.value(process.parent);
        QByteArray advice = "end that, or give it another name";
        if (!process.runs())
            advice = "it has exited, and stays until "
                + (parent.id > 1 ? "you end " + describe(parent) : "the device restarts");
        check->fault("keepwatch", "does not start beside " + describe(process) + "; " + advice);
    }
}

static void checkBus(qint64 deadline, Check *check)
{
    const QByteArray address = busAddress(), state = Bus().open(address, deadline);
    if (state == "silent")
        check->fault(busVariable, "the bus is silent, and the start waits; start another");
    else if (state != "answers")
        check->fault(busVariable,
                     "the bus \"" + address + "\" is " + state
                         + ", and keepwatch aborts; start one, or set its address");
}

static int checkHere(CheckOutput output, qint64 busDeadline)
{
    Check check;
    struct rlimit limit;
    actAsKeepwatch();
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < openFiles) {
        check.fault("ulimit -n", "too few open files, and nothing was looked at; allow 1024");
    } else {
        check.processes = readProcesses();
        findRunning(&check);
        checkSettings(&check);
        checkCommands(&check);
        checkRivals(&check);
        checkBus(busDeadline, &check);
    }
    if (output == Everything)
        check.lines.append(check.faults.isEmpty() ? QList<QByteArray>() << "no fault found" : check.faults);
    for (const QByteArray &line : output == Everything ? check.lines : check.faults)
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
    pid_t ended;
    while ((ended = waitpid(checker, &status, WNOHANG)) == 0 && monotonicMs() < end)
        usleep(10000);
    if (ended > 0 && WIFEXITED(status))
        return WEXITSTATUS(status);
    if (ended == 0)
        kill(checker, SIGKILL);
    fputs("zarn5ctl: the check did not come to an end; see whether a disk hangs\n", stderr);
    return 2;
}

int checkCommand(const Options &options)
{
    return options.seconds ? checkStart(Everything, options.seconds) : checkStart(Everything);
}
