// A sample module: all that a program needs to be supervised by keepwatch. Built under two names,
// zarn5_gui and zarn5_uartinterface; its own name tells which of the two it is.
#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDateTime>
#include <QFileInfo>
#include <QStringList>

#include <cstdio>
#include <unistd.h>

static QString serviceName()
{
    return QLatin1String("com.qel.zarn5.") + QCoreApplication::applicationName();
}

// Log levels: 0 debug, 1 warning, 2 error, 3 and 4 trace, 5 info.
static void publishLog(uint level, const QString &text)
{
    const QString stamp = QDateTime::currentDateTime().toString(QLatin1String("yyyy-MM-dd hh:mm:ss.zzz"));
    const QString name = QCoreApplication::applicationName().leftJustified(15);
    QDBusMessage signal = QDBusMessage::createSignal(QLatin1String("/"), QLatin1String("com.qel.zarn5.log"),
                                                     QLatin1String("log"));
    signal << level << QString::fromLatin1("(%1) %2: ").arg(stamp, name) + text;
    QDBusConnection::sessionBus().send(signal);
}

static void publishTelegram(const QString &telegram)
{
    QDBusMessage signal = QDBusMessage::createSignal(
        QLatin1String("/"), QLatin1String("com.qel.zarn5.busmon"), QLatin1String("busmon"));
    signal << telegram + QLatin1Char('\n'); // keepwatch adds no line end
    QDBusConnection::sessionBus().send(signal);
}

/** The three methods that keepwatch calls. It waits for each to return, so none may take long. */
class ModuleAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT

public:
    explicit ModuleAdaptor(QObject *parent)
        : QDBusAbstractAdaptor(parent)
    {
    }

public slots:
    void run(int value)
    {
        static const char *const meaning[] = { "all modules are there", "go", "pause" };
        const char *text = value >= 0 && value <= 2 ? meaning[value] : "unknown";
        publishLog(5, QString::fromLatin1("run %1: %2").arg(value).arg(QLatin1String(text)));
        publishTelegram(QString::fromLatin1("%1 run %2").arg(QCoreApplication::applicationName()).arg(value));
    }

    void updateKeepwatchInfo(const QStringList &report)
    {
        // Three strings a module: service, size of its memory, crash count.
        for (int i = 0; i + 2 < report.size(); i += 3)
            publishLog(5,
                       QString::fromLatin1("report: %1, %2, %3 crashes")
                           .arg(report[i], report[i + 1], report[i + 2]));
    }

    // Ends within the call: at shutdown SIGKILL follows the last answer.
    void quit()
    {
        publishLog(5, QLatin1String("told to quit"));
        QDBusConnection::sessionBus().unregisterService(serviceName()); // goes behind the line
        _exit(0);
    }
};

// The interface is named after the service, so each service needs a class of its own.
class GuiAdaptor : public ModuleAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.qel.zarn5.gui.adaptor")

public:
    explicit GuiAdaptor(QObject *parent)
        : ModuleAdaptor(parent)
    {
    }
};

class UartinterfaceAdaptor : public ModuleAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.qel.zarn5.uartinterface.adaptor")

public:
    explicit UartinterfaceAdaptor(QObject *parent)
        : ModuleAdaptor(parent)
    {
    }
};

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QString name
        = QFileInfo(application.applicationFilePath()).baseName().remove(QLatin1String("zarn5_"));
    application.setApplicationName(name);

    // What a module prints reaches the log as a warning.
    printf("launched with crash count %s\n", argc > 1 ? argv[1] : "unknown");
    fflush(stdout);

    if (name == QLatin1String("gui"))
        new GuiAdaptor(&application);
    else
        new UartinterfaceAdaptor(&application);
    // The object first, the service last: keepwatch calls as soon as it sees the service.
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QLatin1String("/"), &application) || !bus.registerService(serviceName())) {
        fprintf(stderr, "cannot take the service: %s\n", qPrintable(bus.lastError().message()));
        return 1;
    }
    return application.exec();
}

#include "module.moc"
