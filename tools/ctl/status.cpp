// The command "status": what is known about keepwatch, as a page, as JSON, or as metrics.
#include "commands.h"
#include "inquiry.h"
#include "verdict.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static const int defaultSeconds = 4; // of which half is for the answers of the bus, and half for those on it

int openLog(const QByteArray &path, QByteArray *trouble, QByteArray *advice)
{
    if (path == "-")
        return STDIN_FILENO;
    // A FIFO would block here, and later.
    const int file = open(path.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC), error = errno;
    struct stat status;
    if (file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode))
        return file;
    close(file);
    if (file >= 0) {
        *trouble = "is no regular file";
        *advice = "name one; a pipe is read as standard input, with - in place of its name";
    } else if (error == ENOENT || error == ENOTDIR) {
        *trouble = "does not exist for this user";
        *advice = "it was rotated a moment ago, or keepwatch logs elsewhere: zarn5ctl status says where";
    } else {
        *trouble = QByteArray("cannot be read by this user: ") + QByteArray(strerror(error));
        *advice = "see its owner and group, and those of its folder";
    }
    return -1;
}

int openLog(const QByteArray &path)
{
    QByteArray trouble, advice;
    const int file = openLog(path, &trouble, &advice);
    if (file < 0)
        fprintf(stderr, "zarn5ctl: %s %s; %s\n", escape(path).constData(), trouble.constData(),
                advice.constData());
    return file;
}

// The time of a fact; without the date if it is of the last hours.
static QByteArray timeOf(const Facts &facts, const QByteArray &name, bool live)
{
    const QByteArray stamp = facts.value(name).left(19);
    const qint64 age = facts.value(name + "_age").toLongLong();
    return live && age >= 0 && age < 43200 ? stamp.mid(11) : stamp;
}

static QByteArray agedOf(const Facts &facts, const QByteArray &name)
{
    const bool live = facts.contains("daemon");
    return timeOf(facts, name, live)
        + (live ? " (" + formatAge(facts.value(name + "_age").toLongLong()) + ")" : QByteArray());
}

static QByteArray daemonLine(const Facts &facts)
{
    QByteArray line = "process " + facts.value("daemon") + " of " + facts.value("user");
    line += number(facts, "stopped") ? ", stopped" : ", runs";
    if (facts.contains("since"))
        line += " since " + facts.value("since").left(19);
    line += " (" + formatAge(number(facts, "age")) + ")";
    return line + (facts.value("folder").isEmpty() ? QByteArray() : ", in " + facts.value("folder"));
}

static QByteArray stateLine(const Facts &facts)
{
    QByteArray line = facts.value("state") + " since " + agedOf(facts, "state_since");
    if (facts.contains("awaited"))
        line += ", waits for " + facts.value("awaited");
    if (facts.contains("releases"))
        line += ", released " + facts.value("releases")
            + (number(facts, "releases") == 1 ? " time" : " times");
    if (number(facts, "gap") > 0)
        line += "; not released for " + formatAge(number(facts, "gap") / 1000) + " before";
    if (!facts.contains("start"))
        line += "; the log begins in the middle, at " + facts.value("log_begin").left(19)
            + ", and earlier exits are not counted";
    return line;
}

static QByteArray logLine(const Facts &facts)
{
    QByteArray line = facts.value(facts.contains("source") ? "source" : "log");
    if (facts.contains("log_problem"))
        line += ", " + facts.value("log_problem");
    else if (facts.contains("log_file"))
        line += ", written by keepwatch";
    if (facts.contains("log_size"))
        line += format(", %.1f MB", double(number(facts, "log_size")) / 1e6);
    if (facts.contains("log_full"))
        line += ", on a full disk";
    if (facts.contains("log_hole"))
        line += ", truncated while it was written";
    if (facts.contains("log_last"))
        line += ", last line " + agedOf(facts, "log_last");
    if (facts.contains("lines_late"))
        line += "; " + facts.value("lines_error") + " errors, " + facts.value("lines_warning") + " warnings, "
            + facts.value("lines_late") + " late";
    return line;
}

static QByteArray busLine(const Facts &facts)
{
    QByteArray line = facts.value("bus");
    if (facts.contains("bus_ms"))
        line += " in " + facts.value("bus_ms") + " ms";
    if (facts.contains("connections"))
        line += "; " + facts.value("connections") + " connections of keepwatch";
    if (!facts.value("silent").isEmpty())
        line += ", silent: " + facts.value("silent");
    else if (facts.contains("silent") && number(facts, "connections"))
        line += " answer";
    return line;
}

static QByteArray processOf(const Facts &module)
{
    if (module.contains("process"))
        return module.value("process") + (number(module, "stopped") ? " stopped" : " runs");
    return number(module, "skipped") ? "skipped" : "none";
}

static QByteArray serviceOf(const Facts &facts, const Facts &module)
{
    if (module.contains("answers"))
        return number(module, "answers") ? "answers in " + module.value("ms") + " ms"
                                         : QByteArray("does not answer");
    return facts.contains("connections") && !module.contains("owner") ? "not connected" : "not asked";
}

static QByteArray exitsOf(const Facts &module, bool live)
{
    QByteArray text = module.contains("exits") ? module.value("exits") : QByteArray("not known");
    if (number(module, "exits") > 0)
        text += " (" + module.value("exits_killed") + " by a signal), first "
            + timeOf(module, "exits_first", live) + ", last " + timeOf(module, "exits_last", live);
    return text;
}

static void printModules(const Report &report)
{
    const bool live = report.facts.contains("daemon"), isLog = report.facts.contains("source");
    int width = 13;
    for (const Facts &module : report.modules)
        width = qMax(width, int(escape(nameOf(module)).size()));
    print("\n" + QByteArray("module").leftJustified(width + 3) + (isLog ? "" : "process            ")
          + (live ? "service            " : "") + "unexpected exits\n");
    for (const Facts &module : report.modules)
        print(escape(nameOf(module)).leftJustified(width + 3)
              + (isLog ? "" : processOf(module).leftJustified(19))
              + (live ? serviceOf(report.facts, module).leftJustified(19) : "")
              + escape(exitsOf(module, live)) + "\n");
}

static void printFact(const Facts &facts, const char *needed, const QByteArray &name, const QByteArray &text)
{
    if (facts.contains(needed))
        print(name.leftJustified(9) + escape(text) + "\n");
}

static void printPage(const Report &report, const Verdict &verdict)
{
    const Facts &facts = report.facts;
    print(escape(headline(report, verdict)) + "\n");
    const QList<Finding> findings = verdict.faults + verdict.doubts;
    for (int i = 0; i < findings.size(); ++i)
        print((i ? "and " + escape(findings[i].text) + "\n" : QByteArray()) + "   -> "
              + escape(findings[i].advice) + "\n");
    print("\n");
    printFact(facts, "daemon", "daemon", daemonLine(facts));
    printFact(facts, "state", "state", stateLine(facts));
    printFact(facts, facts.contains("source") ? "source" : "log", "log", logLine(facts));
    printFact(facts, "bus", "bus", busLine(facts));
    if (!report.modules.isEmpty())
        printModules(report);
}

static QByteArray jsonOf(const Facts &facts)
{
    QByteArray text;
    for (const QByteArray &name : facts.keys()) {
        const QByteArray value = facts.value(name);
        const bool isNumber = QByteArray::number(value.toLongLong()) == value;
        join(&text, "\"" + name + "\":" + (isNumber ? value : "\"" + escape(value, Json) + "\""), ",");
    }
    return "{" + text + "}";
}

static QByteArray jsonOf(const QList<Finding> &findings)
{
    QByteArray text;
    for (const Finding &finding : findings) {
        Facts facts;
        facts["text"] = finding.text;
        facts["advice"] = finding.advice;
        join(&text, jsonOf(facts), ",");
    }
    return "[" + text + "]";
}

static void printJson(const Report &report, const Verdict &verdict)
{
    QByteArray modules;
    for (const Facts &module : report.modules)
        join(&modules, jsonOf(module), ",");
    print("{\"status\":" + QByteArray::number(verdict.status()) + ",\"verdict\":\""
          + escape(headline(report, verdict), Json) + "\",\"faults\":" + jsonOf(verdict.faults)
          + ",\"doubts\":" + jsonOf(verdict.doubts) + ",\"facts\":" + jsonOf(report.facts) + ",\"modules\":["
          + modules + "]}\n");
}

// A reader of the file sees the old one or the new one. Signals are blocked, so that none leaves the new one
// incomplete.
static bool writeWhole(const QByteArray &path, const QByteArray &text)
{
    const QByteArray made = path + "." + QByteArray::number(getpid());
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, 0);
    umask(022); // the collector is another user
    const int file = open(made.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    const bool written = file >= 0 && write(file, text.constData(), size_t(text.size())) == text.size();
    if (file >= 0 && close(file) == 0 && written && rename(made.constData(), path.constData()) == 0)
        return true;
    fprintf(stderr,
            "zarn5ctl: %s stays as it is: there is no room, or this user may not write into its folder\n",
            escape(path).constData());
    unlink(made.constData());
    return false;
}

static void addSurroundings(bool runs, Facts *facts)
{
    if (runs || seesAllProcesses())
        (*facts)["up"] = runs ? "1" : "0";
    else
        (*facts)["hidden"] = "1";
    for (const QByteArray &folder : qgetenv("PATH").split(':')) {
        if (access((folder + "/keepwatch").constData(), X_OK) == 0)
            (*facts)["installed"] = "1";
    }
}

// With a log that was named, keepwatch is asked for metrics alone: the page is about the log.
static QList<Report> findReports(const Options &options)
{
    const bool isInput = options.log == "-", isLog = !options.log.isEmpty();
    const qint64 seconds = options.seconds ? options.seconds : defaultSeconds;
    const Processes processes = isInput ? Processes() : readProcesses();
    const QList<Process> daemons = findDaemons(processes);
    QList<Report> reports;
    if (!isLog || (options.form == Metrics && !isInput))
        reports = inquire(processes, daemons, Inquiry { !isLog, true, seconds * 500, seconds * 1000 });
    else
        reports.append(Report());
    Facts &facts = reports[0].facts;
    if (!isInput)
        addSurroundings(!daemons.isEmpty(), &facts);
    if (!isLog)
        return reports;
    facts["source"] = isInput ? QByteArray("standard input") : options.log;
    QByteArray trouble, advice;
    const int file = openLog(options.log, &trouble, &advice);
    if (file < 0) {
        facts["trouble"] = trouble;
        facts["trouble_advice"] = advice;
        return reports;
    }
    const qint64 deadline = options.seconds ? monotonicMs() + seconds * 1000 : 0;
    describeLog(file, deadline, !isInput && !daemons.isEmpty(), &reports[0]);
    return reports;
}

static int writeMetrics(const Report &report, const QByteArray &file)
{
    const Verdict verdict = judge(report);
    const bool isKnown = report.facts.contains("state");
    if (!isKnown)
        fprintf(stderr, "zarn5ctl: %s\n", escape(headline(report, verdict)).constData());
    if (!file.isEmpty())
        return writeWhole(file, metricsOf(report)) && isKnown ? 0 : 1;
    print(metricsOf(report));
    return finishOutput() ? verdict.status() : 2;
}

int statusCommand(const Options &options)
{
    const QList<Report> reports = findReports(options);
    if (options.form == Metrics)
        return writeMetrics(reports[0], options.file);
    int worst = 0;
    for (int i = 0; i < reports.size(); ++i) {
        const Verdict verdict = judge(reports[i]);
        if (i > 0 && options.form == Page)
            print("\n");
        options.form == Page ? printPage(reports[i], verdict) : printJson(reports[i], verdict);
        worst = verdict.status() == 1 || worst == 0 ? verdict.status() : worst;
    }
    return finishOutput() ? worst : 2;
}
