// Receives log lines and telegrams from the D-Bus session bus.
#ifndef RECEIVER_H
#define RECEIVER_H

#include <QElapsedTimer>
#include <QObject>

class Logging;
class QSocketNotifier;
struct DBusConnection;

/**
 * Receives the D-Bus signals "log" and "busmon" from any sender, on a private connection, and passes them
 * to Logging. Runs on the main thread and never runs an event loop of its own.
 *
 * Each iteration of the event loop reads only a small part of the pending signals. The rest waits in the
 * bus daemon, so that a flood of signals does not delay timers, process exits, or SIGINT.
 */
class Receiver : public QObject
{
    Q_OBJECT

public:
    /**
     * `logging` must outlive this object. If the bus daemon refuses the connection, the object tries again
     * every second; each of these attempts blocks for at most 1 s if the bus daemon does not reply.
     */
    explicit Receiver(Logging *logging);
    /**
     * Delivers all signals published before this call. Blocks until they are delivered, or until the bus
     * daemon sends nothing for 25 s or has closed the connection; both are logged.
     */
    ~Receiver();

private slots:
    void onReadable();
    void reopen();

private:
    void open();
    void close();
    void release();

    Logging *logging;
    DBusConnection *connection; ///< owned; null while there is no connection
    QElapsedTimer opened; ///< time since the connection was opened
    QSocketNotifier *notifier; ///< child of this object; valid only while there is a connection
};

#endif
