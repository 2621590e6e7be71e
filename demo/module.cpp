// A sample module: everything that keepwatch requires of the programs that it supervises. It is built under
// two names, zarn5_gui and zarn5_uartinterface, and derives its bus name from its file name.
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
    signal << telegram + QLatin1Char('\n'); // because keepwatch adds no line end
    QDBusConnection::sessionBus().send(signal);
}

/** The methods that keepwatch calls. Each must return immediately, because keepwatch blocks until it does. */
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
        // The report has three strings per module: its bus name, its memory size, and its crash count.
        for (int i = 0; i + 2 < report.size(); i += 3)
            publishLog(5,
                       QString::fromLatin1("report: %1, %2, %3 crashes")
                           .arg(report[i], report[i + 1], report[i + 2]));
    }

    // Exits before it replies, because at shutdown keepwatch kills the module after the last reply.
    void quit()
    {
        publishLog(5, QLatin1String("told to quit"));
        QDBusConnection::sessionBus().unregisterService(serviceName()); // sends the log line first
        _exit(0);
    }
};

// The interface name contains the bus name, so each module needs its own class.
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

    // keepwatch logs module output as a warning.
    printf("launched with crash count %s\n", argc > 1 ? argv[1] : "unknown");
    fflush(stdout);

    if (name == QLatin1String("gui")) {
        new GuiAdaptor(&application);
    } else if (name == QLatin1String("uartinterface")) {
        new UartinterfaceAdaptor(&application);
    } else {
        fprintf(stderr, "%s: has no adaptor here; add a class with its interface\n", qPrintable(name));
        return 1;
    }
    // Take the bus name last, because keepwatch calls the object as soon as the name has an owner.
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QLatin1String("/"), &application) || !bus.registerService(serviceName())) {
        fprintf(stderr, "cannot take the service: %s\n", qPrintable(bus.lastError().message()));
        return 1;
    }
    return application.exec();
}

#include "module.moc"
