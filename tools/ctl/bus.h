// Questions to a bus, none of which blocks.
#ifndef BUS_H
#define BUS_H

#include <QByteArray>
#include <QList>

#include <deque>

struct DBusConnection;
struct DBusMessage;
struct DBusPendingCall;

/** Returns the address of the session bus; empty if the environment names none. */
QByteArray sessionBusAddress();

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
