// Entry of keepwatch: makes everything, runs the event loop, and is the funnel of all messages.
#include "main.h"

#include "logging.h"
#include "modules.h"
#include "receiver.h"
#include "settings.h"
#include "watchdog.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDateTime>
#include <QFileInfo>
#include <QSettings>
#include <QSocketNotifier>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dbus/dbus.h>
#include <fcntl.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <unistd.h>

// While set, messages with an arrow ("-->:", "<--:") or plain debug messages are dropped.
static bool suppressTrace;
static bool suppressDebug;

// Never closed: a signal may come until the very end of the process.
static int quitPipe[2] = { -1, -1 };

LogStatement::LogStatement(QtMsgType type, const char *form, const char *path, int line)
    : type(type)
{
    const QString file = QFileInfo(QString::fromLocal8Bit(path)).fileName().left(20);
    *this << QString::fromLatin1(form).arg(file, -20).arg(line, 5).toLocal8Bit().constData();
}

LogStatement::~LogStatement()
{
    sendMessage(type, buffer);
}

LogStatement &LogStatement::operator<<(const char *text)
{
    buffer += QString::fromLatin1(text) + QLatin1Char(' ');
    return *this;
}

LogStatement &LogStatement::operator<<(const QString &text)
{
    buffer += QLatin1Char('"') + text + QLatin1String("\" ");
    return *this;
}

LogStatement &LogStatement::operator<<(qint64 number)
{
    buffer += QString::number(number) + QLatin1Char(' ');
    return *this;
}

void messageHandler(QtMsgType type, const char *msg)
{
    uint level = 0;
    if (type == QtDebugMsg) {
        if (qstrncmp(msg, "-->:", 4) == 0 || qstrncmp(msg, "<--:", 4) == 0) {
            if (suppressTrace)
                return;
            level = *msg == '-' ? 3 : 4;
            msg += 4;
        } else if (qstrncmp(msg, "NODEBUG:", 8) == 0) {
            level = 5;
            msg += 8;
        } else if (suppressDebug) {
            return;
        }
    }

    const QString line = QLatin1Char('(') + writeStamp(QDateTime::currentMSecsSinceEpoch())
        + QLatin1String(") keepwatch      : ") + QString::fromLatin1(msg);

    switch (type) {
    case QtDebugMsg: Logging::deliver(level, line); break;
    case QtWarningMsg: Logging::deliver(1, line); break;
    case QtCriticalMsg: Logging::deliver(2, line); break;
    case QtFatalMsg: fprintf(stderr, "fatal error: %s\n", line.toLocal8Bit().constData()); abort();
    default: break;
    }
}

QStringList findProcesses(const QString &name, ChildProcess *process)
{
    process->start(QLatin1String("pgrep"), QStringList(name));
    QString output;
    while (process->waitForReadyRead(30000))
        output += QString::fromLatin1(process->readAllStandardOutput().constData());
    QStringList ids = output.split(QLatin1Char('\n'));
    ids.removeAll(QString());
    return ids;
}

void serveBus(const QString &service)
{
    QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
    for (int question = 1; bus && question <= 100; ++question) {
        const QDBusReply<bool> owned = bus->isServiceRegistered(service);
        if (owned.isValid() ? !owned.value() : question >= 25)
            break;
    }
    // On Qt 4 the first round takes the messages apart, the second delivers them.
    QCoreApplication::sendPostedEvents(0, QEvent::MetaCall);
    QCoreApplication::sendPostedEvents(0, QEvent::MetaCall);
}

// Else each line of 20000 characters or more has the C library give the top of its heap back and fetch it
// again.
static void keepHeap()
{
#ifdef __GLIBC__
    mallopt(M_MMAP_THRESHOLD, sizeof(void *) > 4 ? 4 << 20 : 512 << 10); // the most that 32 bits take
    mallopt(M_TRIM_THRESHOLD, 4 << 20);
#endif
}

// Only the write is safe in a signal handler; the event loop finds the byte and quits.
static void sigintHandler(int signal)
{
    if (signal != SIGINT)
        return;
    const int error = errno;
    if (write(quitPipe[1], "", 1) < 0) // a full pipe says it already
        errno = error;
}

static void ignoreSignal(int) { }

// A parent may have left any of them blocked: without SIGCHLD no end is seen, without SIGINT none comes.
static void setUpSignals()
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, 0);
    signal(SIGCHLD, SIG_DFL); // ignored, it takes the exit status of a child away
    signal(SIGINT, SIG_DFL); // until there is a handler: a shell may have it ignored
    // What nobody reads, or what a file may not grow by, is lost as on a full disk. A handler, since on Qt 6
    // modules would inherit SIG_IGN.
    signal(SIGPIPE, ignoreSignal);
    signal(SIGXFSZ, ignoreSignal);
}

// Started without them, the first file or socket to be opened would take the place of standard output.
static void openStandardStreams()
{
    int descriptor;
    do
        descriptor = open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    close(descriptor);
}

static void readFlags(const QSettings &settings)
{
    const LoggingSettings logging = readLoggingSettings(settings);
    suppressDebug = logging.suppressDebug;
    suppressTrace = logging.suppressTrace;
}

int main(int argc, char **argv)
{
    keepHeap();
    setUpSignals();
    openStandardStreams();

    QCoreApplication::setOrganizationName(QLatin1String("zarn5"));
    QCoreApplication::setOrganizationDomain(QLatin1String("zarn5.qel.com"));
    QCoreApplication::setApplicationName(QLatin1String("keepwatch"));
    passAllMessages(); // before the handler, because Qt warns of a malformed logging rule here
    installMessageHandler<messageHandler>();
    QCoreApplication application(argc, argv);
    keepLettersWithoutLocale();

    ChildProcess guard;
    // This process is one of those that are found.
    if (findProcesses(QFileInfo(QString::fromLatin1(argv[0])).completeBaseName(), &guard).size() >= 2) {
        fputs("an instance of this keepwatch tool is already running. abort.\n", stderr);
        return 0;
    }
    // The library's handler, where it has one: the end of a child must not interrupt a write, whose lines
    // would be lost.
    struct sigaction onChild;
    sigaction(SIGCHLD, 0, &onChild);
    onChild.sa_flags |= SA_RESTART;
    sigaction(SIGCHLD, &onChild, 0);

    Logging logging;
    QSettings settings;
    readFlags(settings);

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        qFatal("Cannot connect to the D-Bus session");
    // At its limit, 63 MB that wait to be handled, the bus library stops to read, and Qt 5 cannot make it
    // go on, since it frees the messages on another thread.
    dbus_connection_set_max_received_size(static_cast<DBusConnection *>(bus.internalPointer()), LONG_MAX);
    bus.interface()->setTimeout(1000); // of serveBus and Receiver::reopen
    Receiver receiver(&logging);

    const bool piped = pipe2(quitPipe, O_CLOEXEC | O_NONBLOCK) == 0;
    QSocketNotifier quitNotifier(quitPipe[0], QSocketNotifier::Read);
    QObject::connect(&quitNotifier, SIGNAL(activated(int)), &application, SLOT(quit()));

    const QStringList modules = moduleNames();
    Watchdog watchdog(modules, QLatin1String("gui"));

    if (piped) // else SIGINT keeps its default effect
        signal(SIGINT, sigintHandler);

    return application.exec();
}
