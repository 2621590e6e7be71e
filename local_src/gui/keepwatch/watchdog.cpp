#include "watchdog.h"

#include "main.h"
#include "modules.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QTextStream>

static const int crashPeriodMs = 300000;
static const int statusPeriodMs = 60000;
static const int quitMs = 3000;
static const int waitMs = 5000;
static const int idleMs = 20000;
static const int killWaitMs = 3000;
static const quint64 outputLimit = 100000; // bytes a launch

template <typename Match> static Module *findModule(const QList<Module *> &modules, Match match)
{
    for (Module *module : modules) {
        if (match(module))
            return module;
    }
    return 0;
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

// Waits until nobody owns the bus name `service`, then delivers all D-Bus messages that arrived before the
// last reply, including the loss of that name. Slots run inside this function, so the caller must not rely on
// anything that a slot can change.
//
// Asks the bus daemon at most 100 times. If the bus daemon hangs, each request times out after 1 s, and the
// function gives up after 25 requests. It does not give up earlier, because a bus daemon that hangs also
// reports the loss late.
static void serveBus(const QString &service)
{
    QDBusConnectionInterface *bus = QDBusConnection::sessionBus().interface();
    for (int question = 1; bus && question <= 100; ++question) {
        const QDBusReply<bool> owned = bus->isServiceRegistered(service);
        const bool isFree = owned.isValid() && !owned.value();
        if (isFree || (!owned.isValid() && question >= 25))
            break;
    }
    // On Qt 4, the first call parses the messages, and the second one delivers them.
    QCoreApplication::sendPostedEvents(0, QEvent::MetaCall);
    QCoreApplication::sendPostedEvents(0, QEvent::MetaCall);
}

Watchdog::Watchdog(const QStringList &modules, const QString &statusModuleName)
    : statusModule(0)
    , statusModuleName(statusModuleName)
{
    readModules(modules);
    state = StartupQuit;
    serviceWatcher.setConnection(QDBusConnection::sessionBus());
    connect(&serviceWatcher, SIGNAL(serviceRegistered(QString)), SLOT(onServiceRegistered(QString)));
    connect(&serviceWatcher, SIGNAL(serviceUnregistered(QString)), SLOT(onServiceUnregistered(QString)));
    connect(QCoreApplication::instance(), SIGNAL(aboutToQuit()), SLOT(forceShutdown()));
    connect(&cyclicTimer, SIGNAL(timeout()), SLOT(onCyclicTimer()));
    connect(&statusTimer, SIGNAL(timeout()), SLOT(onStatusTimer()));

    makePrecise(cyclicTimer);
    cyclicTimer.start(0);
    makePrecise(statusTimer);
    statusTimer.setInterval(statusPeriodMs);
}

Watchdog::~Watchdog()
{
    for (Module *module : modules) {
        // Otherwise the destructor of a running process would call onProcessFinished.
        if (module->process)
            module->process->disconnect(this);
        delete module->process;
        disconnectModule(module);
        delete module;
    }
}

void Watchdog::readModules(const QStringList &names)
{
    const QSettings settings;
    for (const QString &name : names) {
        const ModuleSettings moduleSettings = readModuleSettings(settings, name);
        const QFileInfo file(moduleSettings.path);
        if (!file.exists()) {
            const QString text = QString::fromLatin1("file %1 does not exist").arg(moduleSettings.path);
            logWarning() << text.toLocal8Bit().constData();
            continue;
        }

        Module *module = new Module(); // the parentheses make pointers null and numbers 0
        if (name == statusModuleName)
            statusModule = module;
        static_cast<ModuleSettings &>(*module) = moduleSettings;
        module->path = file.absoluteFilePath();
        connect(&module->crashCountTimer, SIGNAL(timeout()), SLOT(onCrashCountTimer()));
        makePrecise(module->crashCountTimer);
        module->crashCountTimer.start(crashPeriodMs);
        modules.append(module);
        if (isServiceName(module->service))
            serviceWatcher.addWatchedService(module->service);
    }
}

void Watchdog::onCyclicTimer()
{
    switch (state) {
    case StartupQuit: return startupQuit();
    case StartupKill: return startupKill();
    case StartupLaunch: return startupLaunch();
    case StartupWait: return startupWait();
    case Pausing: return pausing();
    case Reestablishing: return reestablishing();
    case ShutdownQuit: return shutdownQuit();
    case ShutdownKill: return shutdownKill();
    default: return;
    }
}

void Watchdog::startupQuit()
{
    logInfo() << "startup 1/4 - shutting down modules from previous sessions";
    bool called = false;
    for (Module *module : modules) {
        connectModule(module);
        if (module->interface) {
            module->interface->call(QLatin1String("quit"));
            called = true;
        }
    }
    if (called)
        cyclicTimer.setInterval(quitMs);
    state = StartupKill;
}

void Watchdog::startupKill()
{
    logInfo() << "startup 2/4 - killing unresponsive processes";
    for (Module *module : modules) {
        disconnectModule(module);
        if (module->start)
            killUnresponsive(module);
    }
    cyclicTimer.setInterval(100);
    state = StartupLaunch;
}

void Watchdog::startupLaunch()
{
    logInfo() << "startup 3/4 - starting processes for this session";
    // Wait until the bus daemon reports that the killed stale process lost its bus name. Otherwise the report
    // would be attributed to the new process.
    for (const Module *module : modules) {
        if (module->start && !module->process)
            serveBus(module->service);
    }
    const bool launched = launchMissing("started");
    cyclicTimer.setInterval(waitMs);
    if (!launched)
        return;
    state = StartupWait;
    logInfo() << "startup 4/4 - wait for D-Bus services";
}

void Watchdog::startupWait()
{
    if (!allConnected())
        return;
    logInfo() << "connected to all required services: run!";
    release();
    state = Running;
    cyclicTimer.setInterval(idleMs);
    statusTimer.start();
    onStatusTimer(); // sends the first report immediately
}

void Watchdog::pausing()
{
    logWarning() << "pausing system due to errors";
    for (Module *module : modules) {
        if (module->interface && module->interface->isValid())
            module->interface->call(QLatin1String("run"), 2);
    }
    const bool launched = launchMissing("restarted");
    cyclicTimer.setInterval(waitMs);
    if (!launched)
        return;
    state = Reestablishing;
    logInfo() << "reestablishing services ";
}

void Watchdog::reestablishing()
{
    if (!allConnected()) {
        cyclicTimer.setInterval(waitMs);
        return;
    }
    logInfo() << "all required services are reestablished: run!";
    release();
    state = Running;
    cyclicTimer.setInterval(idleMs);
}

void Watchdog::shutdownQuit()
{
    logInfo() << "shutdown 1/2 -  shutting down modules";
    for (Module *module : modules) {
        if (module->interface)
            module->interface->call(QLatin1String("quit"));
    }
    state = ShutdownKill;
    cyclicTimer.setInterval(quitMs);
}

void Watchdog::shutdownKill()
{
    logInfo() << "shutdown 2/2 - killing unresponsive processes";
    for (Module *module : modules) {
        disconnectModule(module);
        if (!module->process)
            continue;
        module->process->kill();
        module->process->waitForFinished(killWaitMs);
        delete module->process; // null if onProcessFinished ran inside the wait
        module->process = 0;
    }
    logInfo() << "system was shutted down";
    state = Down;
    cyclicTimer.setInterval(idleMs);
}

void Watchdog::forceShutdown()
{
    state = ShutdownQuit;
    onCyclicTimer();
    state = ShutdownKill;
    onCyclicTimer();
}

bool Watchdog::launchMissing(const char *wording)
{
    bool launched = true;
    for (Module *module : modules) {
        if (module->start && !module->process && !launchModule(module, wording))
            launched = false;
    }
    return launched;
}

bool Watchdog::allConnected() const
{
    bool connected = true;
    for (const Module *module : modules) {
        if (module->wait && !module->interface) {
            logInfo() << "still waiting for" << module->service.toLocal8Bit().constData();
            connected = false;
        }
    }
    return connected;
}

void Watchdog::release()
{
    for (int run = 0; run <= 1; ++run) {
        for (Module *module : modules) {
            if (module->interface)
                module->interface->call(QLatin1String("run"), run);
        }
    }
}

bool Watchdog::launchModule(Module *module, const char *wording)
{
    const QByteArray baseName = QFileInfo(module->path).baseName().toLocal8Bit();
    QProcess *process = new ChildProcess;
    module->process = process;
    process->setProcessChannelMode(QProcess::MergedChannels);
    module->outputBytes = 0;
    connect(process, SIGNAL(readyRead()), SLOT(onReadStandardOutput()));
    process->start(module->path, QStringList(QString::number(module->crashCount)));
    if (process->waitForStarted(5000)) {
        logInfo() << wording << baseName.constData() << "with pid" << idOf(*process);
        // Not before the start, because a process that cannot be started has not crashed.
        connect(process, SIGNAL(finished(int, QProcess::ExitStatus)),
                SLOT(onProcessFinished(int, QProcess::ExitStatus)));
        return true;
    }
    process->kill();
    process->waitForFinished(killWaitMs);
    delete process;
    module->process = 0;
    logError() << "unable to start process" << baseName.constData();
    return false;
}

void Watchdog::onReadStandardOutput()
{
    QProcess *process = qobject_cast<QProcess *>(sender());
    Module *module = findModule(modules, [=](const Module *m) { return process && m->process == process; });
    if (!module)
        return;
    process->setReadChannel(QProcess::StandardOutput);
    for (QByteArray line = process->readLine(); !line.isEmpty(); line = process->readLine()) {
        logWarning() << module->service << ":" << QString::fromLatin1(line.constData(), line.size());
        module->outputBytes += line.size();
        if (module->outputBytes > outputLimit) {
            logError() << module->service << "is taliking too much. Closing std-channels!";
            process->closeReadChannel(QProcess::StandardOutput);
            process->closeReadChannel(QProcess::StandardError);
            return;
        }
    }
}

void Watchdog::killUnresponsive(Module *module)
{
    const QString baseName = QFileInfo(module->path).baseName();
    if (baseName.isEmpty()) // a hidden file, or a path that ends in a slash: pgrep would find all processes
        return;
    const QByteArray name = baseName.toLocal8Bit();
    ChildProcess pgrep;
    for (const QString &id : findProcesses(baseName.left(processNameLength), &pgrep)) {
        logWarning() << "have to kill unresponsive process" << name.constData();
        ChildProcess kill;
        kill.start(QLatin1String("kill"), QStringList() << QLatin1String("-9") << id);
        if (!kill.waitForFinished(300))
            logError() << "unable to kill process" << name.constData();
    }
}

void Watchdog::connectModule(Module *module)
{
    disconnectModule(module);
    if (!isServiceName(module->service))
        return;
    module->interface = new QDBusInterface(module->service, QLatin1String("/"),
                                           module->service + QLatin1String(".adaptor"),
                                           QDBusConnection::sessionBus(), this);
    if (!module->interface->isValid())
        disconnectModule(module);
}

void Watchdog::disconnectModule(Module *module)
{
    delete module->interface;
    module->interface = 0;
}

void Watchdog::onServiceRegistered(QString name)
{
    Module *module = findModule(modules, [&](const Module *m) { return m->service == name; });
    if (!module)
        return;
    connectModule(module);
    if (!module->interface)
        logError() << QDBusConnection::sessionBus().lastError().message().toLocal8Bit().constData();
}

void Watchdog::onServiceUnregistered(QString name)
{
    Module *module = findModule(modules, [&](const Module *m) { return m->service == name; });
    if (!module)
        return;
    disconnectModule(module);

    const QByteArray service = name.toLocal8Bit();
    if (state <= StartupLaunch || state == ShutdownQuit) {
        logInfo() << "connection to" << service.constData() << "was closed";
        return;
    }
    logError() << "connection to" << service.constData() << "was unexpectedly closed";
    if (!module->process) {
        state = Pausing;
        return;
    }
    module->process->kill();
    module->process->waitForFinished(killWaitMs); // runs onProcessFinished, so use nothing after it
}

void Watchdog::onProcessFinished(int exitCode, QProcess::ExitStatus exitStatus)
{
    QProcess *process = qobject_cast<QProcess *>(sender());
    Module *module = findModule(modules, [=](const Module *m) { return process && m->process == process; });
    if (!module)
        return;
    process->deleteLater(); // its own signal is the caller
    module->process = 0;
    disconnectModule(module);

    const QString name = QFileInfo(module->path).baseName();
    if (exitStatus == QProcess::CrashExit)
        logError() << name << "crashed";
    if (state >= ShutdownQuit) {
        if (exitCode == 0)
            logInfo() << name << "ended with exit status" << int(exitStatus);
        else
            logWarning() << name << "ended with exit status" << int(exitStatus);
        return;
    }
    ++module->crashCount;
    module->crashCountTimer.start();
    logError() << name << "ended unexpectedly with exit status" << int(exitStatus);
    state = Pausing;
    cyclicTimer.setInterval(0);
    serveBus(module->service); // otherwise the loss of the name would be attributed to the next process
}

void Watchdog::onCrashCountTimer()
{
    const QObject *timer = sender();
    Module *module = findModule(modules, [=](const Module *m) { return &m->crashCountTimer == timer; });
    if (module)
        module->crashCount = 0;
}

void Watchdog::onStatusTimer()
{
    if (state != Running || !statusModule || !statusModule->interface)
        return;
    QStringList report;
    for (const Module *module : modules) {
        if (!module->interface)
            continue;
        QString memory = QLatin1String("not watched");
        if (module->process)
            readMemory(QString::fromLatin1("/proc/%1/status").arg(idOf(*module->process)), &memory);
        report << module->service << memory << QString::number(module->crashCount);
    }
    statusModule->interface->call(QLatin1String("updateKeepwatchInfo"), report);
}

void Watchdog::readMemory(const QString &statusFile, QString *memory)
{
    QFile file(statusFile);
    if (!file.open(QIODevice::ReadOnly))
        return;
    QTextStream stream(&file);
    for (QString line = stream.readLine(); !line.isNull(); line = stream.readLine()) {
        if (line.startsWith(QLatin1String("VmSize:"))) {
            *memory = line.right(9).simplified(); // the last six digits, a blank, and "kB"
            return;
        }
    }
}
