// The entry point of keepwatch: creates all objects, runs the event loop, and handles all messages.
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

// Whether to drop messages with an arrow ("-->:", "<--:"), and plain debug messages.
static bool suppressTrace;
static bool suppressDebug;

// Written by the signal handler. Never closed, because a signal can arrive until the process exits.
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

// Keeps freed memory in the process. Otherwise the C library would return the top of its heap to the kernel
// and request it again for every log line of at least 20000 characters.
static void keepHeap()
{
#ifdef __GLIBC__
    mallopt(M_MMAP_THRESHOLD, sizeof(void *) > 4 ? 4 << 20 : 512 << 10); // the maximum on 32 bits
    mallopt(M_TRIM_THRESHOLD, 4 << 20);
#endif
}

// Wakes up the event loop, which then quits. Of the functions needed, only write is safe in a signal handler.
static void sigintHandler(int signal)
{
    if (signal != SIGINT)
        return;
    const int error = errno;
    if (write(quitPipe[1], "", 1) < 0) // the pipe is full, so the event loop will wake up anyway
        errno = error;
}

static void ignoreSignal(int) { }

// Resets what the parent process can have blocked or ignored. Otherwise keepwatch would not notice exits of
// modules (SIGCHLD) or would not shut down (SIGINT).
static void setUpSignals()
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, 0);
    signal(SIGCHLD, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    // A closed pipe or a file at its size limit drops log lines, as a full disk does. The handler does
    // nothing, but SIG_IGN would be inherited by the modules on Qt 6.
    signal(SIGPIPE, ignoreSignal);
    signal(SIGXFSZ, ignoreSignal);
}

// Opens the standard streams that are closed. Otherwise the first file or socket would become standard
// output.
static void openStandardStreams()
{
    int descriptor = open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = open("/dev/null", O_RDWR);
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
    // pgrep also finds this process.
    if (findProcesses(QFileInfo(QString::fromLatin1(argv[0])).completeBaseName(), &guard).size() >= 2) {
        fputs("an instance of this keepwatch tool is already running. abort.\n", stderr);
        return 0;
    }
    // Restart a write that the exit of a child interrupts. Otherwise its log lines would be lost. Qt has
    // installed its handler with the first child, above.
    struct sigaction onChild;
    sigaction(SIGCHLD, 0, &onChild);
    onChild.sa_flags |= SA_RESTART;
    sigaction(SIGCHLD, &onChild, 0);

    Logging logging;
    readFlags(QSettings());

    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        qFatal("Cannot connect to the D-Bus session");
    // libdbus stops reading when 63 MB of messages wait to be handled, and Qt 5 cannot make it continue,
    // because it frees the messages on another thread.
    dbus_connection_set_max_received_size(static_cast<DBusConnection *>(bus.internalPointer()), LONG_MAX);
    bus.interface()->setTimeout(1000); // ms, of the requests in serveBus and Receiver::reopen
    Receiver receiver(&logging);

    const bool piped = pipe2(quitPipe, O_CLOEXEC | O_NONBLOCK) == 0;
    QSocketNotifier quitNotifier(quitPipe[0], QSocketNotifier::Read);
    QObject::connect(&quitNotifier, SIGNAL(activated(int)), &application, SLOT(quit()));

    Watchdog watchdog(moduleNames(), QLatin1String("gui"));

    if (piped) // otherwise SIGINT keeps its default effect
        signal(SIGINT, sigintHandler);

    const int status = application.exec();
    signal(SIGINT, SIG_IGN); // it would restart the wait of the receiver for the bus daemon
    return status;
}
