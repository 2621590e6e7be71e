// Drives the parts of keepwatch inside this process, on a private bus, slot by slot.
#define main keepwatchMain
#include "main.cpp"
#undef main

#include <QDBusInterface>
#include <QDBusVirtualObject>
#include <QPointer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <cstdarg>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>

// Stand in for the C library's, which nobody would hear here.
static QByteArray heard;
void openlog(const char *name, int option, int facility)
{
    heard += name + QString(" %1 %2\n").arg(option).arg(facility).toLatin1();
}
void syslog(int priority, const char *format, ...)
{
    va_list texts;
    va_start(texts, format);
    heard += QByteArray::number(priority) + va_arg(texts, const char *);
    va_end(texts);
}

// Stands on the bus for all modules: answers every call and notes it ("gui run 0").
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

#define WAIT_FOR(condition) QTRY_VERIFY_WITH_TIMEOUT(condition, 20000)
#define VERIFY_LOG(condition) QVERIFY2(log().condition, qPrintable(log()))

class InsideTest : public QObject
{
    Q_OBJECT

    QScopedPointer<QTemporaryDir> folder;
    QScopedPointer<Logging> sink;
    QScopedPointer<Watchdog> dog;
    Recorder recorder;
    QDBusConnection bus = QDBusConnection::sessionBus();
    const QStringList names = { "gui", "uartinterface" };
    const QString gui = "com.qel.zarn5.gui", uart = "com.qel.zarn5.uartinterface";

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

    // What the log holds behind its first line: level (II for info) and text, one blank for white space.
    static QString log()
    {
        const QRegExp head("\\[[-0-9]+\\] (..) \\([-0-9: .]{23}\\) keepwatch      : ([a-z.]+ +, +\\d+:)?");
        const QString text = QString::fromUtf8(read("log")).section('\n', 1).replace("]    (", "] II (");
        return QString(text).replace(head, "\\1 ").replace(QRegExp("pid \\d+"), "pid N").simplified();
    }

    // A table of two modules, on the bus or not, in `state`. The timer ticks for no test.
    void build(bool onBus, quint32 state, const QByteArray &command = "exec sleep 1000")
    {
        write("zarn5_gui", "#!/bin/sh\n" + command);
        write("zarn5_uartinterface", "#!/bin/sh\nexec sleep 1000");
        for (const QString &service : { gui, uart })
            onBus ? bus.registerService(service) : bus.unregisterService(service);
        dog.reset(new Watchdog(names, "gui"));
        dog->cyclicTimer.stop();
        dog->cyclicTimer.setInterval(77);
        for (Module *module : dog->modules)
            dog->connectModule(module);
        dog->state = state;
        recorder.calls.clear();
    }

    // The first of them launched.
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
    }

    void init()
    {
        folder.reset(new QTemporaryDir);
        QDir::setCurrent(folder->path());
        QSettings().clear();
        QSettings().setValue("logging/logfile", "log");
        QSettings().setValue("logging/telegramfile", "telegrams");
        qInstallMessageHandler(0); // the test library's, which Qt would prefer
        qInstallMsgHandler(messageHandler);
        QVERIFY(freopen("out", "w", stdout));
        sink.reset(new Logging);
    }

    void cleanup()
    {
        dog.reset();
        sink.reset();
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
        const QString rest("II NODEBUG:x WW -->:x "), trace("-> <- -->:x ");
        QCOMPARE(log() + ' ', "++ nodebug:x " + trace + rest + "++ nodebug:x " + rest + trace + rest + rest);
        LogStatement(QtCriticalMsg, logTag("%1,%2:", "/a/longer-than-twenty-characters.cpp", 7))
            << "bare\xfc" << QString("say \"hi\"") << QByteArray("a\t\xff") << -1 << (qint64(1) << 40);
        QVERIFY(read("log").endsWith("longer-than-twenty-c,    7: bare\xc3\x83\xc2\xbc \"say \"hi\"\" \"a\t"
                                     "\xc3\x83\xc2\xbf\" -1 1099511627776 \n"));
    }

    // The second sink empties the files of the first.
    void levelsDelaysAndSyslog()
    {
        heard.clear();
        QSettings().setValue("logging/syslog", "False");
        sink.reset();
        sink.reset(new Logging);
        const QDateTime now = QDateTime::currentDateTime();
        for (int ahead : { 900, -1000000 })
            sink->onMessage(2, now.addMSecs(ahead).toString("(yyyy-MM-dd hh:mm:ss.zzz)"));
        sink->onMessage(2, now.toString("(yyyy-MM-dd hh:mm:ss)"));
        for (uint level = 0; level <= 6; ++level)
            sink->onMessage(level, level ? QString(QChar(0xfc)) : QString());
        sink->onMessage(2, QChar(0xfeff) + QString("\u20ac") + QChar() + "lost");
        const QRegExp form(
            "torvi 11 136\n6\\[0\\d{4}\\]    \\(S\\) keepwatch      : logging.cpp         , +\\d+: "
            "\\*{8}starting new logging session\\*{8} \n3\\[-0\\d{3}\\] EE \\(S\\)\n"
            "3\\[1000\\d{3}\\] EE \\(S\\)\n3\\[00000\\] EE \\([^S]{19}\\)\n"
            "6\\[00000\\] \\+\\+ \n4\\[00000\\] WW \u00fc\n3\\[00000\\] EE \u00fc\n6\\[00000\\] -> \u00fc\n"
            "6\\[00000\\] <- \u00fc\n6\\[00000\\]    \u00fc\n3\\[00000\\] EE \ufeff?\u20ac\n");
        const QString text = QString::fromUtf8(heard);
        QVERIFY2(form.exactMatch(QString(text).replace(QRegExp("\\(.{23}\\)"), "(S)")), heard);
        QCOMPARE(QString::fromUtf8(read("log")), text.section('\n', 1).remove(QRegExp("\\d(?=\\[)")));
        sink->onTelegrams("a");
        sink->onTelegrams(QChar(0xfc));
        QCOMPARE(read("telegrams"), QByteArray("a\xc3\xbc"));
        fflush(stdout);
        QVERIFY(!read("out").contains("EE"));
    }

    // In a zone whose clock changes amid a minute: an hour that is skipped, one that is repeated.
    void stampsAreTheLibrarysToTheMillisecond()
    {
        const QString form("yyyy-MM-dd hh:mm:ss.zzz"), plain("2026-01-01 10:00:00.000");
        QStringList stamps
            = { "2026-02-29 10:00:00.000", "2026-01-01 24:00:00.000", "2026-01-01 10:00:60.000",
                "2026-01-01 10:00: 5.000", "1893-04-01 00:06:10.000", plain + "0" };
        for (int place = 0; place < 23; ++place)
            stamps << QString(plain).replace(place, 1, place % 2 ? "-" : "\u0663");
        for (qint64 hour : { 1774746000000, 1792890000000, 253402297200000 }) { // the last before year 10000
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

    // Each through the queue of the main thread. Behind the sink's end a message is dropped; ahead of its
    // beginning it is fatal.
    void messagesOfOtherThreadsAndWithoutSink()
    {
        QScopedPointer<QThread> talker(QThread::create([] {
            for (int i = 0; i < 9; ++i)
                sendMessage(QtWarningMsg, QString::number(i));
        }));
        talker->start();
        QVERIFY(talker->wait());
        sendMessage(QtCriticalMsg, "main");
        sink.reset(); // serves what still waits
        messageHandler(QtCriticalMsg, "too late");
        QCOMPARE(log(), QString("EE main WW 0 WW 1 WW 2 WW 3 WW 4 WW 5 WW 6 WW 7 WW 8"));

        Logging::closed = false;
        if (fork() == 0) {
            dup2(creat("stderr", 0600), 2);
            logWarning() << "x";
            _exit(0);
        }
        wait(0);
        const QRegExp fatal("fatal error: \\(.{23}\\) keepwatch      : no Logging instance\n");
        QVERIFY(fatal.indexIn(read("stderr")) == 0);
    }

    void settingsAndTheirDefaults()
    {
        const auto table = [this] {
            QString text;
            for (const Module *module : dog->modules) {
                const QTimer &timer = module->crashCountTimer;
                text += QString("%1 %2 %3%4 %5")
                            .arg(module->path.mid(folder->path().size()), module->service)
                            .arg(module->start)
                            .arg(module->wait)
                            .arg(timer.interval())
                    + (timer.isActive() ? "" : "stopped")
                    + (module == dog->statusModule ? " status\n" : "\n");
            }
            return text;
        };
        write("zarn5_gui", "");
        write("zarn5_uartinterface", "");
        write("odd", "[gui\n\xff[uartinterface]\n=\nwait @Variant(\\0)\n%%");
        QVERIFY(QFile::remove(QSettings().fileName()) && QFile::copy("odd", QSettings().fileName()));
        dog.reset(new Watchdog(names, "gui"));
        QCOMPARE(table(),
                 "/zarn5_gui " + gui + " 11 300000 status\n/zarn5_uartinterface " + uart + " 11 300000\n");
        QCOMPARE(dog->serviceWatcher.watchedServices(), QStringList({ gui, uart }));
        QVERIFY(dog->state == 0 && dog->cyclicTimer.isActive() && dog->cyclicTimer.interval() == 0);
        QVERIFY(!dog->statusTimer.isActive() && dog->statusTimer.interval() == 60000);
        for (const QTimer *timer :
             { &dog->cyclicTimer, &dog->statusTimer, &dog->modules[1]->crashCountTimer })
            QVERIFY(!timer->isSingleShot() && timer->timerType() == Qt::PreciseTimer);

        QSettings().setValue("gui/path", "none");
        for (const char *key : { "start", "wait" }) {
            QSettings().setValue("uartinterface/start", 2);
            QSettings().setValue("uartinterface/wait", -1);
            QSettings().setValue(QString("uartinterface/") + key, "true");
            QSettings().setValue("uartinterface/service", names); // a list is no text
            dog.reset(new Watchdog(names, "gui"));
            QCOMPARE(table(), QString("/zarn5_uartinterface  %1 300000\n").arg(*key == 's' ? "01" : "10"));
        }
        QCOMPARE(log(), QString("WW file none does not exist WW file none does not exist"));

        // Asked for a name that is none, the bus library would end the process.
        for (const QString &service :
             { QString(), QString(".."), QString("1.2"), QString(":1.1"), QString("a.b'c"), QString("a.\xfc"),
               QString("nodots"), "a." + QString(254, 'b') }) {
            QSettings().setValue("uartinterface/service", service);
            build(true, Watchdog::Running);
            QVERIFY(!dog->modules[0]->interface);
        }
    }

    void passes()
    {
        enum Stage { Nothing = 0, OnBus = 1, NoWait = 2, NoLaunch = 4 };
        const QString quit("gui quit,uartinterface quit"), pause("gui run 2,uartinterface run 2");
        const QString run("gui run 0,uartinterface run 0,gui run 1,uartinterface run 1"),
            mem(",not watched,0");
        const struct
        {
            const char *name;
            quint32 state;
            int stage;
            QString calls;
            quint32 next;
            int interval; // 77 before
        } rows[] = {
            { "quit, nobody there", 0, Nothing, "", 1, 77 },
            { "quit", 0, OnBus, quit, 1, 3000 },
            { "kill", 1, OnBus, "", 2, 100 },
            { "launch", 2, Nothing, "", 3, 5000 },
            { "launch fails", 2, NoLaunch, "", 2, 5000 },
            { "wait", 3, Nothing, "", 3, 77 },
            { "wait for none", 3, NoWait, "", 4, 20000 },
            { "wait, all there", 3, OnBus, run + ",gui updateKeepwatchInfo " + gui + mem + ',' + uart + mem,
              4, 20000 },
            { "running", 4, OnBus, "", 4, 77 },
            { "pause", 5, OnBus, pause, 6, 5000 },
            { "pause, launch fails", 5, OnBus | NoLaunch, pause, 5, 5000 },
            { "reestablish", 6, Nothing, "", 6, 5000 },
            { "reestablish, all there", 6, OnBus, run, 4, 20000 },
            { "down", 9, OnBus, "", 9, 77 },
        };
        for (const auto &row : rows) {
            build(row.stage & OnBus, row.state);
            QFile::setPermissions("zarn5_gui", QFile::Permissions(row.stage & NoLaunch ? 0x4444 : 0x7755));
            dog->modules[0]->wait = dog->modules[1]->wait = !(row.stage & NoWait);
            dog->onCyclicTimer();
            QVERIFY2(recorder.calls.join(',') == row.calls, row.name);
            QVERIFY2(dog->state == row.next && dog->cyclicTimer.interval() == row.interval, row.name);
            QVERIFY2(dog->statusTimer.isActive() == (row.state == 3 && row.next == 4), row.name);
            QVERIFY2(bool(dog->modules[0]->interface) == (row.stage & OnBus && row.state != 1), row.name);
            if (!(row.stage & NoLaunch))
                continue;
            const QProcess *running = dog->modules[1]->process;
            QFile::setPermissions("zarn5_gui", QFile::Permissions(0x7755));
            dog->modules[0]->crashCount = 3;
            dog->modules[0]->outputBytes = 100000;
            dog->onCyclicTimer();
            QCOMPARE(dog->modules[0]->outputBytes, quint64(0));
            QCOMPARE(dog->modules[0]->process->arguments(), QStringList("3"));
            QVERIFY2(dog->modules[1]->process == running && dog->state == row.next + 1, row.name);
        }
    }

    void outputIsCutOffBehindTheLimit()
    {
        const Module *module
            = launch(false, Watchdog::Running,
                     "w() { until [ -e $1 ]; do sleep 0.02; done; }; printf 'a\\n\\nb' >&2; w go; "
                     "head -c 99996 /dev/zero | tr '\\0' x; w over; printf over; w more; echo lost; exit 3");
        WAIT_FOR(module->outputBytes == 4);
        const QString head("WW \"" + gui + "\" : \"");
        VERIFY_LOG(endsWith("N " + head + "a \" " + head + " \" " + head + "b\""));
        write("go", "");
        WAIT_FOR(module->outputBytes == 100000);
        QVERIFY(!log().contains("taliking"));
        write("over", "");
        const QString cut(head + "over\" EE \"" + gui + "\" is taliking too much. Closing std-channels!");
        WAIT_FOR(log().endsWith(cut));
        write("more", "");
        WAIT_FOR(log().endsWith(cut + " EE \"zarn5_gui\" ended unexpectedly with exit status 0"));
    }

    // One of the three that pgrep finds takes its time. Not asked for: what has no name or is not started.
    void staleProcessesAreAskedForAndKilled()
    {
        write("pgrep", "#!/bin/sh\necho pgrep \"$@\" >>asked; printf 1; sleep 0.1; printf '1\\n\\n22\\n33'");
        write("kill", "#!/bin/sh\necho kill \"$@\" >>asked; [ $2 != 22 ] || exec sleep 1000");
        const QByteArray path = qgetenv("PATH");
        qputenv("PATH", folder->path().toLocal8Bit() + ':' + path);
        for (const QString name : { ".hidden", "off", "zarn5_uartinterface.v1.2" }) {
            write(name, "");
            QSettings().setValue(name + "/path", name);
        }
        QSettings().setValue("off/start", 0);
        dog.reset(new Watchdog({ ".hidden", "off", "zarn5_uartinterface.v1.2" }, ""));
        dog->startupKill();
        qputenv("PATH", path);
        QCOMPARE(read("asked"), QByteArray("pgrep zarn5_uartinter\nkill -9 11\nkill -9 22\nkill -9 33\n"));
        const QString kill(" WW have to kill unresponsive process zarn5_uartinterface");
        QCOMPARE(log(),
                 "II startup 2/4 - killing unresponsive processes" + kill + kill
                     + " EE unable to kill process zarn5_uartinterface WW QProcess: Destroyed while process "
                       "(\"kill\") is still running."
                     + kill);
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
        dog->onCyclicTimer(); // calls nobody who has gone
        QVERIFY(!dog->modules[0]->interface->lastError().isValid());
        dog->onServiceRegistered(gui);
        QVERIFY(!dog->modules[0]->interface);
        VERIFY_LOG(endsWith(("services EE " + bus.lastError().message()).simplified()));

        const Module *module = launch(false, Watchdog::ShutdownQuit);
        const QPointer<QProcess> process = module->process;
        dog->onServiceUnregistered(gui);
        QVERIFY(module->process);
        dog->state = Watchdog::Running;
        dog->onServiceUnregistered(gui);
        QVERIFY(!module->process && process && module->crashCount == 1 && dog->cyclicTimer.interval() == 0);
    }

    // In every state: the service of gui is lost, its process ends.
    void lossAndEnd()
    {
        const QString crashed("EE \"zarn5_gui\" crashed "), ended(" \"zarn5_gui\" ended with exit status ");
        const QString unexpected("EE \"zarn5_gui\" ended unexpectedly with exit status ");
        const struct
        {
            quint32 state;
            const char *end;
            QString says;
        } rows[] = {
            { 0, "exit 0", unexpected + '0' },
            { 1, "exit 0", unexpected + '0' },
            { 2, "exit 0", unexpected + '0' },
            { 3, "exit 3", unexpected + '0' },
            { 4, "kill -9 $$", crashed + unexpected + '1' },
            { 5, "exit 0", unexpected + '0' },
            { 6, "exit 0", unexpected + '0' },
            { 7, "exit 0", "II" + ended + '0' },
            { 8, "exit 3", "WW" + ended + '0' },
            { 9, "kill -9 $$", crashed + "WW" + ended + '1' },
        };
        for (const auto &row : rows) {
            const bool closed = row.state <= 2 || row.state == 7, counts = row.state < 7;
            build(true, row.state);
            dog->onServiceUnregistered(gui);
            VERIFY_LOG(endsWith(closed ? "II connection to " + gui + " was closed"
                                       : "EE connection to " + gui + " was unexpectedly closed"));
            QVERIFY(!dog->modules[0]->interface && dog->modules[1]->interface);
            QCOMPARE(dog->state, closed ? row.state : quint32(Watchdog::Pausing));
            QCOMPARE(dog->cyclicTimer.interval(), 77);

            Module *module
                = launch(true, row.state, QByteArray("until [ -e go ]; do sleep 0.02; done\n") + row.end);
            Module *other = dog->modules[1];
            const QPointer<QProcess> process = module->process;
            module->crashCount = other->crashCount = 5;
            module->crashCountTimer.stop();
            write("go", "");
            WAIT_FOR(!module->process && !process);
            VERIFY_LOG(endsWith("N " + row.says));
            QCOMPARE(dog->state, counts ? quint32(Watchdog::Pausing) : row.state);
            QCOMPARE(dog->cyclicTimer.interval(), counts ? 0 : 77);
            QVERIFY(module->crashCount == 5 + counts && module->crashCountTimer.isActive() == counts);
            QVERIFY(!module->interface && other->interface);
            QMetaObject::invokeMethod(&module->crashCountTimer, "timeout");
            QVERIFY(module->crashCount == 0 && other->crashCount == 5 && QFile::remove("go"));
        }
    }

    // The bus notices an end late, and in the first case only once it has been asked for it. A launch
    // under way then would take the loss for its own.
    void aLateLossIsServedAheadOfTheLaunch()
    {
        const QString module = QCoreApplication::applicationDirPath() + "/demo/zarn5_gui";
        const auto haltBus = [](const QString &command) {
            ::kill(qgetenv("BUS_PID").toInt(), SIGSTOP);
            QProcess::startDetached("sh",
                                    { "-c", "sleep 0.1; " + command + " sleep 0.1; kill -CONT $BUS_PID" });
        };
        build(false, Watchdog::StartupKill);
        QProcess stale;
        stale.start(module, QStringList());
        WAIT_FOR(dog->modules[0]->interface);
        haltBus(QString("kill -9 %1;").arg(stale.processId()));
        dog->startupLaunch();
        VERIFY_LOG(contains("this session II connection to " + gui + " was closed II started"));

        Module *lost = launch(false, Watchdog::Running, "exec " + module.toLocal8Bit());
        WAIT_FOR(lost->interface);
        haltBus(QString());
        lost->process->kill();
        QVERIFY(lost->process->waitForFinished());
        VERIFY_LOG(endsWith("status 1 EE connection to " + gui + " was unexpectedly closed"));
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
        QVERIFY(recorder.calls.isEmpty());
        dog->state = Watchdog::Running;
        QMetaObject::invokeMethod(&dog->statusTimer, "timeout");
        dog->disconnectModule(dog->modules[1]);
        dog->onStatusTimer();
        const QString report("gui updateKeepwatchInfo com\\.qel\\.zarn5\\.gui,\\d+ kB,2");
        dog->forceShutdown();
        QVERIFY(
            QRegExp(report + ",com\\.qel\\.zarn5\\.uartinterface,not watched,0\\|" + report + "\\|gui quit")
                .exactMatch(recorder.calls.join("|")));
        QVERIFY2(
            log().endsWith("II shutdown 1/2 - shutting down modules II shutdown 2/2 - killing unresponsive "
                           "processes EE \"zarn5_gui\" crashed WW \"zarn5_gui\" ended with exit status 1 "
                           "II system was shutted down"),
            qPrintable(log()));
        QVERIFY(!module->process && !module->interface && dog->state == Watchdog::Down);
        QCOMPARE(dog->cyclicTimer.interval(), 20000);
    }
};

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    InsideTest test;
    return QTest::qExec(&test,
                        application.arguments() << "-o"
                                                << "/dev/stderr,txt"); // stdout is the log's
}
#include "inside.moc"
