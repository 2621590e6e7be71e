#include "bus.h"

#include "state.h"

#include <climits>
#include <csignal>
#include <dbus/dbus.h>
#include <sys/time.h>

QByteArray busAddress()
{
    const QByteArray address = qgetenv("DBUS_SESSION_BUS_ADDRESS"), runtime = qgetenv("XDG_RUNTIME_DIR");
    return address.isEmpty() && !runtime.isEmpty() ? "unix:path=" + runtime + "/bus" : address;
}

Bus::~Bus()
{
    for (const Question &question : questions) {
        if (question.pending) {
            dbus_pending_call_cancel(question.pending);
            dbus_pending_call_unref(question.pending);
        }
        if (question.reply)
            dbus_message_unref(question.reply);
    }
    if (connection) {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
}

static void interrupt(int) { }

// Sends SIGALRM after `ms`, and every 50 ms then, because the first one can come before the call that it is
// to interrupt. 0: no more.
static void setAlarm(qint64 ms)
{
    struct sigaction action = {};
    action.sa_handler = interrupt; // without SA_RESTART
    sigaction(SIGALRM, &action, 0);
    const struct itimerval timer
        = { { 0, ms ? 50000 : 0 }, { time_t(ms / 1000), suseconds_t(ms % 1000 * 1000) } };
    setitimer(ITIMER_REAL, &timer, 0);
}

const char *Bus::open(const QByteArray &address, qint64 deadline)
{
    for (const char *transport : { "autolaunch:", "unixexec:", "launchd:" }) { // start other programs
        if (address.contains(transport))
            return "refused";
    }
    // While a hanging bus daemon accepts nothing, connect blocks without a time limit.
    setAlarm(qMax(qint64(1), deadline - monotonicMs()));
    connection = dbus_connection_open_private(address.constData(), 0);
    setAlarm(0);
    if (!connection)
        return monotonicMs() >= deadline ? "silent" : "gone";
    dbus_connection_set_exit_on_disconnect(connection, false);
    const size_t hello = askDaemon("Hello");
    wait(deadline);
    if (!dbus_connection_get_is_connected(connection) || isError(hello))
        return "refused";
    return isAnswered(hello) ? "answers" : "silent";
}

void Bus::onReply(DBusPendingCall *pending, void *data)
{
    Question *const question = static_cast<Question *>(data);
    question->reply = dbus_pending_call_steal_reply(pending);
    question->answered = monotonicMs();
}

size_t Bus::ask(const QByteArray &to, const char *path, const char *interface, const char *method,
                const QByteArray &argument)
{
    questions.push_back(Question { 0, 0, monotonicMs(), 0 });
    Question &question = questions.back();
    DBusMessage *const message = dbus_message_new_method_call(to.constData(), path, interface, method);
    dbus_message_set_auto_start(message, false);
    const char *const text = argument.constData();
    if (!argument.isEmpty())
        dbus_message_append_args(message, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    // There is no pending call if the connection has ended; the question then stays without an answer.
    if (dbus_connection_send_with_reply(connection, message, &question.pending, INT_MAX) && question.pending)
        dbus_pending_call_set_notify(question.pending, onReply, &question, 0);
    dbus_message_unref(message);
    return questions.size() - 1;
}

size_t Bus::askDaemon(const char *method, const QByteArray &argument)
{
    return ask(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, method, argument);
}

bool Bus::wait(qint64 deadline)
{
    for (size_t answered = 0;;) {
        while (dbus_connection_dispatch(connection) == DBUS_DISPATCH_DATA_REMAINS) { }
        while (answered < questions.size() && questions[answered].reply)
            ++answered;
        const qint64 rest = deadline - monotonicMs();
        if (answered == questions.size())
            return true;
        if (rest <= 0 || !dbus_connection_read_write(connection, int(qMin(rest, qint64(1000)))))
            return false;
    }
}

void Bus::publish(const QByteArray &line, qint64 deadline)
{
    DBusMessage *const signal = dbus_message_new_signal("/", "com.qel.zarn5.log", "log");
    const dbus_uint32_t warning = 1;
    const char *const text = line.constData();
    dbus_message_append_args(signal, DBUS_TYPE_UINT32, &warning, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    dbus_connection_send(connection, signal, 0);
    dbus_message_unref(signal);
    askDaemon("GetId");
    wait(deadline);
}

bool Bus::becomeMonitor(const QList<QByteArray> &rules, int limitMs)
{
    DBusMessage *const message = dbus_message_new_method_call(
        DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, "org.freedesktop.DBus.Monitoring", "BecomeMonitor");
    DBusMessageIter arguments, array;
    dbus_message_iter_init_append(message, &arguments);
    dbus_message_iter_open_container(&arguments, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING_AS_STRING, &array);
    for (const QByteArray &rule : rules) {
        const char *const text = rule.constData();
        dbus_message_iter_append_basic(&array, DBUS_TYPE_STRING, &text);
    }
    dbus_message_iter_close_container(&arguments, &array);
    const dbus_uint32_t flags = 0;
    dbus_message_iter_append_basic(&arguments, DBUS_TYPE_UINT32, &flags);
    // Not by ask(), because wait() has the library reply to calls, for which a bus daemon ends a monitor.
    DBusMessage *const reply = dbus_connection_send_with_reply_and_block(connection, message, limitMs, 0);
    dbus_message_unref(message);
    if (reply)
        dbus_message_unref(reply);
    return reply != 0;
}

int Bus::descriptor() const
{
    int descriptor = -1;
    dbus_connection_get_unix_fd(connection, &descriptor);
    return descriptor;
}

bool Bus::read()
{
    dbus_connection_read_write(connection, 0);
    return dbus_connection_get_is_connected(connection);
}

DBusMessage *Bus::take()
{
    return dbus_connection_pop_message(connection);
}

// When a bus daemon goes away, the library answers in its place.
bool Bus::isAnswered(size_t question) const
{
    return questions[question].reply && dbus_connection_get_is_connected(connection);
}

bool Bus::isError(size_t question) const
{
    return isAnswered(question)
        && dbus_message_get_type(questions[question].reply) == DBUS_MESSAGE_TYPE_ERROR;
}

qint64 Bus::milliseconds(size_t question) const
{
    return questions[question].answered - questions[question].asked;
}

qint64 Bus::number(size_t question) const
{
    dbus_uint32_t number;
    const bool read = isAnswered(question) && !isError(question)
        && dbus_message_get_args(questions[question].reply, 0, DBUS_TYPE_UINT32, &number, DBUS_TYPE_INVALID);
    return read ? number : -1;
}

QList<QByteArray> Bus::names(size_t question) const
{
    QList<QByteArray> names;
    char **texts;
    int count;
    if (!isAnswered(question) || isError(question)
        || !dbus_message_get_args(questions[question].reply, 0, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &texts,
                                  &count, DBUS_TYPE_INVALID))
        return names;
    for (int i = 0; i < count; ++i)
        names.append(texts[i]);
    dbus_free_string_array(texts);
    return names;
}
