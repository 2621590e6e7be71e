// Tests the classes of keepwatch in this process, on a private bus, slot by slot. Run it with tests/stage.
#define main keepwatchMain
#include "main.cpp"
#undef main

#include <QDBusInterface>
#include <QDBusVirtualObject>
#include <QPointer>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <sys/resource.h>
#include <sys/wait.h>

// Replace the functions of the C library, and record their arguments.
static QByteArray heard;
extern "C" void openlog(const char *name, int option, int facility)
{
    heard += name + QString(" %1 %2\n").arg(option).arg(facility).toLatin1();
}
extern "C" void syslog(int priority, const char *, const char *text)
{
    heard += QByteArray::number(priority) + text;
}

// Replies to the calls to all modules, and records them ("gui run 0").
class Recorder : public QDBusVirtualObject
{
public:
    QStringList calls;

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &bus)
    {
        QString call = message.interface().section('.', -2, -2) + ' ' + message.member(); // <service>.adaptor
        for (const QVariant &argument : message.arguments())
            call += ' ' + argument.toString() + argument.toStringList().join(",");
        if (!call.contains("Introspect"))
            calls << call;
        return bus.send(message.createReply());
    }
    QString introspect(const QString &) const
    {
        return QString();
    }
};

#define WAIT_FOR(condition) QTRY_VERIFY_WITH_TIMEOUT(condition, 60000)

class InsideTest : public QObject
{
    Q_OBJECT

    QScopedPointer<QTemporaryDir> folder;
    QScopedPointer<Logging> sink;
    QScopedPointer<Watchdog> dog;
    Recorder recorder;
    QDBusConnection bus = QDBusConnection::sessionBus();
    const QStringList names = { "gui", "uartinterface" };
    const QString gui = "com.qel.zarn5.gui";
    QString transcript; // of the current test; compared with the expected file of that name
    int noted; // characters of the log that the transcript has

    static QByteArray read(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    static void write(const QString &path, const QByteArray &text)
    {
        QFile file(path);
        file.open(QIODevice::WriteOnly);
        file.setPermissions(QFile::Permissions(0x7755));
        file.write(text);
    }

    // Returns level (II for info) and text of all log lines but the first one.
    static QString log()
    {
        const QRegularExpression head(
            "\\[[-0-9]+\\] (..) \\([-0-9: .]{23}\\) keepwatch      : ([a-z.]+ +, +\\d+: )?");
        const QString text = QString::fromUtf8(read("log")).section('\n', 1).replace("]    (", "] II (");
        return QString(text).replace(head, "\\1 ").replace(QRegularExpression("pid \\d+"), "pid N");
    }

    static QString describe(const QTimer &timer)
    {
        const bool plain = !timer.isSingleShot() && timer.timerType() == Qt::PreciseTimer;
        return QString("%1 ms%2%3")
            .arg(timer.interval())
            .arg(timer.isActive() ? "" : " off", plain ? "" : "?");
    }

    // Adds to the transcript: new log lines, new calls, the state, and the module table.
    void note(const QString &title)
    {
        QTextStream out(&transcript);
        out << "== " << title << '\n' << log().mid(noted);
        noted = log().size();
        for (const QString &call : recorder.calls)
            out << "calls " << QString(call).replace(QRegularExpression("\\d+ kB"), "N kB") << '\n';
        recorder.calls.clear();
        out << "state " << dog->state << ", tick " << describe(dog->cyclicTimer) << ", report "
            << describe(dog->statusTimer) << '\n';
        for (const Module *module : dog->modules) {
            out << QString(module->path).remove(folder->path()) << ' ' << module->service
                << (module->start ? " started" : "") << (module->wait ? " awaited" : "")
                << (module == dog->statusModule ? " reported to: " : ": ")
                << (module->process ? "launched with " + module->process->arguments().join(' ')
                                    : "no process")
                << (module->interface ? ", connected, " : ", ") << module->outputBytes << " bytes, ends "
                << module->crashCount << " in " << describe(module->crashCountTimer) << '\n';
        }
    }

    // Creates a Watchdog with two modules, connected or not, in `state`. Its cyclicTimer is stopped.
    void build(bool onBus, quint32 state, const QByteArray &command = "exec sleep 1000")
    {
        dog.reset(); // kills its modules, whose shells could still read the old scripts
        write("zarn5_gui", "#!/bin/sh\n" + command);
        write("zarn5_uartinterface", "#!/bin/sh\nexec sleep 1000");
        for (const QString &name : names) {
            const QString service = "com.qel.zarn5." + name;
            if (onBus)
                bus.registerService(service);
            else
                bus.unregisterService(service);
        }
        dog.reset(new Watchdog(names, "gui"));
        dog->cyclicTimer.stop();
        dog->cyclicTimer.setInterval(77);
        for (Module *module : dog->modules)
            dog->connectModule(module);
        dog->state = state;
        recorder.calls.clear();
        noted = log().size();
    }

    // Does the same, launches the first module, and returns it.
    Module *launch(bool onBus, quint32 state, const QByteArray &command = "exec sleep 1000")
    {
        build(onBus, state, command);
        dog->launchModule(dog->modules[0], "started");
        return dog->modules[0];
    }

private slots:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName("zarn5");
        QCoreApplication::setApplicationName("keepwatch");
        passAllMessages();
        setUpSignals();
        QVERIFY(bus.isConnected() && bus.registerVirtualObject("/", &recorder));
        QCoreApplication::sendPostedEvents(); // until then, Qt holds D-Bus signals back
    }

    void init()
    {
        folder.reset(new QTemporaryDir);
        QDir::setCurrent(folder->path());
        QSettings().clear();
        QSettings().setValue("logging/logfile", "log");
        QSettings().setValue("logging/telegramfile", "telegrams");
        installMessageHandler<messageHandler>(); // QTest has installed its own
        QVERIFY(freopen("out", "w", stdout));
        sink.reset(new Logging);
    }

    void cleanup()
    {
        dog.reset();
        sink.reset();
        recorder.calls.clear();
        noted = 0;
        const QByteArray seen = transcript.toUtf8();
        transcript.clear();
        if (QTest::currentTestFailed()) {
            fprintf(stderr, "the end of the log:\n%s", read("log").right(5000).constData());
            return;
        }
        if (seen.isEmpty())
            return;
        const QString file = QFINDTESTDATA(QString("expected/%1.txt").arg(QTest::currentTestFunction()));
        if (qEnvironmentVariableIsSet("UPDATE")) {
            write(file, seen);
            QFile::setPermissions(file, QFile::Permissions(0x6644));
            return;
        }
        write("seen", seen);
        const QByteArray diff = "diff -u '" + file.toLocal8Bit() + "' seen >difference 2>&1";
        QVERIFY2(system(diff.constData()) == 0, read("difference").constData());
    }

    void flagsDropOnlyDebugAndTrace()
    {
        for (const QString keys : { "both", "debug", "trace", "none" }) {
            for (const QString key : { "debug", "trace" }) {
                QSettings().remove("logging/" + key);
                if (keys == key || keys == "both")
                    QSettings().setValue("logging/" + key, 0);
            }
            readFlags(QSettings());
            for (const char *text : { "nodebug:x", "-->:", "<--:-->:x", "NODEBUG:NODEBUG:x" })
                messageHandler(QtDebugMsg, text);
            messageHandler(QtWarningMsg, "-->:x");
            messageHandler(QtMsgType(4), "x");
        }
        LogStatement(QtCriticalMsg, "%1,%2:", "/a/longer-than-twenty-characters.cpp", 7)
            << "bare\xfc" << QString("say \"hi\"") << QString::fromLatin1("a\t\xff") << -1
            << (qint64(1) << 40);
        transcript = log();
    }

    // The second Logging object truncates the files of the first one.
    void levelsDelaysAndSyslog()
    {
        heard.clear();
        QSettings().setValue("logging/syslog", "False");
        sink.reset();
        sink.reset(new Logging);
        const QDateTime now = QDateTime::currentDateTime();
        for (int ahead : { 900, -1000000 })
            sink->onMessage(2, now.addMSecs(ahead).toString("(yyyy-MM-dd hh:mm:ss.zzz)"));
        sink->onMessage(2, "(2026-11-25 05:51:23)");
        for (uint level = 0; level <= 6; ++level)
            sink->onMessage(level, QString(level ? QChar(0xfc) : QChar()));
        sink->onMessage(2, QChar(0xfeff) + QString("\u20ac") + QChar() + "lost");
        const QRegularExpression stamped("\\[(-?\\d+)\\d{3}\\](.{4})\\([-0-9: .]{23}\\)"), line("\\d+: ");
        transcript = QString::fromUtf8(heard).replace(stamped, "[\\1xxx]\\2(S)").replace(line, "N: ");
        QCOMPARE(read("log"),
                 QString(heard).section('\n', 1).remove(QRegularExpression("\\d(?=\\[)")).toUtf8());
        sink->onTelegrams("a");
        sink->onTelegrams(QChar(0xfc));
        transcript += QString::fromUtf8(read("telegrams"));
        fflush(stdout);
        QVERIFY(!read("out").contains("EE"));
    }

    // In a time zone whose clock changes in the middle of a minute: one hour is skipped, one is repeated.
    void stampsAreTheLibrarysToTheMillisecond()
    {
        const QString form("yyyy-MM-dd hh:mm:ss.zzz"), plain("2026-01-01 10:00:00.000");
        QStringList stamps
            = { "2026-02-29 10:00:00.000", "2026-01-01 24:00:00.000", "2026-01-01 10:00:60.000",
                "2026-01-01 10:00: 5.000", "1893-04-01 00:06:10.000", plain + "0" };
        for (int place = 0; place < 23; ++place)
            stamps << QString(plain).replace(place, 1, place % 2 ? ":" : "\u0663");
        for (qint64 hour :
             { 1774746000000, 1792890000000, 253402297200000 }) { // the last one: before the year 10000
            for (qint64 ms = hour - 3600000; ms <= hour + 7200000;
                 ms += ms % 60000 == 59999 ? 1 : 29999 + ms % 2) {
                stamps << QDateTime::fromMSecsSinceEpoch(ms).toString(form)
                       << QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC).toString(form);
                QCOMPARE(writeStamp(ms), QDateTime::fromMSecsSinceEpoch(ms).toString(form));
            }
        }
        for (const QString &stamp : stamps) {
            const QDateTime read = QDateTime::fromString(stamp, form);
            qint64 time = 0;
            QVERIFY2(readStamp(stamp, &time) == read.isValid(), qPrintable(stamp));
            QVERIFY2(!read.isValid() || time == read.toMSecsSinceEpoch(), qPrintable(stamp));
        }
    }

    void fullDiskLosesOnlyWhatFindsNoRoom()
    {
        const int start = read("log").size();
        rlimit limit = { rlim_t(start + 100), RLIM_INFINITY };
        setrlimit(RLIMIT_FSIZE, &limit);
        for (int i = 0; i < 1000; ++i)
            sink->onMessage(1, QString(200, 'x'));
        const int full = read("log").size();
        limit.rlim_cur = RLIM_INFINITY;
        setrlimit(RLIMIT_FSIZE, &limit);
        sink->onMessage(1, QString(100, 'y'));
        const QByteArray line = "[00000] WW " + QByteArray(200, 'x') + '\n', rest = read("log").mid(start);
        QVERIFY(full == start + 100 && rest.size() < 100 * line.size());
        QCOMPARE(rest, line.repeated(rest.count('\n') - 1) + "[00000] WW " + QByteArray(100, 'y') + '\n');
    }

    // Messages of other threads are queued for the main thread. A message after the destruction of the
    // Logging object is dropped, and one before its creation is fatal.
    void messagesOfOtherThreadsAndWithoutSink()
    {
        QScopedPointer<QThread> talker(QThread::create([] {
            for (int i = 0; i < 9; ++i)
                sendMessage(QtWarningMsg, QString::number(i));
        }));
        talker->start();
        QVERIFY(talker->wait());
        sendMessage(QtCriticalMsg, "main");
        sink.reset(); // writes the queued lines
        messageHandler(QtCriticalMsg, "too late");
        transcript = log();

        Logging::closed = false;
        if (fork() == 0) {
            dup2(creat("stderr", 0600), 2);
            logWarning() << "x";
            _exit(0);
        }
        wait(0);
        const QRegularExpression fatal("fatal error: \\(.{23}\\) keepwatch      : no Logging instance\n");
        QVERIFY(fatal.match(read("stderr")).capturedStart() == 0);
    }

    void settings()
    {
        write("zarn5_gui", "");
        write("zarn5_uartinterface", "");
        write("odd", "[gui\n\xff[uartinterface]\n=\nwait @Variant(\\0)\n%%");
        QVERIFY(QFile::remove(QSettings().fileName()) && QFile::copy("odd", QSettings().fileName()));
        dog.reset(new Watchdog(names, "gui"));
        note("defaults");
        QCOMPARE(dog->serviceWatcher.watchedServices(), QStringList({ gui, "com.qel.zarn5.uartinterface" }));
        for (const QVariant &value : QVariantList { 2, -1, 0, "true", "" }) {
            QSettings().setValue("gui/path", value.toString() + "none");
            QSettings().setValue("uartinterface/start", value);
            QSettings().setValue("uartinterface/wait", value);
            dog.reset(new Watchdog(names, "gui"));
            QCOMPARE(dog->serviceWatcher.watchedServices(), QStringList("com.qel.zarn5.uartinterface"));
            note('"' + value.toString() + '"');
        }
        QSettings().setValue("uartinterface/wait", 1);
        // With an invalid bus name, libdbus would abort the process. A list reads as an empty text.
        for (const QVariant &service : QVariantList { "", "..", "1.2", ":1.1", "a.b'c", "a.\u00fc", "nodots",
                                                      "a." + QString(254, 'b'), names }) {
            QSettings().setValue("uartinterface/service", service);
            dog.reset(new Watchdog(names, "gui"));
            dog->onCyclicTimer();
            QVERIFY(!dog->modules[0]->interface && dog->modules[0]->service == service.toString());
            QVERIFY(dog->serviceWatcher.watchedServices().isEmpty());
        }
        // Qt warns of a malformed value. The warning needs the Logging object that reads the settings.
        write("odd", "[logging]\nx=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\x4zzz\\0)\n");
        QVERIFY(QFile::remove(QSettings().fileName()) && QFile::copy("odd", QSettings().fileName()));
        sink.reset();
        Logging::closed = false;
        sink.reset(new Logging);
    }

    void passes()
    {
        for (quint32 state = 0; state <= 9; ++state) {
            for (bool onBus : { false, true }) {
                build(onBus, state);
                dog->modules[0]->outputBytes = 9;
                dog->onCyclicTimer();
                note(QString("state %1, %2").arg(state).arg(onBus ? "both on the bus" : "nobody there"));
            }
        }
        build(false, Watchdog::StartupWait);
        dog->modules[0]->wait = dog->modules[1]->wait = false;
        dog->onCyclicTimer();
        note("nobody is awaited");
        for (quint32 state : { 2, 5 }) {
            build(false, state);
            dog->modules[1]->start = false;
            dog->onCyclicTimer();
            note("one is started by something else");
            build(true, state);
            QFile::setPermissions("zarn5_gui", QFile::ReadOwner);
            dog->onCyclicTimer();
            note("a launch fails");
            const QProcess *running = dog->modules[1]->process;
            QFile::setPermissions("zarn5_gui", QFile::Permissions(0x7755));
            dog->modules[0]->crashCount = 3;
            dog->onCyclicTimer();
            note("and is repeated");
            QVERIFY(dog->modules[1]->process == running);
        }
        dog.reset();
        transcript += log().mid(noted).remove(folder->path());
    }

    void outputIsCutOffBehindTheLimit()
    {
        const Module *module = launch(
            false, Watchdog::Running,
            "w() { until [ -e $1 ]; do sleep 0.02; done; }; printf '\\374\\0\\n\\nb' >&2; w go; "
            "head -c 99995 /dev/zero | tr '\\0' x; w over; printf 'over\\nlost'; w more; echo lost; exit 3");
        WAIT_FOR(module->outputBytes == 5);
        note("lines");
        write("go", "");
        WAIT_FOR(module->outputBytes == 100000);
        noted = log().size();
        write("over", "");
        WAIT_FOR(module->outputBytes > 100000);
        note("above");
        write("more", "");
        WAIT_FOR(!module->process);
        note("end");
    }

    // Of three kills, one is slow. pgrep is not called for an empty name and for an external module.
    void staleProcesses()
    {
        write("pgrep", "#!/bin/sh\necho pgrep \"$@\" >>asked; printf 1; sleep 0.5; printf '1\\n\\n22\\n33'");
        write("kill", "#!/bin/sh\necho kill \"$@\" >>asked; [ $2 != 22 ] || exec sleep 1");
        const QByteArray path = qgetenv("PATH");
        qputenv("PATH", folder->path().toLocal8Bit() + ':' + path);
        const QStringList files = { ".hidden", "off", "zarn5_uartinterface.v1.2" };
        for (const QString &name : files) {
            write(name, "");
            QSettings().setValue(name + "/path", name);
        }
        QSettings().setValue("off/start", 0);
        dog.reset(new Watchdog(files, ""));
        // On a busy machine, the other kills can be slow, too.
        int rounds = 0;
        do {
            QFile::remove("asked");
            noted = log().size();
            dog->startupKill();
        } while (log().mid(noted).count("unable to kill") > 1 && ++rounds < 20);
        qputenv("PATH", path);
        note(read("asked"));
    }

    void servicesComeAndGo()
    {
        build(true, Watchdog::Pausing);
        const QPointer<QDBusInterface> first = dog->modules[0]->interface;
        dog->onServiceRegistered(gui);
        QVERIFY(!first && dog->modules[0]->interface->isValid());
        dog->serviceWatcher.blockSignals(true);
        bus.unregisterService(gui);
        WAIT_FOR(!dog->modules[0]->interface->isValid());
        dog->onCyclicTimer();
        QVERIFY(!dog->modules[0]->interface->lastError().isValid()); // no call has failed, so there was none
        note("gone");
        dog->onServiceRegistered(gui);
        note("registered, but gone: " + bus.lastError().message());
        for (quint32 state = 0; state <= 9; ++state) {
            build(true, state);
            dog->onServiceUnregistered(gui);
            note(QString("lost in state %1").arg(state));
        }
        for (quint32 state : { 7, 4, 8 }) {
            const QPointer<QProcess> process = launch(true, state)->process;
            dog->onServiceUnregistered(gui);
            QVERIFY(process); // not yet deleted, because its own signal is the caller
            note(QString("lost in state %1, with a process").arg(state));
        }
    }

    void ends()
    {
        const QByteArray commands[] = { "exit 3", "exit 3", "exit 0", "exit 0", "kill -9 $$",
                                        "exit 0", "exit 0", "exit 0", "exit 3", "kill -9 $$" };
        for (quint32 state = 0; state <= 9; ++state) {
            Module *module = launch(true, state, "until [ -e go ]; do sleep 0.02; done\n" + commands[state]);
            const QPointer<QProcess> process = module->process;
            module->crashCount = dog->modules[1]->crashCount = 5;
            module->crashCountTimer.stop();
            write("go", "");
            WAIT_FOR(!module->process && !process);
            note(QString("%1 in state %2").arg(QString(commands[state])).arg(state));
            QVERIFY(QFile::remove("go"));
        }
        for (const Module *module : { dog->modules[1], dog->modules[0] }) {
            QMetaObject::invokeMethod(const_cast<QTimer *>(&module->crashCountTimer), "timeout");
            note("a quiet time for " + module->service);
        }
    }

    // The bus daemon reports the exit late. The report must not be attributed to the next process.
    void aLateLossIsServedAheadOfTheLaunch()
    {
        const QString module = QCoreApplication::applicationDirPath() + "/demo/zarn5_gui";
        const auto haltBus = [](const QString &command) {
            ::kill(qgetenv("BUS_PID").toInt(), SIGSTOP);
            const QString script("sleep 0.1; " + command + " sleep 0.1; kill -CONT $BUS_PID");
            QProcess::startDetached("sh", { "-c", script });
        };
        build(false, Watchdog::StartupKill);
        ChildProcess stale;
        stale.start(module, QStringList());
        WAIT_FOR(dog->modules[0]->interface);
        // The bus daemon notices the exit after the last thread has ended.
        haltBus(QString("kill -9 %1; while grep -qsv ') [ZX]' /proc/%1/task/*/stat; do sleep 0.02; done;")
                    .arg(stale.processId()));
        dog->startupLaunch();
        note("at the start");
        Module *lost = launch(false, Watchdog::Running, "exec " + module.toLocal8Bit());
        WAIT_FOR(lost->interface && lost->outputBytes);
        note("again");
        haltBus(QString());
        lost->process->kill();
        QVERIFY(lost->process->waitForFinished());
        note("after a crash");
    }

    void reportAndShutdown()
    {
        for (const QString row : { "Name:\tx\n\n vmSize: 1 kB\nVmSize:\t    1234 kB\nVmSize: 5 kB\n|1234 kB",
                                   "VmSize:\t1234567 kB\n|234567 kB", "VmPeak:\t  1234 kB\n|not watched" }) {
            write("status", row.section('|', 0, 0).toLatin1());
            QString memory("not watched");
            Watchdog::readMemory("status", &memory);
            QCOMPARE(memory, row.section('|', 1));
        }
        Module *module = launch(true, Watchdog::Reestablishing);
        module->crashCount = 2;
        dog->onStatusTimer();
        note("not yet");
        dog->state = Watchdog::Running;
        QMetaObject::invokeMethod(&dog->statusTimer, "timeout");
        dog->disconnectModule(dog->modules[1]);
        dog->onStatusTimer();
        note("reports");
        dog->forceShutdown();
        note("shutdown");
    }
};

// Off a stage, the tests would overwrite the settings of the user and kill modules that are at work.
static bool isOnStage()
{
    QFile environment("/proc/1/environ");
    const QByteArray stage = qgetenv("STAGE");
    return !stage.isEmpty() && stage == qgetenv("XDG_CONFIG_HOME") && environment.open(QIODevice::ReadOnly)
        && environment.readAll().split('\0').contains("STAGE=" + stage);
}

int main(int argc, char **argv)
{
    if (!isOnStage()) {
        fputs("inside: runs only on a stage: tests/stage build/inside\n", stderr);
        return 2;
    }
    QCoreApplication application(argc, argv);
    InsideTest test;
    const QStringList toStderr = { "-o", "/dev/stderr,txt" }; // standard output belongs to the log
    return QTest::qExec(&test, application.arguments() + toStderr);
}
#include "inside.moc"
