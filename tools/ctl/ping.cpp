// The command "ping": does keepwatch answer? For watchdogs, which act on it.
#include "ping.h"

#include "commands.h"
#include "inquiry.h"
#include "modules.h"

#include <cstdio>
#include <unistd.h>

static const int callSeconds = 25; // of a control call that a module does not answer
static const int callsPerModule = 3; // that can follow one another: run(2), run(0), run(1)

int longestWait()
{
    return callSeconds * callsPerModule * int(moduleNames().size());
}

// `*said`: what is wrong and what to do.
static Outcome judgeAnswers(const Report &report, bool modules, Finding *said)
{
    const Facts &facts = report.facts;
    const Verdict verdict = judge(report);
    const bool isKnown
        = facts.value("bus") == "silent" || facts.value("bus") == "gone" || facts.contains("connections");
    if (!isKnown || (verdict.faults.isEmpty() && verdict.doubts.isEmpty())) {
        *said = verdict.doubts.value(0);
        return CannotTell;
    }
    *said = verdict.faults.isEmpty() ? verdict.doubts.value(0) : verdict.faults[0];
    if (number(facts, "connections") < 2 || !facts.contains("silent") || !facts.value("silent").isEmpty())
        return Hangs;
    for (const Facts &module : report.modules) {
        if (modules && !verdict.faults.isEmpty() && !number(module, "answers"))
            return ModuleHangs;
    }
    return Answers;
}

// Asks once, for `limitMs` at most.
static Ping askOnce(qint64 limitMs, bool modules)
{
    const Processes processes = readProcesses();
    const QList<Process> daemons = findDaemons(processes).mid(0, 1);
    Ping found = { Hangs, { "does not run", "start it" }, daemons.size() == 1, false, Process() };
    if (daemons.isEmpty() && !seesAllProcesses()) {
        found.outcome = CannotTell;
        found.finding = { "the processes of others are hidden from this user", "ask as root" };
    }
    if (daemons.isEmpty())
        return found;
    const Report report = inquire(processes, daemons, Inquiry { false, modules, limitMs, limitMs })[0];
    found.outcome = judgeAnswers(report, modules, &found.finding);
    found.isBus = report.facts.value("bus") == "silent";
    found.hanging = found.isBus ? processes.value(int(number(report.facts, "bus_process"))) : daemons[0];
    return found;
}

Ping ping(int limitSeconds, bool modules)
{
    const qint64 end = monotonicMs() + limitSeconds * qint64(1000);
    // It may just have started, or be about to replace a connection that was cut off.
    for (;; sleep(1)) {
        Ping found = askOnce(qMax(qint64(500), end - monotonicMs()), modules);
        if (found.outcome == Answers || found.outcome == CannotTell || !found.runs)
            return found;
        if (monotonicMs() >= end) {
            found.finding.text += ", for " + QByteArray::number(limitSeconds) + " s";
            return found;
        }
    }
}

int pingCommand(const Options &options)
{
    const Ping found = ping(options.seconds ? options.seconds : longestWait(), options.modules);
    if (found.outcome == Answers)
        return Answers;
    FILE *const stream = found.outcome == CannotTell ? stderr : stdout;
    fprintf(stream, "keepwatch: %s; %s\n", escape(found.finding.text).constData(),
            escape(found.finding.advice).constData());
    return fflush(stream) == 0 ? found.outcome : CannotTell;
}
