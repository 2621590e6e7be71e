// The command "run": starts keepwatch with all that it needs, for a service manager.
//
// The service manager knows the front, which passes signals on to its child, the keeper. The keeper starts
// the others: bus daemon, program, and watch. If the front is killed, the keeper ends the program in order.
// If the keeper is killed, the front does, and inherits its children.
#include "check.h"
#include "commands.h"
#include "oldlogs.h"
#include "ping.h"
#include "state.h"
#include "watch.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// Lies in memory that the front and the keeper share, so that either one can end what the other has started.
struct Family
{
    bool isEnding; // SIGTERM or SIGINT has come, or one of the family is missing
    pid_t front, bus, program, watch; // 0: none
    int status; // of the program, as waitpid has it
    char folder[100]; // with the socket of the bus, whose path can have 107 characters
};

static bool fail(const QByteArray &what)
{
    complain(what + ": " + QByteArray(strerror(errno)));
    return false;
}

// Returns the signals that are blocked except in waitForSignal, so that none is lost between a look and a
// wait.
static sigset_t takenSignals()
{
    sigset_t taken;
    sigemptyset(&taken);
    for (int signal : { SIGTERM, SIGINT, SIGCHLD, SIGCONT })
        sigaddset(&taken, signal);
    return taken;
}

static void waitForSignal(Family *family, int seconds)
{
    const sigset_t taken = takenSignals();
    const struct timespec timeout = { seconds, 0 };
    const int signal = sigtimedwait(&taken, 0, &timeout);
    family->isEnding = family->isEnding || signal == SIGTERM || signal == SIGINT;
}

// Creates a child that gets `deathSignal` when its parent exits. Returns true in the child, which writes its
// id, too, so that it is known even if the parent is killed here.
static bool spawn(pid_t *id, int deathSignal)
{
    const pid_t parent = getpid(), child = fork();
    *id = child == 0 ? getpid() : qMax(0, child);
    if (child < 0)
        fail("cannot start a process");
    if (child != 0)
        return false;
    prctl(PR_SET_PDEATHSIG, deathSignal);
    if (getppid() != parent)
        _exit(1);
    return true;
}

// Becomes a program, which gets the default signals.
static void execute(QList<QByteArray> words)
{
    std::vector<char *> arguments;
    for (QByteArray &word : words)
        arguments.push_back(word.data());
    arguments.push_back(0);
    for (int number = 1; number < NSIG; ++number)
        signal(number, SIG_DFL);
    static const sigset_t none = {};
    sigprocmask(SIG_SETMASK, &none, 0);
    execvp(arguments[0], arguments.data());
    const int status = errno == ENOENT ? 127 : 126; // as of a shell
    fail("cannot start " + words[0]);
    _exit(status);
}

static void reap(Family *family)
{
    int status;
    pid_t id;
    while ((id = waitpid(-1, &status, WNOHANG)) > 0) {
        if (id == family->program)
            family->status = status;
        for (pid_t *member : { &family->bus, &family->program, &family->watch })
            *member = *member == id ? 0 : *member;
    }
    if (id < 0) // there are no children
        family->bus = family->program = family->watch = 0;
}

// Starts the private bus, and puts its address into the environment.
static bool startBus(Family *family)
{
    QByteArray folder = qgetenv("TMPDIR");
    folder = (folder.startsWith("/") ? folder : "/tmp") + "/bus.XXXXXX";
    errno = ENAMETOOLONG;
    const size_t limit = sizeof family->folder;
    if (size_t(folder.size()) >= limit || !mkdtemp(qstrncpy(family->folder, folder.constData(), limit)))
        return fail("cannot create " + folder + ", so set TMPDIR to another folder");
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return fail("cannot create a pipe");
    if (spawn(&family->bus, SIGKILL)) {
        const int copy = dup(ends[1]); // which stays open
        execute({ "dbus-daemon", "--session", "--nofork",
                  "--address=unix:path=" + QByteArray(family->folder).toPercentEncoding("/") + "/bus",
                  "--print-address=" + QByteArray::number(copy) });
    }
    close(ends[1]);
    struct pollfd output = { ends[0], POLLIN, 0 };
    char address[1000];
    const ssize_t size = poll(&output, 1, 10000) == 1 ? read(ends[0], address, sizeof address) : 0;
    close(ends[0]);
    if (size > 0 && address[size - 1] == '\n')
        return qputenv("DBUS_SESSION_BUS_ADDRESS", QByteArray(address, int(size - 1)));
    complain("dbus-daemon does not start");
    return false;
}

// Waits while keepwatch would exit at once, because the name of another process contains its own.
static void waitForOthers(Family *family)
{
    for (int named = 0; !family->isEnding; waitForSignal(family, 1)) {
        const QList<Process> others = findNamed("keepwatch", readProcesses());
        if (others.isEmpty())
            return;
        if (others[0].id != named)
            complain("waits for the exit of " + describe(others[0])
                     + ", because keepwatch does not start beside a process of such a name");
        named = others[0].id;
    }
}

// Starts the program. In a session of its own, it gets no Ctrl-C of a terminal.
static void startProgram(const Options &options, Family *family)
{
    if (!spawn(&family->program, SIGINT))
        return;
    setsid();
    waitForOthers(family);
    if (!family->isEnding) {
        moveOldLogs(); // before the check, because it makes room
        checkStart(FaultsAlone);
    }
    if (family->isEnding)
        _exit(0);
    execute(options.program);
}

// Waits for the exit of the program, and ends it when it is time. Returns its status as a shell does. Then
// exit at once: the kernel kills the bus daemon and the watch, even if they hang.
static int serve(const Options &options, Family *family)
{
    const int interval = options.interval ? options.interval : 60;
    // As long as all modules can block keepwatch, and each in quit().
    const qint64 patience = (options.seconds ? options.seconds : longestWait()) * 4000 / 3;
    qint64 watchDue = 0, killDue = LLONG_MAX;
    for (reap(family); family->program; reap(family)) {
        const qint64 now = monotonicMs();
        if (options.bus && !family->bus && !family->isEnding) {
            complain("the bus has ended before the program");
            family->isEnding = true;
        }
        if (family->isEnding || getppid() != family->front) {
            family->isEnding = true;
            killDue = qMin(killDue, now + patience);
            // Repeatedly, because the first one can come before its handler is there.
            kill(family->program, SIGINT);
            kill(family->program, SIGCONT); // otherwise, a stopped process gets no signal
            if (now >= killDue)
                kill(-family->program, SIGKILL); // the modules, too
        } else if (options.watch && !family->watch && now >= watchDue) {
            watchDue = now + interval * qint64(1000);
            if (spawn(&family->watch, SIGKILL))
                _exit(watch(options.interval, options.seconds));
        }
        waitForSignal(family, family->isEnding ? 1 : interval);
    }
    if (monotonicMs() >= killDue)
        complain("the program did not exit on SIGINT, and was killed");
    if (family->folder[0]) {
        unlink((QByteArray(family->folder) + "/bus").constData());
        rmdir(family->folder);
    }
    return WIFEXITED(family->status) ? WEXITSTATUS(family->status) : 128 + WTERMSIG(family->status);
}

// Returns the exit status.
static int keep(const Options &options, Family *family)
{
    setsid(); // a signal to the group of the front must not reach the keeper
    family->status = 1 << 8; // unless the program starts
    if (!options.bus || startBus(family))
        startProgram(options, family);
    return serve(options, family);
}

// Waits for the keeper, and passes signals on to it. Returns the exit status.
static int guard(const Options &options, Family *family, pid_t keeper)
{
    int status;
    for (pid_t id; (id = waitpid(-1, &status, WNOHANG)) != keeper;) {
        if (family->isEnding)
            kill(keeper, SIGCONT);
        if (id == 0) // otherwise, there can be more orphans of the program
            waitForSignal(family, INT_MAX);
    }
    family->isEnding = true; // if it was killed, because the bus is killed then, too
    return WIFEXITED(status) ? WEXITSTATUS(status) : serve(options, family);
}

int runCommand(const Options &options)
{
    const sigset_t taken = takenSignals();
    sigprocmask(SIG_BLOCK, &taken, 0);
    void *const memory = mmap(0, sizeof(Family), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return !fail("cannot start");
    Family *const family = static_cast<Family *>(memory); // all zero
    family->front = getpid();
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    pid_t keeper;
    if (spawn(&keeper, SIGCONT)) // wakes it up, even if it is stopped
        _exit(keep(options, family));
    return keeper ? guard(options, family, keeper) : 1;
}
