// The command "watch": which module blocks keepwatch? And ends what hangs, so that its service manager
// restarts it.
#include "watch.h"

#include "bus.h"
#include "commands.h"
#include "inquiry.h"
#include "ping.h"
#include "signals.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <dbus/dbus.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

static const int defaultInterval = 60; // seconds
static const int slowMs = 1000; // a control call that takes longer is reported
static const int unansweredMs = 26000; // keepwatch gives up a call after 25 s
static const int retryMs = 5000; // while there is no bus daemon
static const int busMs = 2000; // for a bus daemon to answer
static const int callLimit
    = 200; // calls that can wait for their reply; there is one unless others call modules

namespace {

// Follows the control calls on the bus, and warns in the log of those that are slow or not answered.
class CallWatcher
{
public:
    /** Does what is due. Connects again `refusedMs` after a bus daemon has refused that. */
    void work(qint64 refusedMs);
    int descriptor() const;
    qint64 due() const; ///< when there is something to do, even if no message comes

private:
    struct Call
    {
        QByteArray caller, text;
        dbus_uint32_t serial; // of the caller
        qint64 began;
    };

    void connect(qint64 refusedMs);
    void begin(DBusMessage *message);
    void end(DBusMessage *message);
    void warn(const QByteArray &text) const;

    std::unique_ptr<Bus> monitor; // null while there is none
    QList<Call> calls; // without a reply, the oldest first
    qint64 retry = 0; // when to connect
    bool wasRefused = false; // which is said once
};

}

int CallWatcher::descriptor() const
{
    return monitor ? monitor->descriptor() : -1;
}

qint64 CallWatcher::due() const
{
    const qint64 givenUp = calls.isEmpty() ? LLONG_MAX : calls.first().began + unansweredMs;
    return monitor ? givenUp : qMin(givenUp, retry);
}

// Does not connect before a bus daemon runs. Otherwise the connection could have a service manager, which has
// the socket then, start one at a moment when that waits for a bus daemon itself.
void CallWatcher::connect(qint64 refusedMs)
{
    const QByteArray address = busAddress();
    retry = monotonicMs() + retryMs;
    if (!findListener(readProcesses(), 0, socketPath(address)))
        return;
    retry = monotonicMs() + refusedMs;
    monitor.reset(new Bus);
    const QByteArray rule = "type='method_call',path='/',member=";
    const QByteArray answer = monitor->open(address, monotonicMs() + busMs);
    if (answer == "answers"
        && monitor->becomeMonitor({ rule + "'run'", rule + "'quit'", rule + "'updateKeepwatchInfo'",
                                    "type='method_return'", "type='error'" },
                                  busMs))
        return;
    monitor.reset();
    if (!wasRefused && answer != "gone" && answer != "silent")
        say("the bus at " + address + " does not let this user watch the calls of keepwatch");
    wasRefused = wasRefused || (answer != "gone" && answer != "silent");
}

// A control call names the interface of the module that it is for.
void CallWatcher::begin(DBusMessage *message)
{
    const QByteArray module = dbus_message_get_destination(message);
    if (module.isEmpty() || module + ".adaptor" != dbus_message_get_interface(message)
        || dbus_message_get_no_reply(message) || calls.size() >= callLimit)
        return;
    QByteArray text = dbus_message_get_member(message);
    dbus_int32_t argument;
    if (dbus_message_get_args(message, 0, DBUS_TYPE_INT32, &argument, DBUS_TYPE_INVALID))
        text += " " + QByteArray::number(argument);
    calls.append(Call { dbus_message_get_sender(message), text + " of " + module,
                        dbus_message_get_serial(message), monotonicMs() });
}

void CallWatcher::end(DBusMessage *message)
{
    for (int i = 0; i < calls.size(); ++i) {
        if (calls[i].serial != dbus_message_get_reply_serial(message)
            || calls[i].caller != dbus_message_get_destination(message))
            continue;
        const qint64 ms = monotonicMs() - calls[i].began;
        if (ms > slowMs)
            warn(calls[i].text + format(" took %.1f s", double(ms) / 1000));
        calls.removeAt(i);
        return;
    }
}

// By a connection of its own, since a monitor must not send.
void CallWatcher::warn(const QByteArray &text) const
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const QByteArray stamp = Clock(Clock::Local).write(now.tv_sec * qint64(1000) + now.tv_nsec / 1000000);
    const qint64 end = monotonicMs() + busMs;
    Bus bus;
    if (qstrcmp(bus.open(busAddress(), end), "answers") == 0)
        bus.publish("(" + stamp + ") zarn5-calls    : " + text, end);
}

void CallWatcher::work(qint64 refusedMs)
{
    if (!monitor && monotonicMs() >= retry)
        connect(refusedMs);
    const bool isConnected = monitor && monitor->read();
    while (DBusMessage *const message = monitor ? monitor->take() : 0) {
        if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL)
            begin(message);
        else
            end(message);
        dbus_message_unref(message);
    }
    while (!calls.isEmpty() && monotonicMs() >= calls.first().began + unansweredMs)
        warn(calls.takeFirst().text + " was not answered");
    if (isConnected || !monitor)
        return;
    monitor.reset();
    calls.clear();
    retry = monotonicMs() + retryMs;
}

// Asks for at least as long as modules can block a keepwatch that is not stopped.
static Ping pingPatiently(int limit)
{
    const Ping found = ping(limit, false);
    const bool canWait = found.outcome == Hangs && !found.isBus && found.runs && !found.hanging.isStopped();
    return canWait && limit < longestWait() ? ping(longestWait(), false) : found;
}

// Unless it was restarted.
static void end(const Ping &found)
{
    const Process process = found.hanging, same = readProcesses().value(process.id);
    if (same.started != process.started)
        return;
    const bool isKilled = kill(process.id, SIGKILL) == 0;
    const QByteArray name = found.isBus ? "the bus daemon" : "keepwatch",
                     outcome = isKilled ? "is killed" : "cannot be killed: " + QByteArray(strerror(errno));
    say(name + " hangs: process " + QByteArray::number(process.id) + " " + outcome + " (" + found.finding.text
        + ")");
}

// Ends what hangs twice in a row. Returns the exit status of a ping. `isNew`: the ping before was good.
static int checkAnswers(int limit, bool isNew)
{
    const Ping first = pingPatiently(limit);
    if (first.outcome == Hangs && first.hanging.id) {
        const Ping second = pingPatiently(limit);
        if (second.outcome == Hangs && second.hanging.id == first.hanging.id
            && second.hanging.started == first.hanging.started)
            end(second);
        return second.outcome;
    }
    if (first.outcome != Answers && isNew)
        say("keepwatch: " + first.finding.text + "; " + first.finding.advice);
    return first.outcome;
}

// In a process of its own, since it can take minutes. That ends with this one.
static pid_t startCheck(int limit, bool isNew)
{
    const pid_t watcher = getpid();
    const pid_t checker = fork();
    if (checker != 0)
        return checker;
    signal(SIGCHLD, SIG_IGN); // leaves no zombies
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    _exit(getppid() == watcher ? checkAnswers(limit, isNew) : CannotTell);
}

int watch(int intervalSeconds, int limitSeconds)
{
    const qint64 intervalMs = (intervalSeconds ? intervalSeconds : defaultInterval) * qint64(1000);
    takeSignals();
    CallWatcher calls;
    pid_t checker = 0;
    bool isNew = true;
    for (qint64 next = monotonicMs() + intervalMs; !isEnding;
         sleepUntil(qMin(next, calls.due()), calls.descriptor())) {
        int status;
        if (checker > 0 && waitpid(checker, &status, WNOHANG) == checker) {
            checker = 0;
            isNew = WIFEXITED(status) && WEXITSTATUS(status) == Answers;
        }
        if (monotonicMs() >= next && checker <= 0)
            checker = startCheck(limitSeconds ? limitSeconds : longestWait(), isNew);
        while (next <= monotonicMs())
            next += intervalMs;
        calls.work(intervalMs);
    }
    return 0;
}

int watchCommand(const Options &options)
{
    return watch(options.interval, options.seconds);
}
