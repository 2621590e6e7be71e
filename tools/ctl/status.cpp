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

int openLog(const QByteArray &path, Finding *trouble)
{
    if (path == "-")
        return STDIN_FILENO;
    // A FIFO would block here, and later.
    const int file = open(path.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC), error = errno;
    struct stat status;
    if (file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode))
        return file;
    close(file);
    if (file >= 0)
        *trouble = { "is no regular file",
                     "name one; a pipe is read as standard input, with - in place of its name" };
    else if (error == ENOENT || error == ENOTDIR)
        *trouble = { "does not exist for this user",
                     "it was rotated a moment ago, or keepwatch logs elsewhere: zarn5ctl status says where" };
    else
        *trouble = { "cannot be read by this user: " + QByteArray(strerror(error)),
                     "see its owner and group, and those of its folder" };
    return -1;
}

int openLog(const QByteArray &path)
{
    Finding trouble;
    const int file = openLog(path, &trouble);
    if (file < 0)
        complain(path + " " + trouble.text + "; " + trouble.advice);
    return file;
}

// Shortens the times among the facts, which have an age; without the date if they are of the last hours.
static Facts shorten(const Facts &facts, bool live)
{
    Facts shown = facts;
    for (const QByteArray &name : facts.keys()) {
        if (!name.endsWith("_age"))
            continue;
        const QByteArray time = name.left(name.size() - 4);
        const qint64 age = number(facts, name);
        shown[time] = facts.value(time).left(19).mid(live && age >= 0 && age < 43200 ? 11 : 0);
        shown[name] = live ? " (" + formatAge(age) + ")" : "";
    }
    return shown;
}

// Returns the facts as the lines of a page show them.
static Facts describe(const Facts &facts)
{
    const bool live = facts.contains("daemon"), answers = facts.contains("silent") && !holds("silent", facts);
    Facts shown = shorten(facts, live);
    shown["runs"] = number(facts, "stopped") ? "stopped" : "runs";
    shown["since"] = facts.value("since").left(19);
    shown["age"] = formatAge(number(facts, "age"));
    if (facts.contains("releases"))
        shown["releases"] += number(facts, "releases") == 1 ? " time" : " times";
    shown["gap"] = number(facts, "gap") > 0 ? formatAge(number(facts, "gap") / 1000) : QByteArray();
    shown["middle"] = facts.contains("start") ? QByteArray() : facts.value("log_begin").left(19);
    shown["log"] = facts.value("source", facts.value("log"));
    shown["log_problem"] = facts.value("log_problem", fill("{log_file?written by keepwatch}", facts));
    if (facts.contains("log_size"))
        shown["log_size"] = format("%.1f MB", double(number(facts, "log_size")) / 1e6);
    shown["all"] = answers && number(facts, "connections") ? "answer" : "";
    return shown;
}

// The lines of a page; those are there whose fact of that name is known.
static const struct PageLine
{
    const char *name, *form;
} pageLines[] = {
    { "daemon", "process {daemon} of {user}, {runs}{since? since %} ({age}){folder?, in %}" },
    { "state",
      "{state} since {state_since}{state_since_age}{awaited?, waits for %}{releases?, released %}"
      "{gap?; not released for % before}"
      "{middle?; the log begins in the middle, at %, and earlier exits are not counted}" },
    { "log",
      "{log}{log_problem?, %}{log_size?, %}{log_full?, on a full disk}"
      "{log_hole?, truncated while it was written}{log_last?, last line %}{log_last_age}"
      "{lines_error?; % errors}{lines_warning?, % warnings}{lines_late?, % late}" },
    { "bus", "{bus}{bus_ms? in % ms}{connections?; % connections of keepwatch}{silent?, silent: %}{all? %}" },
};

static QByteArray processOf(const Facts &module)
{
    if (module.contains("process"))
        return module.value("process") + (number(module, "stopped") ? " stopped" : " runs");
    return number(module, "skipped") ? "skipped" : "none";
}

static QByteArray serviceOf(const Facts &facts, const Facts &module)
{
    if (module.contains("answers"))
        return fill(number(module, "answers") ? "answers in {ms} ms" : "does not answer", module);
    return facts.contains("connections") && !module.contains("owner") ? "not connected" : "not asked";
}

static QByteArray exitsOf(const Facts &module)
{
    return number(module, "exits") > 0
        ? fill("{exits} ({exits_killed} by a signal), first {exits_first}, last {exits_last}", module)
        : module.value("exits", "not known");
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
              + escape(exitsOf(shorten(module, live))) + "\n");
}

static void printPage(const Report &report, const Verdict &verdict)
{
    print(escape(headline(report, verdict)) + "\n");
    const QList<Finding> findings = verdict.faults + verdict.doubts;
    for (int i = 0; i < findings.size(); ++i)
        print((i ? "and " + escape(findings[i].text) + "\n" : QByteArray()) + "   -> "
              + escape(findings[i].advice) + "\n");
    print("\n");
    const Facts shown = describe(report.facts);
    for (const PageLine &line : pageLines) {
        if (holds(line.name, shown))
            print(QByteArray(line.name).leftJustified(9) + escape(fill(line.form, shown)) + "\n");
    }
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
    complain(path + " stays as it is: there is no room, or this user may not write into its folder");
    unlink(made.constData());
    return false;
}

static void addSurroundings(bool runs, Facts *facts)
{
    if (runs || seesAllProcesses())
        set(facts, "up", runs);
    else
        set(facts, "hidden", 1);
    for (const QByteArray &folder : qgetenv("PATH").split(':')) {
        if (access((folder + "/keepwatch").constData(), X_OK) == 0)
            set(facts, "installed", 1);
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
    Finding trouble;
    const int file = openLog(options.log, &trouble);
    if (file < 0) {
        facts["trouble"] = trouble.text;
        facts["trouble_advice"] = trouble.advice;
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
        complain(headline(report, verdict));
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
