// Holds the reader of logs, the states, the verdicts, the metrics, and the plot of zarn5ctl against lines
// that the daemon wrote and against logs that mislead.
#include "bus.h"
#include "commands.h"
#include "state.h"
#include "verdict.h"

#include <QtTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static const QByteArray at = "2026-11-24 22:39:00.897";

// A line of keepwatch, `seconds` after "at", as the daemon writes it.
static QByteArray own(const QByteArray &text, int seconds = 0, const QByteArray &level = "  ")
{
    Clock clock(Clock::Utc);
    const QByteArray file = text.startsWith("***") ? "logging.cpp         " : "watchdog.cpp        ";
    return "[00000] " + level + " (" + clock.write(clock.read(at) + qint64(seconds) * 1000)
        + ") keepwatch      : " + file + ",  171: " + text + " \n";
}

static const QByteArray start = own("********starting new logging session********"),
                        run = own("connected to all required services: run!"),
                        down = own("system was shutted down"),
                        gone = own("\"gui\" ended unexpectedly with exit status 1"), up = start + run;

// `hole`: bytes in front that were never written.
static Report read(const QByteArray &log, qint64 hole = 0)
{
    QTemporaryFile file;
    if (!file.open() || !file.seek(hole) || file.write(log) != log.size() || !file.flush())
        qFatal("no temporary file");
    Report report;
    report.facts["source"] = "log";
    lseek(file.handle(), 0, SEEK_SET);
    describeLog(file.handle(), 0, false, &report);
    return report;
}

class ReaderTest : public QObject
{
    Q_OBJECT

private slots:
    void everyTextIsOneOfTheDaemon();
    void aRunOfTheDaemonIsUnderstood();
    void logsThatMislead_data();
    void logsThatMislead();
    void aHoleIsNotRead();
    void metrics_data();
    void metrics();
    void verdicts_data();
    void verdicts();
    void plots_data();
    void plots();
    void anyPictureIsSmall();
    void nothingActsOnATerminal();
    void aBusThatAcceptsNothingIsSilent();
};

void ReaderTest::everyTextIsOneOfTheDaemon()
{
    QByteArray sources;
    for (const char *name : { "watchdog.cpp", "logging.cpp" }) {
        QFile file(QLatin1String("local_src/gui/keepwatch/") + QLatin1String(name));
        QVERIFY(file.open(QIODevice::ReadOnly));
        sources += file.readAll();
    }
    for (const LogText *text = logTexts; text->pattern; ++text) {
        QByteArray pattern = text->pattern;
        const bool isWhole = text->event == RunStarts || !pattern.contains('*');
        for (const QByteArray &part :
             isWhole ? QList<QByteArray>() << pattern : pattern.replace('#', '*').split('*')) {
            const QByteArray said = QByteArray(part).replace('"', "").trimmed();
            QVERIFY2(said.isEmpty() || sources.contains('"' + said) || sources.contains(' ' + said),
                     part.constData());
        }
    }
}

// What the tests of the daemon expect of it is what it writes.
void ReaderTest::aRunOfTheDaemonIsUnderstood()
{
    QFile file(QLatin1String("tests/expected/run.txt"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QByteArray log;
    int second = 0;
    QMap<int, QByteArray> states;
    for (QByteArray line = file.readLine(); !line.isEmpty(); line = file.readLine()) {
        log += own(line.mid(3).trimmed().replace("pid N", "pid 7"), ++second, line.left(2));
        states[second] = read(log).facts.value("state");
    }
    const Report report = read(log);
    QCOMPARE(
        states.values().join(','),
        QByteArray(
            "starting,starting,starting,starting,starting,starting,starting,running,running,pausing,pausing,"
            "pausing,reestablishing,running,shutting down,shutting down,shutting down,shutting down,down"));
    QCOMPARE(report.modules.size(), 2);
    QCOMPARE(report.modules[0].value("exits") + report.modules[0].value("exits_killed"), QByteArray("11"));
    QCOMPARE(report.facts.value("releases"), QByteArray("2"));
    QCOMPARE(report.facts.value("gap"), QByteArray("4000"));
    QCOMPARE(report.facts.value("unreleased"), QByteArray("15000"));
    QCOMPARE(report.facts.value("lines_error"), QByteArray()); // nobody else has published a line
}

void ReaderTest::logsThatMislead_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("says");
    const QByteArray half = down.left(down.size() - 1), wait = own("still waiting for a");
    const QByteArray known = "WELL: running since " + at;
    QTest::newRow("another file") << up + QByteArray(down).replace("watchdog.cpp        ,  171: ", "") << 0
                                  << known;
    QTest::newRow("another name") << up + QByteArray(down).replace("keepwatch", "gui      ") << 0 << known;
    QTest::newRow("a line in a line") << up + "[00000]    " + down << 0 << known;
    QTest::newRow("output") << up + own("\"com.gui\" : \"gui\" ended unexpectedly with exit status 1 \n\"")
                            << 0 << known;
    QTest::newRow("half a line") << up + half << 0 << known;
    QTest::newRow("NULs and another system")
        << QByteArray(600000, '\0') + QByteArray(up).replace("\n", "\r\n") + "\r\n\377\376\n"
        << 0 << known;
    QTest::newRow("a hole in the middle")
        << up + half.left(90) + QByteArray(90, '\0') + down << 1 << QByteArray("NOT WELL: keepwatch is down");
    QTest::newRow("syslog") << start + "Nov 24 22:39:00 device torvi[1]: " + run << 0 << known;
    QTest::newRow("the middle") << run << 0 << known;
    QTest::newRow("a long line") << up + QByteArray(700000, 'x') + down + down << 1
                                 << QByteArray("NOT WELL: keepwatch is down");
    QTest::newRow("only the end of a long line") << up + QByteArray(700000, 'x') + down << 0 << known;
    QTest::newRow("skipped") << start + own("file /a.b/zarn5_gui.v2 does not exist") + run << 1
                             << QByteArray("NOT WELL: zarn5_gui is skipped: /a.b/zarn5_gui.v2 did not exist");
    QTest::newRow("a new run") << up + gone + start << 1
                               << QByteArray("NOT WELL: keepwatch is starting since " + at);
    QTest::newRow("exits of one run")
        << gone + start + gone << 1 << "NOT WELL: keepwatch is pausing since " + at;
    QTest::newRow("waits for the last name") << start + own("still waiting for b") + wait
            + wait << 1 << "NOT WELL: keepwatch is starting since " + at + ", waits for a";
    QTest::newRow("not released") << wait << 1
                                  << "NOT WELL: keepwatch is not released since " + at + ", waits for a";
    QTest::newRow("three exits")
        << start + gone + gone + gone + run << 1
        << QByteArray("NOT WELL: gui keeps exiting, 3 times since 22:39:00, last 0 s before the log ends");
    QTest::newRow("counted exits") << start + gone + QByteArray(gone).replace(" \n", ", 5 times\n") + run << 1
                                   << QByteArray("NOT WELL: gui keeps exiting, 6 times");
    QByteArray slow = start;
    for (int seconds = 0; seconds < 1500; seconds += 300)
        slow += own("\"gui\" ended unexpectedly with exit status 1", seconds);
    QTest::newRow("rare exits") << slow + own("connected to all required services: run!", 1200) << 0
                                << QByteArray("WELL: running since 2026-11-24 22:59");
    QTest::newRow("an old loop") << start + gone + gone + gone
            + own("connected to all required services: run!", 301)
                                 << 0 << QByteArray("WELL: running since 2026-11-24 22:44");
    QTest::newRow("no state") << QByteArray(down).replace("keepwatch ", "gui       ") + own("x") << 2
                              << "CANNOT TELL: log begins in the middle, at " + at;
    QTest::newRow("no log") << QByteArray("(" + at + ") neither\n") << 2
                            << QByteArray("CANNOT TELL: log is no log of keepwatch");
    QTest::newRow("empty") << QByteArray(9, '\0') << 2 << QByteArray("CANNOT TELL: log is empty");
    QTest::newRow("JSON") << "{\"MESSAGE\":\"" + up.left(up.size() - 1) + "\"}\n"
                          << 2 << QByteArray("CANNOT TELL: log is JSON");
}

void ReaderTest::logsThatMislead()
{
    QFETCH(QByteArray, log);
    QFETCH(int, status);
    QFETCH(QByteArray, says);
    const Report report = read(log);
    const Verdict verdict = judge(report);
    QCOMPARE(headline(report, verdict).left(says.size()), says);
    QCOMPARE(verdict.status(), status);
}

void ReaderTest::aHoleIsNotRead()
{
    const qint64 begin = monotonicMs();
    const Facts facts = read(run, qint64(1) << 40).facts;
    QVERIFY2(monotonicMs() - begin < 5000, "it was read");
    QVERIFY(facts.contains("log_hole") && facts.value("state") == "running");
}

void ReaderTest::metrics_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<QByteArray>("samples");
    QTest::addColumn<QByteArray>("absent");
    const QByteArray time = QByteArray::number(Clock(Clock::Local).read(at) / 1000) + ".897";
    const QByteArray wait = own("still waiting for com.x.gui"), b = own("started b with pid 1");
    QTest::newRow("a run") << up
                           << "session_start_timestamp_seconds " + time
            + "\nreleases_total 1\nnot_released_seconds 0.000"
                           << QByteArray("up\nlog_\nmodule");
    QTest::newRow("lines")
        << "[9] EE\n" + up + QByteArray(own("\"gui\" : \"x\n\"", 0, "EE")).replace("[00000]", "[01007]")
            + QByteArray(own("x", 0, "WW")).replace("[00000]", "[-0005]")
        << QByteArray(
               "log_lines_total{level=\"error\"} 1\nlog_lines_total{level=\"warning\"} 1\n"
               "log_lines_total{level=\"info\"} 2\nlog_late_lines_total 1\n"
               "log_delay_seconds_bucket{le=\"0.01\"} 3\nlog_delay_seconds_bucket{le=\"1\"} 3\n"
               "log_delay_seconds_bucket{le=\"5\"} 4\nlog_delay_seconds_sum 1.007\nlog_delay_seconds_count 4")
        << QByteArray();
    QTest::newRow("the middle") << gone + run
                                << "state{state=\"running\"} 1\nstate{state=\"down\"} "
                                   "0\nmodule_last_end_timestamp_seconds{module=\"gui\"} "
            + time << QByteArray("session\nreleases\nmodule_ends\nmodule_left\nnot_released");
    QTest::newRow("exits") << gone + start + gone + QByteArray(gone).replace("1 \n", "0, 3 times\n")
                           << QByteArray("module_ends_total{module=\"gui\",cause=\"exit\"} "
                                         "3\nmodule_ends_total{module=\"gui\",cause=\"signal\"} 1")
                           << QByteArray();
    QTest::newRow("awaited") << start + own("started zarn5_gui with pid 1") + b
            + wait << QByteArray("module_awaited{module=\"zarn5_gui\"} 1\nmodule_awaited{module=\"b\"} 0")
                             << QByteArray();
    QTest::newRow("a strange name") << start + b + wait
                                    << QByteArray("module_awaited{module=\"com.x.gui\"} 1")
                                    << QByteArray("module_awaited{module=\"b\"}");
    QTest::newRow("labels") << start + own("started a\377\" with pid 1")
                            << QByteArray("module_left_out{module=\"a??\"} 0") << QByteArray();
    QTest::newRow("a wait") << own("still waiting for a")
                            << QByteArray("released 0\nmodule_awaited{module=\"a\"} 1")
                            << QByteArray("state");
}

void ReaderTest::metrics()
{
    QFETCH(QByteArray, log);
    QFETCH(QByteArray, samples);
    QFETCH(QByteArray, absent);
    const QByteArray text = metricsOf(read(log));
    for (const QByteArray &sample : samples.split('\n'))
        QVERIFY2(text.contains("\nkeepwatch_" + sample + "\n"), (text + sample).constData());
    for (const QByteArray &sample : absent.split('\n'))
        QVERIFY2(absent.isEmpty() || !text.contains("\nkeepwatch_" + sample), (text + sample).constData());
}

// A daemon that is well, with one module; the rows change one fact or two.
static Report wellReport()
{
    Report report;
    for (const char *fact : { "daemon 12", "since x", "age 60", "bus answers", "bus_address unix:path=/b",
                              "bus_process 4", "connections 2", "silent ", "log /l", "log_file /l",
                              "state running", "state_since 1", "state_since_age 50" })
        report.facts[QByteArray(fact).split(' ')[0]]
            = QByteArray(fact).mid(QByteArray(fact).indexOf(' ') + 1);
    report.modules.append(Facts { { "name", "gui" },
                                  { "path", "/g" },
                                  { "service", "a.gui" },
                                  { "launched", "1" },
                                  { "required", "1" },
                                  { "exists", "1" },
                                  { "process", "15" },
                                  { "owner", "15" },
                                  { "answers", "1" },
                                  { "exits", "0" } });
    return report;
}

void ReaderTest::verdicts_data()
{
    QTest::addColumn<QByteArray>(
        "changes"); // "fact=value", "fact" to take it away; with "gui." in front, of the module
    QTest::addColumn<QByteArray>("says");
    QTest::addColumn<QByteArray>("advises");
    QTest::newRow("well") << QByteArray() << QByteArray("WELL: running since 1; all answer: gui")
                          << QByteArray();
    QTest::newRow("bus hangs") << QByteArray("bus=silent connections silent gui.answers gui.owner")
                               << QByteArray("NOT WELL: the bus daemon (process 4) hangs")
                               << QByteArray("kill -KILL 4");
    QTest::newRow("bus refuses") << QByteArray("bus=refused connections silent gui.answers gui.owner")
                                 << QByteArray("CANNOT TELL: the bus at") << QByteArray("same user");
    QTest::newRow("no bus is known") << QByteArray("bus=unknown connections silent gui.answers gui.owner")
                                     << QByteArray("CANNOT TELL: the environment")
                                     << QByteArray("DBUS_SESSION_BUS_ADDRESS");
    QTest::newRow("one connection") << QByteArray("connections=1")
                                    << QByteArray("NOT WELL: keepwatch has one of its two")
                                    << QByteArray("ask again");
    QTest::newRow("not connected") << QByteArray("connections=0")
                                   << QByteArray("NOT WELL: keepwatch runs but is not connected")
                                   << QByteArray("restart keepwatch");
    QTest::newRow("daemon hangs") << QByteArray("silent=:1.2")
                                  << QByteArray("NOT WELL: keepwatch hangs: process 12")
                                  << QByteArray("kill -KILL 12");
    QTest::newRow("module holds the daemon")
        << QByteArray("silent=:1.2 gui.answers=0")
        << QByteArray("NOT WELL: gui hangs: it does not answer on the bus, and keepwatch waits")
        << QByteArray("kill -KILL 15, and");
    QTest::newRow("module hangs") << QByteArray("gui.answers=0")
                                  << QByteArray("NOT WELL: gui hangs: it does not answer on the bus")
                                  << QByteArray("ask again in 10 s");
    QTest::newRow("no process") << QByteArray("gui.process gui.owner gui.answers")
                                << QByteArray("NOT WELL: gui does not run")
                                << QByteArray("/g must be executable");
    QTest::newRow("too early to tell")
        << QByteArray("gui.process gui.owner gui.answers state=pausing state_since_age=9")
        << QByteArray("NOT WELL: keepwatch is pausing since 1") << QByteArray("if it stays so");
    QTest::newRow("an optional module is absent")
        << QByteArray("gui.process gui.owner gui.answers gui.launched=0 gui.required=0")
        << QByteArray("WELL: running") << QByteArray();
    QTest::newRow("an external module is absent")
        << QByteArray("gui.process gui.owner gui.answers gui.launched=0")
        << QByteArray("NOT WELL: gui is not connected: nobody owns a.gui") << QByteArray("start it, since");
    QTest::newRow("too late") << QByteArray("silent gui.answers")
                              << QByteArray("CANNOT TELL: keepwatch (process 12) was not looked into in time")
                              << QByteArray("--limit");
    QTest::newRow("unreadable log") << QByteArray("log_problem=unreadable state")
                                    << QByteArray("CANNOT TELL: the log /l cannot be read")
                                    << QByteArray("as root");
    QTest::newRow("a long log") << QByteArray("log_unread=1 state")
                                << QByteArray("CANNOT TELL: the log is too long") << QByteArray("--limit");
    QTest::newRow("truncated") << QByteArray("log_hole=1 state")
                               << QByteArray("CANNOT TELL: the log begins in the middle, and no state")
                               << QByteArray("LOG.1");
    QTest::newRow("hidden") << QByteArray("daemon hidden=1")
                            << QByteArray("CANNOT TELL: no keepwatch is seen") << QByteArray("ask as root");
}

void ReaderTest::verdicts()
{
    QFETCH(QByteArray, changes);
    QFETCH(QByteArray, says);
    QFETCH(QByteArray, advises);
    Report report = wellReport();
    for (QByteArray change : changes.split(' ')) {
        Facts &facts = change.startsWith("gui.") ? report.modules[0] : report.facts;
        change.replace("gui.", "");
        facts.remove(change);
        if (change.contains('='))
            facts[change.split('=')[0]] = change.split('=')[1];
    }
    const Verdict verdict = judge(report);
    const QList<Finding> findings = verdict.faults + verdict.doubts;
    QCOMPARE(headline(report, verdict).left(says.size()), says);
    QCOMPARE(verdict.status(), says.startsWith("NOT") ? 1 : says.startsWith("CANNOT") ? 2 : 0);
    QVERIFY2(findings.value(0).advice.contains(advises), findings.value(0).advice.constData());
    QCOMPARE(findings.size(), advises.isEmpty() ? 0 : 1);
    for (const Finding &finding : findings) // a daemon that waits for a module is not to be killed
        QVERIFY(!finding.advice.contains("kill -KILL 12") || says.contains("keepwatch hangs"));
}

static QByteArray draw(const QByteArray &log)
{
    QTemporaryFile file, picture;
    if (!file.open() || !picture.open() || file.write(log) != log.size() || !file.flush())
        return "no temporary file";
    fflush(stdout);
    const int output = dup(STDOUT_FILENO);
    dup2(picture.handle(), STDOUT_FILENO);
    Options options = Options();
    options.log = file.fileName().toLocal8Bit();
    plotCommand(options);
    fflush(stdout);
    dup2(output, STDOUT_FILENO);
    close(output);
    picture.seek(0);
    return picture.readAll();
}

void ReaderTest::plots_data()
{
    QTest::addColumn<QByteArray>("log"); // "second=text", separated by @
    QTest::addColumn<QByteArray>("titles"); // of what is drawn, without the dates
    const QByteArray begin = "********starting new logging session********",
                     released = "connected to all required services: run!";
    const QByteArray exit = "\"zarn5_gui\" ended unexpectedly with exit status 1",
                     pause = "pausing system due to errors";
    QTest::newRow("exit")
        << "0=" + begin + "@9=still waiting for a.gui@12=" + released + "@20=" + exit + "@20=" + pause
            + "@25=all required services are reestablished: run!"
        << QByteArray("starting: 00 to 12, 12.0 s|pause: 20 to 25, 5.0 s|wait for a.gui: 09 to 12, 3.0 s|"
                      "wait for a.gui: 20 to 25, 5.0 s|exit or loss of a.gui: 20");
    QTest::newRow("the middle")
        << "3=x@7=" + released + "@9=shutdown 1/2 -  shutting down modules@9=system was shutted down@30="
            + begin + "@35=" + released
        << QByteArray("starting: 30 to 35, 5.0 s|pause: 03 to 07, 4.0 s|shut down: 09 to 30, 21.0 s");
    QTest::newRow("no end was seen") << "3=x@7=" + exit + "@8=still waiting for a.gui@9=" + begin
                                     << QByteArray("starting: 09|pause: 07 to 08, 1.0 s|silence: 08 to 09, "
                                                   "1.0 s|wait for zarn5_gui: 07 to 08, 1.0 s|"
                                                   "exit or loss of zarn5_gui: 07");
    QTest::newRow("a lost service") << "3=" + begin + "@5=" + released
            + "@20=connection to a.b was unexpectedly closed@25=" + pause + "@30=x"
                                    << QByteArray("starting: 03 to 05, 2.0 s|pause: 20 to 30, 10.0 s|wait "
                                                  "for a.b: 20 to 30, 10.0 s|exit or loss of a.b: 20");
    QTest::newRow("nothing is said") << QByteArray("3=x") << QByteArray();
}

void ReaderTest::plots()
{
    QFETCH(QByteArray, log);
    QFETCH(QByteArray, titles);
    QByteArray lines;
    for (const QByteArray &line : log.split('@'))
        lines += own(line.mid(line.indexOf('=') + 1), line.left(line.indexOf('=')).toInt() - 0);
    QByteArray drawn = draw(lines.replace("22:39:00.897", "22:39:00.000").replace(".897)", ".000)"));
    QList<QByteArray> seen;
    for (const QByteArray &part : drawn.split('>')) {
        if (part.endsWith("</title") && !part.contains(" ms, "))
            seen.append(
                QByteArray(part).replace("</title", "").replace("2026-11-24 22:39:", "").replace(".000", ""));
    }
    QByteArray all;
    for (const QByteArray &title : seen)
        join(&all, title, "|");
    QCOMPARE(all, titles);
    QCOMPARE(drawn.contains("releases are not known"), titles.isEmpty());
}

void ReaderTest::anyPictureIsSmall()
{
    QByteArray log;
    for (int i = 0; i < 30000; ++i) {
        const QByteArray module
            = "module_of_a_rather_long_name_that_is_not_cut_" + QByteArray::number(i % 100);
        log += own("\"" + module + "\" ended unexpectedly with exit status 1", i * 97, "EE")
            + own("pausing system due to errors", i * 97) + own("still waiting for a." + module, i * 97)
            + QByteArray(own(i % 3 ? "all required services are reestablished: run!"
                                   : "********starting new logging session********",
                             i * 97 + i % 90))
                  .replace("[00000]", "[" + QByteArray::number(i * 7919 % 100003) + "]");
    }
    const QByteArray picture = draw(log);
    QVERIFY2(picture.size() > 100000 && picture.size() <= 200000,
             QByteArray::number(picture.size()).constData());
    QVERIFY(picture.endsWith("</svg>\n") && picture.contains("others"));
}

void ReaderTest::nothingActsOnATerminal()
{
    QByteArray all;
    for (int c = 1; c < 256; ++c)
        all += char(c);
    all += "\xc2\x9b\xe2\x80\xae\xed\xa0\x80\xc3\xa4";
    for (Target target : { Terminal, Json, Xml }) {
        const QByteArray escaped = escape(all, target);
        QVERIFY(QString::fromUtf8(escaped).toUtf8() == escaped && escaped.endsWith("\xc3\xa4"));
        QVERIFY(!escaped.contains("\xc2\x9b") && !escaped.contains("\xe2\x80\xae")
                && !escaped.contains('\x7f'));
        for (char c = 1; c < ' '; ++c)
            QVERIFY(!escaped.contains(c));
    }
    QVERIFY(!escape(all, Xml).contains('<') && !escape(all, Xml).contains('"'));
    QCOMPARE(escape(QByteArray("a\"\\"), Json), QByteArray("a\\\"\\\\"));
}

// As a bus daemon that hangs while others wait: connect blocks.
void ReaderTest::aBusThatAcceptsNothingIsSilent()
{
    QTemporaryDir folder;
    struct sockaddr_un name = {};
    name.sun_family = AF_UNIX;
    const QByteArray path = folder.path().toLocal8Bit() + "/bus";
    qstrncpy(name.sun_path, path.constData(), sizeof name.sun_path);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    QCOMPARE(bind(listener, reinterpret_cast<sockaddr *>(&name), sizeof name), 0);
    QCOMPARE(listen(listener, 0), 0);
    QList<Bus *> buses; // which stay connected, and so take the place of the next one
    for (int i = 0; i < 3; ++i) {
        Bus *const bus = new Bus;
        buses.append(bus);
        const qint64 begin = monotonicMs();
        QCOMPARE(bus->open("unix:path=" + path, begin + 200), "silent");
        QVERIFY(monotonicMs() - begin < 5000);
    }
    qDeleteAll(buses);
    close(listener);
    QCOMPARE(Bus().open("unix:path=" + path, monotonicMs() + 200), "gone");
    QCOMPARE(Bus().open("unixexec:path=/bin/true", monotonicMs() + 200), "refused");
}

QTEST_GUILESS_MAIN(ReaderTest)
#include "reader.moc"
