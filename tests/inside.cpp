// Drives the parts of keepwatch inside this process, on a private bus, slot by slot.
#define main keepwatchMain
#include "main.cpp"
#undef main

#include <QDBusInterface>
#include <QDBusVirtualObject>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>

// Stands in for the C library's, which nobody would hear here.
static QByteArray heard;
void syslog(int priority, const char *, ...)
{
    heard += QByteArray::number(priority);
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

class InsideTest : public QObject
{
    Q_OBJECT

    QScopedPointer<QTemporaryDir> folder;
    QScopedPointer<Logging> sink;
    QScopedPointer<Watchdog> dog;
    Recorder recorder;
    QDBusConnection bus = QDBusConnection::sessionBus();
    const QStringList names = { "gui", "uartinterface" };

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

    // What the log holds behind its first line: no delay, stamp, name, tag; one blank for white space.
    static QString log()
    {
        const QRegExp head("\\[[-0-9]+\\] (..) \\([-0-9: .]{23}\\) keepwatch      : ([a-z.]+ +, +\\d+:)?");
        const QByteArray text = read("log");
        return QString::fromUtf8(text.mid(text.indexOf('\n'))).replace(head, "\\1 ").simplified();
    }

    // A table of two modules, on the bus or not, in `state`. The timer ticks for no test.
    void build(bool onBus, quint32 state, const QByteArray &gui = "exec sleep 1000")
    {
        write("zarn5_gui", "#!/bin/sh\n" + gui);
        write("zarn5_uartinterface", "#!/bin/sh\nexec sleep 1000");
        for (const QString &name : names)
            onBus ? bus.registerService("com.qel.zarn5." + name)
                  : bus.unregisterService("com.qel.zarn5." + name);
        dog.reset(new Watchdog(names, "gui"));
        dog->cyclicTimer.stop();
        for (Module *module : dog->modules)
            dog->connectModule(module);
        recorder.calls.clear();
        enter(state);
    }

    void enter(quint32 state)
    {
        dog->state = state;
        dog->cyclicTimer.setInterval(77);
    }

    // The first module alone, launched, in `state`.
    Module *launch(quint32 state, const QByteArray &gui = "exec sleep 1000")
    {
        build(false, Watchdog::StartupLaunch, gui);
        dog->modules[1]->start = false;
        dog->onCyclicTimer();
        enter(state);
        return dog->modules[0];
    }

private slots:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName("zarn5");
        QCoreApplication::setApplicationName("keepwatch");
        passAllMessages();
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
        sink.reset(new Logging);
    }

    void cleanup()
    {
        dog.reset();
        sink.reset();
    }

    void flagsDropOnlyDebugAndTrace()
    {
        for (int flags = 0; flags < 4; ++flags) {
            suppressDebug = flags & 1;
            suppressTrace = flags & 2;
            for (const char *text : { "nodebug:x", "-->:", "<--:-->:x", "NODEBUG:NODEBUG:x" })
                messageHandler(QtDebugMsg, text);
            messageHandler(QtWarningMsg, "-->:x");
            messageHandler(QtMsgType(4), "x");
        }
        LogStatement(QtCriticalMsg, logTag("%1,%2:", "/a/longer-than-twenty-characters.cpp", 7))
            << "bare\xfc" << QString("say \"hi\"") << QByteArray("a\t\xff") << -1 << (qint64(1) << 40);
        const QString info(" NODEBUG:x WW -->:x"), trace("-> <- -->:x");
        QCOMPARE(log(),
                 "++ nodebug:x " + trace + info + ' ' + trace + info + " ++ nodebug:x" + info + info
                     + " EE longer-than-twenty-c, 7: bare\u00c3\u00bc \"say \"hi\"\" \"a \u00c3\u00bf\" -1 "
                       "1099511627776");
        QVERIFY(read("log").endsWith("776 \n"));
    }

    void levelsAndDelaysAndSyslog()
    {
        const QDateTime now = QDateTime::currentDateTime();
        const QString form("(yyyy-MM-dd hh:mm:ss.zzz)");
        sink->onMessage(2, now.addMSecs(900).toString(form));
        sink->onMessage(2, now.addMSecs(-1000000).toString(form));
        sink->onMessage(2, now.toString("(yyyy-MM-dd hh:mm:ss)"));
        QSettings().setValue("logging/syslog", "False");
        QVERIFY(
            QRegExp("[^\n]+\n\\[-0\\d{3}\\] EE [^\n]+\n\\[1000\\d{3}\\] EE [^\n]+\n\\[00000\\] EE [^\n]+\n")
                .exactMatch(read("log")));
        sink.reset();
        sink.reset(new Logging);
        for (uint level = 0; level <= 6; ++level)
            sink->onMessage(level, level ? QString(QChar(0xfc)) : QString());
        QCOMPARE(heard, QByteArray("6643666")); // the first line is an info
        QVERIFY(read("log").endsWith(
            "\n[00000] ++ \n[00000] WW \xc3\xbc\n[00000] EE \xc3\xbc\n[00000] -> \xc3\xbc\n"
            "[00000] <- \xc3\xbc\n[00000]    \xc3\xbc\n"));
        for (const QString &text :
             { QString(QChar(0xfeff)) + "x", QString(QChar(0xd800)), QString("a\u20ac") + QChar() + "b" }) {
            const QString line = QString().sprintf("[%05i] EE %s\n", 0, text.toLocal8Bit().constData());
            sink->onMessage(2, text);
            QVERIFY2(read("log").endsWith('\n' + line.toLocal8Bit()), qPrintable(line));
        }
        sink->onTelegrams("a");
        sink->onTelegrams(QChar(0xfc));
        QCOMPARE(read("telegrams"), QByteArray("a\xc3\xbc"));
    }

    // In a zone whose clock changes amid a minute.
    void stampsAreTheLibrarysToTheMillisecond()
    {
        const QString form("yyyy-MM-dd hh:mm:ss.zzz");
        QStringList stamps
            = { "2026-02-29 10:00:00.000",      "2028-02-29 10:00:00.000", "2026-01-01 24:00:00.000",
                "2026-01-01 10:00:60.000",      "2026-01-01 10:00:-1.000", "2026-01-01 10:00: 5.000",
                "2026-01-01 10:00:00.00",       "2026-01-01 10:00:00,000", "2026-01-01 10:00:00.0000",
                "2026-01-01 10:00:00.00x",      " 026-01-01 10:00:00.000", "+026-01-01 10:00:00.000",
                "2026-01-01 10:00:0\u0663.000", "1893-04-01 00:06:10.000", "9999-12-31 23:59:59.999" };
        const qint64 changes[]
            = { 1774746000000, 1792890000000, 253402300800000 }; // spring, autumn, year 10000
        for (int i = 0; i < 3000; ++i) {
            const qint64 reach = i % 5 ? 8000000 : i % 4 ? 1 : changes[2] * 2; // near them or anywhere
            const qint64 time = changes[i % 3] - reach + qint64(2 * reach * (qrand() / (RAND_MAX + 1.0)));
            for (qint64 near : { time, time / 60000 * 60000, time / 60000 * 60000 + 59999, time + 777 }) {
                stamps << QDateTime::fromMSecsSinceEpoch(near).toString(form);
                QCOMPARE(writeStamp(near), stamps.last());
            }
            stamps << QString(stamps.last()).replace(qrand() % 23, 1, QString("0259:-. +")[qrand() % 9]);
        }
        for (int minute = 0; minute < 61; ++minute) { // an hour that is skipped, one that is repeated
            for (const char *second : { "03-29 %1:10", "03-29 %1:50", "10-25 %1:10", "10-25 %1:50" })
                stamps << "2026-" + QString(second).arg(QTime(2, 0).addSecs(60 * minute).toString("hh:mm"))
                        + ".123";
        }
        for (const QString &stamp : stamps) {
            const QDateTime read = QDateTime::fromString(stamp, form);
            qint64 time = 0;
            QVERIFY2(readStamp(stamp, &time) == read.isValid(), qPrintable(stamp));
            QVERIFY2(!read.isValid() || time == read.toMSecsSinceEpoch(), qPrintable(stamp));
            QCOMPARE(writeStamp(time), QDateTime::fromMSecsSinceEpoch(time).toString(form));
        }
    }

    void fullDiskLosesOnlyWhatFindsNoRoom()
    {
        const int start = read("log").size();
        rlimit limit = { rlim_t(start + 100), RLIM_INFINITY };
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limit);
        sink->onMessage(1, "fits");
        const size_t before = mallinfo2().uordblks;
        for (int i = 0; i < 20000; ++i)
            sink->onMessage(1, QString(200, 'x'));
        QVERIFY(mallinfo2().uordblks < before + 100000);
        limit.rlim_cur = RLIM_INFINITY;
        setrlimit(RLIMIT_FSIZE, &limit);
        sink->onMessage(1, QString(100, 'y'));
        QVERIFY(read("log").endsWith("x\n[00000] WW " + QByteArray(100, 'y') + '\n'));
    }

    void otherThreadsReachTheSinkInOrder()
    {
        QString expected;
        QScopedPointer<QThread> talker(QThread::create([] {
            for (int i = 0; i < 500; ++i)
                sendMessage(QtWarningMsg, QString::number(i));
        }));
        talker->start();
        for (int i = 0; i < 500; ++i) {
            sendMessage(QtCriticalMsg, "main");
            expected += QString("WW %1 ").arg(i);
        }
        talker->wait();
        sink.reset(); // serves what still waits
        messageHandler(QtCriticalMsg, "too late");
        QCOMPARE(log().remove("EE main").simplified(), expected.trimmed());
    }

    void noSinkIsFatalWithStampAndName()
    {
        sink.reset();
        Logging::closed = false;
        if (fork() == 0) {
            dup2(creat("stderr", 0600), 2);
            signal(SIGABRT, SIG_DFL);
            logWarning() << "x";
            _exit(0);
        }
        int status = 0;
        wait(&status);
        QCOMPARE(WTERMSIG(status), SIGABRT);
        QVERIFY(QRegExp("fatal error: \\(.{23}\\) keepwatch      : no Logging instance\n")
                    .exactMatch(read("stderr")));
    }

    void oddSettingsAndServiceNames()
    {
        QSettings().setValue("gui/path", "none");
        QSettings().setValue("uartinterface/start", "true");
        QSettings().setValue("uartinterface/wait", -1);
        QSettings().setValue("uartinterface/service", names);
        build(false, Watchdog::Running);
        QCOMPARE(log(), QString("WW file none does not exist"));
        const Module *module = dog->modules[0];
        QCOMPARE(module->path, folder->path() + "/zarn5_uartinterface");
        const QList<const QTimer *> timers
            = { &module->crashCountTimer, &dog->statusTimer, &dog->cyclicTimer };
        for (const QTimer *timer : timers)
            QCOMPARE(timer->timerType(), Qt::PreciseTimer);
        QVERIFY(!module->start && module->wait && !dog->statusModule && module->service.isEmpty());
        write(QSettings().fileName(),
              QByteArray("[gui\n\xff\0[uartinterface]\n=\nwait=@Variant(\\0)\n%%", 46));
        build(false, Watchdog::Running);
        QCOMPARE(dog->modules.size(), 2);

        for (const QString &service :
             { QString(), QString(".."), QString("1.2"), QString(":1.1"), QString("a.b'c"), QString("a.\xfc"),
               QString("nodots"), "a." + QString(254, 'b') }) {
            QSettings().setValue("gui/service", service);
            build(true, Watchdog::Running);
            QVERIFY(!dog->modules[0]->interface && dog->modules[1]->interface);
            launch(Watchdog::Running)->process->kill(); // its end must not ask the bus for that name
            QTRY_COMPARE(dog->modules[0]->crashCount, 1);
        }
    }

    // What a pass calls, and which state and interval (77 before) follow.
    void passes()
    {
        const QString quit("gui quit, uartinterface quit"), run("gui run %1, uartinterface run %1");
        const QString release = run.arg(0) + ", " + run.arg(1);
        for (const QString &row :
             { "0+: " + quit + " 1 3000", QString("0-:  1 77"), QString("3-:  3 77"),
               "3+: " + release + ", gui updateKeepwatchInfo 4 20000", QString("4+:  4 77"),
               QString("6-:  6 5000"), "6+: " + release + " 4 20000", "7+: " + quit + " 8 3000",
               QString("8+:  9 20000"), QString("9+:  9 77") }) {
            build(row[1] == '+', row.left(1).toUInt());
            dog->onCyclicTimer();
            const QString calls = recorder.calls.join(", ").section(" com", 0, 0);
            const int interval = dog->cyclicTimer.interval();
            QCOMPARE(row.left(4) + QString("%1 %2 %3").arg(calls).arg(dog->state).arg(interval), row);
            QCOMPARE(dog->statusTimer.isActive(), row.startsWith("3+"));
        }
        QCOMPARE(log().count("still waiting for com.qel.zarn5.uartinterface"), 2);
    }

    void failedLaunchRepeatsForThatModuleOnly()
    {
        for (quint32 state : { Watchdog::StartupLaunch, Watchdog::Pausing }) {
            build(true, state);
            QFile::setPermissions("zarn5_gui", QFile::ReadOwner);
            dog->onCyclicTimer();
            QProcess *running = dog->modules[1]->process;
            QVERIFY(!dog->modules[0]->process && running && dog->state == state);
            QFile::setPermissions("zarn5_gui", QFile::Permissions(0x7755));
            dog->modules[0]->crashCount = 3;
            dog->modules[0]->outputBytes = 100000;
            dog->onCyclicTimer();
            QCOMPARE(dog->modules[0]->outputBytes, quint64(0));
            QCOMPARE(dog->modules[0]->process->arguments(), QStringList("3"));
            QVERIFY(dog->modules[1]->process == running && dog->state == state + 1);
            QCOMPARE(dog->cyclicTimer.interval(), 5000);
        }
        QVERIFY(log().contains("EE unable to start process zarn5_gui"));
        QCOMPARE(recorder.calls.join(","),
                 QString("gui run 2,uartinterface run 2,gui run 2,uartinterface run 2"));
    }

    void outputIsCutOffBehindTheLimit()
    {
        const Module *module
            = launch(Watchdog::Running,
                     "yes 123456789 | head -n 10000; until [ -e go ]; do sleep 0.02; done; "
                     "printf over; until [ -e more ]; do sleep 0.02; done; echo lost; exit 3");
        QTRY_COMPARE(module->outputBytes, quint64(100000));
        QVERIFY(!log().contains("taliking"));
        write("go", "");
        const QString cut("WW \"com.qel.zarn5.gui\" : \"over\" EE \"com.qel.zarn5.gui\" is taliking too much."
                          " Closing std-channels!");
        QTRY_VERIFY(log().endsWith(cut));
        write("more", "");
        QTRY_VERIFY(log().endsWith(cut + " EE \"zarn5_gui\" ended unexpectedly with exit status 0"));
    }

    void staleProcessesAreAskedForAndKilled()
    {
        write("pgrep", "#!/bin/sh\necho pgrep \"$@\" >>asked; printf 1; sleep 0.1; printf '1\\n\\n22\\n33'");
        write("kill", "#!/bin/sh\necho kill \"$@\" >>asked");
        const QByteArray path = qgetenv("PATH"), kills = "\nkill -9 11\nkill -9 22\nkill -9 33\n";
        qputenv("PATH", folder->path().toLocal8Bit() + ':' + path);
        write(".gui", "");
        QSettings().setValue("gui/path", ".gui"); // no name that could be asked for
        build(false, Watchdog::StartupKill);
        dog->onCyclicTimer();
        qputenv("PATH", path);
        QCOMPARE(read("asked"), "pgrep zarn5_uartinter" + kills);
        QCOMPARE(log().count("WW have to kill unresponsive process zarn5_uartinterface"), 3);
        QCOMPARE(dog->cyclicTimer.interval(), 100);
    }

    // The roads into Watchdog::Pausing, in every state: a service lost without and with a process, a process
    // ended.
    void lossAndEndInEveryState()
    {
        for (quint32 state = 0; state <= 9; ++state) {
            const bool expected = state <= 2 || state == 7;
            build(false, state);
            dog->onServiceUnregistered("com.qel.zarn5.gui");
            QCOMPARE(dog->state, expected ? state : quint32(Watchdog::Pausing));
            QCOMPARE(dog->cyclicTimer.interval(), 77);

            for (bool lost : { true, false }) {
                Module *module = launch(state);
                module->crashCountTimer.stop();
                lost ? dog->onServiceUnregistered("com.qel.zarn5.gui") : module->process->kill();
                const bool ends = !lost || !expected, counts = ends && state < 7;
                QTRY_COMPARE(!module->process, ends);
                QCOMPARE(dog->state, counts ? quint32(Watchdog::Pausing) : state);
                QCOMPARE(dog->cyclicTimer.interval(), counts ? 0 : 77);
                QCOMPARE(module->crashCount, int(counts));
                QCOMPARE(module->crashCountTimer.isActive(), counts);
            }
        }
        QCOMPARE(log().count("EE \"zarn5_gui\" crashed"), 16);
        QCOMPARE(log().count("crashed EE \"zarn5_gui\" ended unexpectedly with exit status 1"), 11);
        QCOMPARE(log().count("crashed WW \"zarn5_gui\" ended with exit status 1"), 5);
        QCOMPARE(log().count("connection to com.qel.zarn5.gui was closed"), 8);
        QCOMPARE(log().count("connection to com.qel.zarn5.gui was unexpectedly closed"), 12);
    }

    void manyCrashesLeaveNothingBehind()
    {
        Module *module = launch(Watchdog::Running, "exit 1");
        size_t memory = 0;
        for (int crash = 1; crash <= 300 && module->process->waitForFinished(); ++crash) {
            QTest::qWait(0); // the deferred deletes
            if (crash == 100)
                memory = mallinfo2().uordblks;
            dog->onCyclicTimer();
            dog->state = Watchdog::Pausing;
        }
        QCOMPARE(module->crashCount, 300);
        QVERIFY(mallinfo2().uordblks < memory + 20000 && QDir("/proc/self/fd").count() < 40);
        QMetaObject::invokeMethod(&module->crashCountTimer, "timeout");
        QCOMPARE(module->crashCount, 0);
    }

    void reportHoldsThreeTextsAConnection()
    {
        for (const QString row : { "Name:\tx\n\n vmSize: 1 kB\nVmSize:\t    1234 kB\nVmSize: 5 kB\n|1234 kB",
                                   "VmSize:\t1234567 kB\n|234567 kB", "VmPeak:\t  1234 kB\n|not watched" }) {
            write("status", row.section('|', 0, 0).toLatin1());
            QString memory("not watched");
            Watchdog::readMemory("status", &memory);
            QCOMPARE(memory, row.section('|', 1));
        }
        build(true, Watchdog::StartupLaunch);
        dog->modules[0]->crashCount = 2;
        dog->modules[1]->start = false;
        dog->onCyclicTimer();
        dog->onStatusTimer();
        QVERIFY(recorder.calls.isEmpty());
        dog->state = Watchdog::Running;
        dog->onStatusTimer();
        dog->disconnectModule(dog->modules[1]);
        dog->onStatusTimer();
        const QString gui("gui updateKeepwatchInfo com\\.qel\\.zarn5\\.gui,\\d+ kB,2");
        QVERIFY(QRegExp(gui + ",com\\.qel\\.zarn5\\.uartinterface,not watched,0\\|" + gui)
                    .exactMatch(recorder.calls.join("|")));
    }
};

QTEST_GUILESS_MAIN(InsideTest)
#include "inside.moc"
