// Questions to a bus, and the messages on it. Nothing blocks without a time limit.
#ifndef BUS_H
#define BUS_H

#include <QByteArray>
#include <QList>

#include <deque>

/** Returns the address of the session bus that the environment names; empty if it names none. */
QByteArray busAddress();

struct DBusConnection;
struct DBusMessage;
struct DBusPendingCall;

/** A connection. Times are milliseconds of the monotonic clock. */
class Bus
{
public:
    Bus() = default;
    ~Bus();

    /** Connects and says Hello. Returns "answers", "silent", "gone", or "refused", at `deadline` at the
     * latest. */
    const char *open(const QByteArray &address, qint64 deadline);

    /** Asks without waiting, and without having a service started. Returns the number of the question. */
    size_t ask(const QByteArray &to, const char *path, const char *interface, const char *method,
               const QByteArray &argument = QByteArray());
    /** Asks the bus daemon. */
    size_t askDaemon(const char *method, const QByteArray &argument = QByteArray());

    /** Waits until all questions are answered. Returns false if one is not at `deadline`. */
    bool wait(qint64 deadline);

    /** Publishes a warning for the log, as a module does. Waits until the bus daemon has it. */
    void publish(const QByteArray &line, qint64 deadline);

    /**
     * Receives from now on what matches one of the `rules`, whatever its destination, and can send nothing
     * more. Returns false if the bus daemon refuses that, or has not answered after `limitMs`.
     */
    bool becomeMonitor(const QList<QByteArray> &rules, int limitMs);
    int descriptor() const; ///< readable when something has arrived or the connection has ended
    /** Reads what has arrived, or a part of it. Returns false if the connection has ended. */
    bool read();
    /** Returns the next message that was read, which the caller owns; null if there is none. */
    DBusMessage *take();

    bool isAnswered(size_t question) const; ///< be it by an error
    bool isError(size_t question) const;
    qint64 milliseconds(size_t question) const; ///< from the question to the answer
    qint64 number(size_t question) const; ///< the first argument of the answer; -1 if there is none
    QList<QByteArray>
    names(size_t question) const; ///< the first argument of the answer; empty if there is none

private:
    Q_DISABLE_COPY(Bus)

    struct Question
    {
        DBusPendingCall *pending;
        DBusMessage *reply;
        qint64 asked, answered;
    };
    static void onReply(DBusPendingCall *pending, void *question);

    DBusConnection *connection = 0;
    std::deque<Question> questions; // which stay where they are
};

#endif
