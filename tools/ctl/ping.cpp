// The command "ping": does keepwatch answer? For watchdogs, which act on it.
#include "commands.h"
#include "inquiry.h"
#include "modules.h"
#include "verdict.h"

#include <cstdio>
#include <unistd.h>

static const int callSeconds = 25; // of a control call that a module does not answer
static const int callsPerModule = 3; // that can follow one another: run(2), run(0), run(1)

enum Outcome { Answers, Hangs, CannotTell, ModuleHangs };

// `*said`: what is wrong and what to do, such as what to kill.
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

static int say(FILE *stream, const Finding &finding, Outcome outcome)
{
    fprintf(stream, "keepwatch: %s; %s\n", escape(finding.text).constData(),
            escape(finding.advice).constData());
    return fflush(stream) == 0 ? outcome : CannotTell;
}

int pingCommand(const Options &options)
{
    const int limit
        = options.seconds ? options.seconds : callSeconds * callsPerModule * int(moduleNames().size());
    const qint64 end = monotonicMs() + limit * qint64(1000);
    // It may just have started, or be about to replace a connection that was cut off.
    for (;; sleep(1)) {
        const Processes processes = readProcesses();
        const QList<Process> daemons = findDaemons(processes).mid(0, 1);
        if (daemons.isEmpty() && !seesAllProcesses())
            return say(stderr, Finding { "the processes of others are hidden from this user", "ask as root" },
                       CannotTell);
        if (daemons.isEmpty())
            return say(stdout, Finding { "does not run", "start it" }, Hangs);
        const qint64 rest = qMax(qint64(500), end - monotonicMs());
        Finding finding;
        const Outcome outcome
            = judgeAnswers(inquire(processes, daemons, Inquiry { false, options.modules, rest, rest })[0],
                           options.modules, &finding);
        if (outcome == Answers)
            return outcome;
        if (outcome == CannotTell)
            return say(stderr, finding, outcome);
        if (monotonicMs() >= end) {
            finding.text += ", for " + QByteArray::number(limit) + " s";
            return say(stdout, finding, outcome);
        }
    }
}
