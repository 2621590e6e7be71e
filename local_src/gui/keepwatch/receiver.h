// The road by which log lines and telegrams come from the bus.
#ifndef RECEIVER_H
#define RECEIVER_H

#include <QElapsedTimer>
#include <QObject>

class Logging;
class QSocketNotifier;
struct DBusConnection;

/**
 * Hands the bus signals "log" and "busmon" of any sender to the sink, from a connection of its own. Only a
 * little is read at each turn of the event loop, and the rest waits in the bus: whatever is published,
 * timers, ends of processes and SIGINT come in between. Lives on the main thread and never enters the event
 * loop.
 */
class Receiver : public QObject
{
    Q_OBJECT

public:
    /** `logging` must outlive this object. Without a bus, which is not reported, no line comes. */
    explicit Receiver(Logging *logging);
    /** Serves all that was published until now. Blocks until the bus has answered, 25 s at most. */
    ~Receiver();

private slots:
    void onReadable();
    void reopen();

private:
    void open();
    void close();

    Logging *logging;
    DBusConnection *connection; ///< owned; null without a bus
    QElapsedTimer opened;
    QSocketNotifier *notifier; ///< child of this object; of use while there is a connection
};

#endif
