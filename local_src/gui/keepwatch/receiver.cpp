#include "receiver.h"

#include "logging.h"
#include "main.h"

#include <QDBusConnectionInterface>
#include <QSocketNotifier>
#include <QTimer>

#include <dbus/dbus.h>

static const int silenceMs = 25000;
static const int retryMs = 1000;
static const char *const rules[] = { "type='signal',interface='com.qel.zarn5.log',member='log'",
                                     "type='signal',interface='com.qel.zarn5.busmon',member='busmon'" };

// Ignores arguments after the expected ones, and drops a signal with other arguments. Leaves everything else
// to libdbus, which answers the calls of strangers.
static DBusHandlerResult onMessage(DBusConnection *, DBusMessage *message, void *logging)
{
    Logging *sink = static_cast<Logging *>(logging);
    dbus_uint32_t level;
    const char *text;
    if (dbus_message_is_signal(message, "com.qel.zarn5.log", "log")) {
        if (dbus_message_get_args(message, 0, DBUS_TYPE_UINT32, &level, DBUS_TYPE_STRING, &text,
                                  DBUS_TYPE_INVALID))
            sink->onMessage(level, QString::fromUtf8(text));
    } else if (dbus_message_is_signal(message, "com.qel.zarn5.busmon", "busmon")) {
        if (dbus_message_get_args(message, 0, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID))
            sink->onTelegrams(QString::fromUtf8(text));
    } else {
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    }
    return DBUS_HANDLER_RESULT_HANDLED; // otherwise libdbus would look for an object that takes the signal
}

// Delivers the next message, or waits for a part of one if there is none. Returns false if none can come, or
// if the bus daemon sends nothing for 25 s.
static bool deliverNext(DBusConnection *connection)
{
    if (dbus_connection_get_dispatch_status(connection) == DBUS_DISPATCH_COMPLETE) {
        if (!dbus_connection_get_is_connected(connection))
            return false;
        QElapsedTimer silence;
        silence.start();
        dbus_connection_read_write(connection, silenceMs);
        const bool isIdle = dbus_connection_get_dispatch_status(connection) == DBUS_DISPATCH_COMPLETE;
        if (isIdle && silence.elapsed() >= silenceMs) {
            logWarning() << "the bus does not answer: lines are lost";
            return false;
        }
    }
    dbus_connection_dispatch(connection);
    return true;
}

Receiver::Receiver(Logging *logging)
    : logging(logging)
    , connection(0)
    , notifier(0)
{
    open();
}

Receiver::~Receiver()
{
    if (!connection)
        return;
    // Otherwise lines that are published without end would arrive without end.
    for (const char *rule : rules)
        dbus_bus_remove_match(connection, rule, 0);
    // Everything that was published before the reply of the bus daemon arrives before it.
    DBusMessage *question
        = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetId");
    DBusPendingCall *answer = 0;
    dbus_connection_send_with_reply(connection, question, &answer, DBUS_TIMEOUT_INFINITE);
    dbus_message_unref(question);
    while (answer && !dbus_pending_call_get_completed(answer) && deliverNext(connection)) { }
    if (answer)
        dbus_pending_call_unref(answer);
    close();
}

void Receiver::open()
{
    connection = dbus_bus_get_private(DBUS_BUS_SESSION, 0);
    int descriptor = -1;
    if (connection && !dbus_connection_get_unix_fd(connection, &descriptor)) // closed already
        release();
    if (!connection) {
        QTimer::singleShot(retryMs, this, SLOT(reopen()));
        return;
    }
    dbus_connection_set_exit_on_disconnect(connection, false);
    dbus_connection_add_filter(connection, onMessage, logging, 0);
    opened.start();
    notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, this);
    connect(notifier, SIGNAL(activated(int)), SLOT(onReadable()));
    for (const char *rule : rules)
        dbus_bus_add_match(connection, rule, 0);
}

// Opening a connection has no timeout and blocks while the bus daemon hangs, or while a service manager holds
// the socket of one that has exited. Check first that the bus daemon replies.
void Receiver::reopen()
{
    const QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        logWarning() << "there is no bus any more: no lines come until the next start";
        return;
    }
    if (bus.interface()->isServiceRegistered(QLatin1String(DBUS_SERVICE_DBUS)).isValid())
        open();
    else
        QTimer::singleShot(retryMs, this, SLOT(reopen()));
}

void Receiver::close()
{
    // A bus daemon closes the connection of a client that lets too many messages wait.
    if (!dbus_connection_get_is_connected(connection))
        logWarning() << "cut off from the bus: lines are lost";
    notifier->setEnabled(false); // before the event loop polls a closed descriptor
    notifier->deleteLater(); // its own signal may be the caller
    release();
}

void Receiver::onReadable()
{
    dbus_connection_read_write(connection, 0);
    while (dbus_connection_dispatch(connection) == DBUS_DISPATCH_DATA_REMAINS) { }
    if (dbus_connection_get_is_connected(connection))
        return;
    close();
    // If the connection lasted less than 1 s, wait 1 s before reconnecting, so that a bus daemon that closes
    // every connection does not cause a busy loop.
    QTimer::singleShot(opened.elapsed() >= retryMs ? 0 : retryMs, this, SLOT(reopen()));
}

void Receiver::release()
{
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
    connection = 0;
}
