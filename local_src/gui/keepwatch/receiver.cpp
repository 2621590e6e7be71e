#include "receiver.h"

#include "logging.h"
#include "main.h"

#include <QDBusConnectionInterface>
#include <QSocketNotifier>
#include <QTimer>

#include <dbus/dbus.h>

static const int farewellMs = 25000;
static const int reopenMs = 1000;

// Arguments behind those named are passed over; a signal that has others is dropped. All else is left to the
// library, which answers strangers' calls.
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
    return DBUS_HANDLER_RESULT_HANDLED; // else the library would look for an object that takes it
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
    // What was published before the bus answers comes ahead of the answer.
    DBusMessage *question
        = dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetId");
    DBusPendingCall *answer = 0;
    dbus_connection_send_with_reply(connection, question, &answer, farewellMs);
    dbus_message_unref(question);
    QElapsedTimer elapsed;
    elapsed.start();
    while (answer && !dbus_pending_call_get_completed(answer) && elapsed.elapsed() < farewellMs
           && dbus_connection_read_write_dispatch(connection, qMax(0, farewellMs - int(elapsed.elapsed())))) {
    }
    if (answer)
        dbus_pending_call_unref(answer);
    close();
}

void Receiver::open()
{
    connection = dbus_bus_get_private(DBUS_BUS_SESSION, 0);
    if (!connection)
        return;
    dbus_connection_set_exit_on_disconnect(connection, false);
    dbus_connection_add_filter(connection, onMessage, logging, 0);
    dbus_bus_add_match(connection, "type='signal',interface='com.qel.zarn5.log',member='log'", 0);
    dbus_bus_add_match(connection, "type='signal',interface='com.qel.zarn5.busmon',member='busmon'", 0);
    int descriptor = -1;
    if (!dbus_connection_get_unix_fd(connection, &descriptor)) { // cut off by now
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
        connection = 0;
        return;
    }
    opened.start();
    notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, this);
    connect(notifier, SIGNAL(activated(int)), SLOT(onReadable()));
}

void Receiver::close()
{
    if (!dbus_connection_get_is_connected(connection)) // a bus does that to whoever lets too much wait
        logWarning() << "cut off from the bus: lines are lost";
    notifier->setEnabled(false); // ahead of its descriptor's end
    notifier->deleteLater(); // it may be in the middle of its own signal
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
    connection = 0;
}

void Receiver::onReadable()
{
    dbus_connection_read_write(connection, 0);
    while (dbus_connection_dispatch(connection) == DBUS_DISPATCH_DATA_REMAINS) { }
    if (dbus_connection_get_is_connected(connection))
        return;
    close();
    // Later with a bus that cuts each connection off at once.
    QTimer::singleShot(opened.elapsed() >= reopenMs ? 0 : reopenMs, this, SLOT(reopen()));
}

// Opening waits for a bus that stands still without a limit, so the bus is asked first.
void Receiver::reopen()
{
    const QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        logWarning() << "there is no bus any more: no lines come until the next start";
        return;
    }
    if (bus.interface()->isServiceRegistered(QLatin1String(DBUS_SERVICE_DBUS)).isValid())
        open();
    if (!connection)
        QTimer::singleShot(reopenMs, this, SLOT(reopen()));
}
