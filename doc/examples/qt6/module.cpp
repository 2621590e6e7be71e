// The smallest module in C++: logs the control calls of keepwatch, and exits when asked to. It takes its bus
// name from its file name: zarn5_gui owns com.qel.zarn5.gui.
#include <QtDBus>
#include <unistd.h>

static QString name, service;

static void log(const QString &text)
{
    const QString stamp = QDateTime::currentDateTime().toString("yyyy-MM-dd hh:mm:ss.zzz");
    QDBusMessage signal = QDBusMessage::createSignal("/", "com.qel.zarn5.log", "log");
    signal << 5u << QString("(%1) %2: ").arg(stamp).arg(name.left(15), -15) + text;
    QDBusConnection::sessionBus().send(signal);
}

// Qt composes the name of the interface from domain, application and class: com.qel.zarn5, gui, adaptor.
class adaptor : public QObject
{
    Q_OBJECT
public slots:
    void run(int value)
    {
        log(QString("run %1").arg(value));
    }
    void updateKeepwatchInfo(const QStringList &report)
    {
        log("report " + report.join(", "));
    }
    void quit()
    {
        // Returns after the bus daemon has received the last log lines.
        QDBusConnection::sessionBus().unregisterService(service);
        // Exit inside the call, because SIGKILL can follow the answer.
        _exit(0);
    }
};

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    name = QFileInfo(argv[0]).baseName().remove("zarn5_");
    service = "com.qel.zarn5." + name;
    application.setOrganizationDomain("zarn5.qel.com");
    application.setApplicationName(name);
    adaptor module;
    // Export the object first and take the name last, because keepwatch calls as soon as it sees the name.
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject("/", &module, QDBusConnection::ExportAllSlots) || !bus.registerService(service))
        qFatal("cannot take the bus name %s", qPrintable(service));
    return application.exec();
}
#include "module.moc"
