// The command "watch": which module blocks keepwatch? And ends what hangs, so that its service manager
// restarts it.
#include "watch.h"

#include "bus.h"
#include "commands.h"
#include "inquiry.h"
#include "ping.h"

#include <QDateTime>

#include <climits>
#include <csignal>
#include <dbus/dbus.h>
#include <memory>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

static const int defaultInterval = 60; // seconds
static const int slowMs = 1000; // a control call that takes longer is reported
static const int unansweredMs = 26000; // keepwatch gives up a call after 25 s
static const int retryMs = 5000; // while there is no bus daemon
static const int busMs = 2000; // for a bus daemon to answer
static const int callLimit = 20; // calls without a reply yet; keepwatch makes one at a time

namespace {

// Follows the control calls on the bus, and warns in the log of those that are slow or not answered.
class CallWatcher
{
public:
    /** Does what is due. Connects to a bus daemon every `intervalMs` at most. */
    void work(qint64 intervalMs);
    int descriptor() const; ///< -1 if there is no connection
    qint64 due() const; ///< when there is something to do, even if no message comes

private:
    struct Call
    {
        QByteArray caller, text;
        dbus_uint32_t serial; // of the caller
        qint64 began;
    };

    QByteArray connect(const QByteArray &address);
    void read();
    void begin(DBusMessage *message);
    void end(DBusMessage *message);
    void warn(const QByteArray &text) const;

    std::unique_ptr<Bus> monitor; // null while there is none
    QList<Call> calls; // without a reply, the oldest first
    qint64 retry = 0; // when to connect
    bool isTold = false; // that there is no monitor
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

// Returns why that is not possible, as Bus::open does. Does not connect before a bus daemon runs. Otherwise a
// service manager, which has the socket then, could start one at a moment when it waits for a bus daemon
// itself.
QByteArray CallWatcher::connect(const QByteArray &address)
{
    if (!findListener(readProcesses(), 0, socketPath(address)))
        return "gone";
    monitor.reset(new Bus);
    const QByteArray answer = monitor->open(address, monotonicMs() + busMs);
    const QByteArray rule = "type='method_call',path='/',member=";
    const QList<QByteArray> rules = { rule + "'run'", rule + "'quit'", rule + "'updateKeepwatchInfo'",
                                      "type='method_return'", "type='error'" };
    if (answer == "answers" && monitor->becomeMonitor(rules, busMs))
        return QByteArray();
    monitor.reset();
    return answer == "answers" ? "refused" : answer;
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
    const QString form = QLatin1String("(yyyy-MM-dd hh:mm:ss.zzz) 'zarn5ctl       : '");
    const qint64 end = monotonicMs() + busMs;
    Bus bus;
    if (qstrcmp(bus.open(busAddress(), end), "answers") == 0)
        bus.publish(QDateTime::currentDateTime().toString(form).toLatin1() + text, end);
}

void CallWatcher::read()
{
    const bool isConnected = monitor->read();
    while (DBusMessage *const message = monitor->take()) {
        if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL)
            begin(message);
        else
            end(message);
        dbus_message_unref(message);
    }
    if (isConnected)
        return;
    monitor.reset();
    calls.clear();
}

void CallWatcher::work(qint64 intervalMs)
{
    if (!monitor && monotonicMs() >= retry) {
        const QByteArray address = busAddress(), trouble = connect(address);
        retry = monotonicMs() + (trouble == "gone" ? retryMs : intervalMs);
        if (!monitor && !isTold)
            complain("no control calls are watched on the bus at \"" + address + "\": " + trouble);
        isTold = !monitor;
    }
    if (monitor)
        read();
    if (!calls.isEmpty() && monotonicMs() >= calls.first().began + unansweredMs)
        warn(calls.takeFirst().text + " was not answered");
}

// Asks again for as long as modules can block a keepwatch that is not stopped.
static Ping pingPatiently(int limit)
{
    const qint64 end = monotonicMs() + longestWait() * qint64(1000);
    for (;;) {
        Ping found = ping(limit, false);
        const bool canWait
            = found.outcome == Hangs && !found.isBus && found.runs && !found.hanging.isStopped();
        if (!canWait || monotonicMs() >= end)
            return found;
    }
}

static void end(const Ping &found)
{
    const char *const outcome = kill(found.hanging.id, SIGKILL) == 0 ? "is killed" : "cannot be killed";
    complain(format("%s hangs: process %d %s (%s)", found.isBus ? "the bus daemon" : "keepwatch",
                    found.hanging.id, outcome, found.finding.text.constData()));
}

// Ends what hangs twice in a row, unless it was restarted.
static void check(int limit)
{
    const Ping first = pingPatiently(limit);
    if (first.outcome == Answers || !first.runs)
        return;
    const Ping second = first.outcome == Hangs ? pingPatiently(limit) : first;
    const Process process = first.hanging;
    if (second.outcome == CannotTell || (second.runs && !second.hanging.id))
        complain(second.finding.text + "; " + second.finding.advice);
    else if (second.outcome == Hangs && second.hanging.id == process.id
             && readProcesses().value(process.id).started == process.started)
        end(second);
}

// In a process of its own, since it can take minutes. That ends with this one.
static pid_t startCheck(int limit)
{
    const pid_t watcher = getpid();
    const pid_t checker = fork();
    if (checker != 0)
        return checker;
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == watcher)
        check(limit);
    _exit(0);
}

int watch(int intervalSeconds, int limitSeconds)
{
    const qint64 intervalMs = (intervalSeconds ? intervalSeconds : defaultInterval) * qint64(1000);
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_SETMASK, &ends, 0); // without the signal that interrupts Bus::open
    signal(SIGCHLD, SIG_IGN); // the kernel reaps the children
    struct pollfd inputs[] = { { signalfd(-1, &ends, SFD_CLOEXEC), POLLIN, 0 }, { -1, POLLIN, 0 } };
    CallWatcher calls;
    pid_t checker = 0;
    for (qint64 next = monotonicMs() + intervalMs; !inputs[0].revents;) {
        calls.work(intervalMs);
        if (monotonicMs() >= next) {
            if (checker <= 0 || waitpid(checker, 0, WNOHANG) != 0) // otherwise it still runs
                checker = startCheck(limitSeconds ? limitSeconds : longestWait());
            next = monotonicMs() + intervalMs;
        }
        inputs[1].fd = calls.descriptor();
        poll(inputs, 2, int(qMax(qint64(0), qMin(next, calls.due()) - monotonicMs())));
    }
    return 0;
}

int watchCommand(const Options &options)
{
    return watch(options.interval, options.seconds);
}
