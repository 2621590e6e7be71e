// The smallest module in C++: logs what keepwatch tells it and ends when asked to. Its file name says
// which module it is: as zarn5_gui it is the service com.qel.zarn5.gui.
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

// Qt names the interface after domain, application and class: com.qel.zarn5, gui, adaptor.
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
        QDBusConnection::sessionBus().unregisterService(service); // after the lines still on their way
        _exit(0); // not after the answer: SIGKILL may follow it
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
    // The object first, the name last: keepwatch calls as soon as it sees the name.
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject("/", &module, QDBusConnection::ExportAllSlots) || !bus.registerService(service))
        qFatal("cannot take the service %s", qPrintable(service));
    return application.exec();
}
#include "minimal.moc"
