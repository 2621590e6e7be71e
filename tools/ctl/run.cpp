// Runs keepwatch for a service manager, with all that it needs.
//
// The service manager knows the front, which passes signals on to its child, the keeper. The keeper starts
// and ends all others: the bus daemon, the program, and the watch. If the front is killed, the keeper ends
// the program in order, and then the rest. If the keeper is killed, the front does.
#include "commands.h"
#include "oldlogs.h"
#include "ping.h"
#include "processes.h"
#include "state.h"
#include "watch.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

// Lies in memory that the front and the keeper share, so that either one can end what the other has started.
struct Family
{
    bool bus, watch; // whether there is to be one
    int interval, limit; // of the watch, seconds
    char **program; // and its arguments
    pid_t front, busDaemon, child, watcher; // 0: none; `child` prepares the start, and then is the program
    int childStatus; // as of waitpid
    char folder[100]; // of the socket; a path of a socket has at most 107 characters
};

static volatile sig_atomic_t asked; // whether SIGINT or SIGTERM has come

static void onSignal(int signal)
{
    if (signal == SIGINT || signal == SIGTERM)
        asked = 1;
}

// Handled signals are blocked except in await, so that none is lost between a look and a wait.
static void handleSignals()
{
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigset_t handled;
    sigemptyset(&handled);
    for (int signal : { SIGINT, SIGTERM, SIGCHLD, SIGCONT }) {
        sigaddset(&handled, signal);
        sigaction(signal, &action, 0);
    }
    sigprocmask(SIG_BLOCK, &handled, 0);
}

// Waits for a signal, for a descriptor (-1: none), and at most `ms` (-1: without limit). Returns whether the
// descriptor can be read.
static bool await(int descriptor, int ms)
{
    struct pollfd entry = { descriptor, POLLIN, 0 };
    const struct timespec time = { ms / 1000, ms % 1000 * 1000000L };
    sigset_t none;
    sigemptyset(&none);
    return ppoll(&entry, 1, ms < 0 ? 0 : &time, &none) > 0;
}

// Creates a child with the signals of a fresh process, which gets `deathSignal` when its parent exits.
// Returns true in the child. The child writes its id, too, so that it cannot be overlooked if the parent is
// killed here.
static bool spawn(pid_t *id, int deathSignal)
{
    const pid_t parent = getpid(), created = fork();
    *id = created == 0 ? getpid() : created > 0 ? created : 0;
    if (created < 0)
        perror("zarn5ctl: cannot start a process");
    if (created != 0)
        return false;
    prctl(PR_SET_PDEATHSIG, deathSignal);
    if (getppid() != parent)
        _exit(1);
    for (int number = 1; number < NSIG; ++number)
        signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, 0);
    return true;
}

static void execute(char **words)
{
    execvp(words[0], words);
    const int status = errno == ENOENT ? 127 : 126; // as shells have it
    fprintf(stderr, "zarn5ctl: cannot start %s: %s\n", escape(QByteArray(words[0])).constData(),
            strerror(errno));
    _exit(status);
}

static void reap(Family *family)
{
    int status;
    pid_t id;
    while ((id = waitpid(-1, &status, WNOHANG)) > 0) {
        if (id == family->child)
            family->childStatus = status;
        for (pid_t *member : { &family->child, &family->busDaemon, &family->watcher }) {
            if (*member == id)
                *member = 0;
        }
    }
    if (id < 0) // there are no children
        family->child = family->busDaemon = family->watcher = 0;
}

static bool isToEnd(const Family *family)
{
    return asked || getppid() != family->front;
}

// Starts the private bus, and puts its address into the environment.
static bool startBus(Family *family)
{
    const char *base = getenv("TMPDIR");
    if (!base || *base != '/')
        base = "/tmp";
    const size_t size = sizeof family->folder;
    const bool fits = size_t(snprintf(family->folder, size, "%s/bus.XXXXXX", base)) < size;
    if (!fits || !mkdtemp(family->folder)) {
        fprintf(stderr, "zarn5ctl: cannot make a folder in %s: %s; set TMPDIR to another folder\n", base,
                strerror(fits ? errno : ENAMETOOLONG));
        return false;
    }
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        perror("zarn5ctl: cannot make a pipe");
        return false;
    }
    if (spawn(&family->busDaemon, SIGKILL)) {
        char address[sizeof family->folder + 30], report[30];
        snprintf(address, sizeof address, "--address=unix:path=%s/bus", family->folder);
        snprintf(report, sizeof report, "--print-address=%d", ends[1]);
        fcntl(ends[1], F_SETFD, 0); // stays open
        const char *words[] = { "dbus-daemon", "--session", "--nofork", address, report, 0 };
        execute(const_cast<char **>(words));
    }
    close(ends[1]);
    const qint64 deadline = monotonicMs() + 20000;
    bool reported = false;
    while (!reported && !isToEnd(family) && monotonicMs() < deadline)
        reported = await(ends[0], 1000);
    char address[1000];
    const ssize_t length = reported ? read(ends[0], address, sizeof address) : 0;
    close(ends[0]);
    if (length > 0 && address[length - 1] == '\n') {
        address[length - 1] = 0;
        return setenv("DBUS_SESSION_BUS_ADDRESS", address, 1) == 0;
    }
    if (!isToEnd(family))
        fputs("zarn5ctl: dbus-daemon does not start\n", stderr);
    return false;
}

// keepwatch exits at once if the name of another process contains its own. A zombie counts, too.
static const Process *findOther(const Processes &processes)
{
    for (const Process &process : processes) {
        if (process.name.contains("keepwatch"))
            return &process;
    }
    return 0;
}

// Names a process that is still there after a second.
static void waitForOthers()
{
    int seen = 0, named = 0;
    for (;; sleep(1)) {
        const Processes processes = readProcesses();
        const Process *const other = findOther(processes);
        if (!other)
            return;
        if (other->id == seen && other->id != named) {
            fprintf(
                stderr,
                "zarn5ctl: waits until process %d (%s) has ended, because keepwatch does not start beside a "
                "process of such a name%s\n",
                other->id, escape(other->name).constData(),
                other->runs() ? "" : "; it is a zombie, so end its parent");
            named = other->id;
        }
        seen = other->id;
    }
}

// Starts the watch if there is none. One that dies soon is started again after an interval. Returns how long
// to wait for that, in ms; -1: without limit.
static int keepWatching(Family *family, qint64 *due)
{
    if (family->watcher || !family->watch)
        return -1;
    const qint64 rest = *due - monotonicMs();
    if (rest > 0)
        return int(rest);
    *due = monotonicMs() + family->interval * 1000;
    if (spawn(&family->watcher, SIGKILL))
        _exit(watch(family->interval, family->limit));
    return family->watcher ? -1 : family->interval * 1000;
}

// Sends SIGINT every second, because the first one can come before its handler is there.
static void endChild(const Family *family, qint64 *limit)
{
    if (*limit == 0) // as long as all modules can block, and once more in quit()
        *limit = monotonicMs() + family->limit * 4000 / 3;
    const bool isLate = monotonicMs() >= *limit;
    if (isLate)
        fputs("zarn5ctl: the program does not exit on SIGINT, and is killed\n", stderr);
    kill(family->child, isLate ? SIGKILL : SIGINT);
    kill(family->child, SIGCONT); // otherwise, a stopped process gets no signal
    await(-1, 1000);
}

// Waits for the exit of the child, and ends it when it is time. Returns its status as a shell does.
static int serve(Family *family, bool isWatched)
{
    qint64 watchDue = 0, endLimit = 0;
    for (reap(family); family->child; reap(family)) {
        if (family->bus && !family->busDaemon && !isToEnd(family)) {
            fputs("zarn5ctl: the bus has ended before the program\n", stderr);
            asked = 1;
        }
        if (isToEnd(family))
            endChild(family, &endLimit);
        else
            await(-1, isWatched ? keepWatching(family, &watchDue) : -1);
    }
    const int status = family->childStatus;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// Runs the program. In a session of its own, it gets no Ctrl-C of a terminal.
static int runProgram(Family *family)
{
    if (spawn(&family->child, SIGKILL)) {
        waitForOthers();
        moveOldLogs();
        _exit(0);
    }
    serve(family, false);
    if (isToEnd(family))
        return 0;
    family->childStatus = 1 << 8; // if there is no process
    if (spawn(&family->child, SIGINT)) {
        setsid();
        execute(family->program);
    }
    return serve(family, true);
}

// Ends all but the child, which has exited.
static void cleanUp(const Family *family)
{
    for (pid_t id : { family->busDaemon, family->watcher }) {
        if (id) {
            kill(id, SIGKILL); // it can hang
            waitpid(id, 0, 0);
        }
    }
    char socket[sizeof family->folder + 5];
    snprintf(socket, sizeof socket, "%s/bus", family->folder);
    unlink(socket);
    rmdir(family->folder);
}

static int keep(Family *family)
{
    setsid(); // a signal to the group of the front must not reach the keeper
    prctl(PR_SET_PDEATHSIG, SIGCONT); // wakes it up, even if it is stopped
    const int status = !family->bus || startBus(family) ? runProgram(family) : !isToEnd(family);
    cleanUp(family);
    return status;
}

static int passOn(Family *family, pid_t keeper)
{
    int status;
    for (pid_t id; (id = waitpid(-1, &status, WNOHANG)) != keeper;) {
        if (id > 0) // an orphan of the program
            continue;
        if (asked) {
            kill(keeper, SIGTERM);
            kill(keeper, SIGCONT);
        }
        asked = 0;
        await(-1, -1);
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    asked = 1; // it was killed
    const int childStatus = serve(family, false);
    cleanUp(family);
    return childStatus;
}

static bool readOptions(int count, char **words, Family *family)
{
    static const struct option options[] = { { "bus", no_argument, 0, 'b' },
                                             { "watch", no_argument, 0, 'w' },
                                             { "interval", required_argument, 0, 'i' },
                                             { "limit", required_argument, 0, 'l' },
                                             {} };
    for (int option; (option = getopt_long(count, words, "+", options, 0)) != -1;) {
        if (option == '?')
            return false;
        family->bus |= option == 'b';
        family->watch |= option == 'w';
        if (!optarg)
            continue;
        char *end;
        const long seconds = strtol(optarg, &end, 10);
        if (*end || seconds < 1 || seconds > 99999)
            return false;
        (option == 'i' ? family->interval : family->limit) = int(seconds);
    }
    family->program = words + optind;
    return optind < count;
}

int runCommand(int count, char **words)
{
    void *const memory = mmap(0, sizeof(Family), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        perror("zarn5ctl");
        return 1;
    }
    Family *const family = static_cast<Family *>(memory); // all zero
    family->interval = 60;
    family->limit = longestWait();
    family->front = getpid();
    if (!readOptions(count, words, family))
        return -1;
    handleSignals();
    prctl(PR_SET_CHILD_SUBREAPER, 1); // if the keeper is killed, its children become those of the front
    const pid_t keeper = fork();
    if (keeper == 0)
        _exit(keep(family));
    if (keeper > 0)
        return passOn(family, keeper);
    perror("zarn5ctl: cannot start a process");
    return 1;
}
