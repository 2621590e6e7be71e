#include "verdict.h"

static const int loopExits
    = 3; // exits that make a restart loop, each less than the period after the one before
static const int crashPeriod = 300; // seconds
static const int patience = 10; // seconds that a start or a launch may take

QByteArray nameOf(const Facts &module)
{
    return module.value(module.contains("name") ? "name" : "log_name");
}

static void add(QList<Finding> *findings, const QByteArray &text, const QByteArray &advice)
{
    findings->append(Finding { text, advice });
}

static bool isSilent(const Facts &facts)
{
    return !facts.value("silent").isEmpty();
}

static void judgeBusDaemon(const Facts &facts, Verdict *verdict)
{
    const QByteArray bus = facts.value("bus"), id = facts.value("bus_process"),
                     address = facts.value("bus_address");
    const QByteArray busDaemon = "the bus daemon" + (id.isEmpty() ? id : " (process " + id + ")");
    if (bus == "silent" && number(facts, "bus_stopped"))
        add(&verdict->faults, busDaemon + " is stopped, and keepwatch and its modules wait for it",
            "kill -CONT " + id);
    else if (bus == "silent")
        add(&verdict->faults, busDaemon + " hangs, and keepwatch and its modules wait for it",
            "end it, not keepwatch, which would wait for it again: kill -KILL "
                + (id.isEmpty() ? "(who listens at " + address + ")" : id));
    else if (bus == "gone")
        add(&verdict->faults, "the bus daemon is gone: nobody listens at " + address,
            "start a bus daemon, and then restart keepwatch");
    else if (bus == "refused")
        add(&verdict->doubts, "the bus at " + address + " does not accept " + facts.value("user"),
            "see that keepwatch and its bus daemon run as the same user");
    else if (bus == "unknown")
        add(&verdict->doubts, "the environment of keepwatch names no bus",
            "restart keepwatch with DBUS_SESSION_BUS_ADDRESS");
}

// On a bus that answers, the daemon must have two connections.
static void judgeConnections(const Facts &facts, Verdict *verdict)
{
    const bool isKnown = facts.value("bus") == "answers" && facts.contains("connections");
    const QByteArray bus
        = facts.value("bus_address") + " (bus daemon: process " + facts.value("bus_process") + ")";
    if (!isKnown || number(facts, "connections") >= 2)
        return;
    if (number(facts, "connections") == 1)
        add(&verdict->faults, "keepwatch has one of its two connections to the bus, and so gets no log lines",
            "ask again in 10 s; if it is still so, restart keepwatch");
    else if (number(facts, "bus_younger"))
        add(&verdict->faults, "keepwatch does not use the bus at " + bus + ", which is a new one",
            "restart keepwatch, so that it and its modules use the new bus");
    else
        add(&verdict->faults, "keepwatch runs but is not connected to the bus at " + bus,
            "restart keepwatch");
}

static void judgeDaemon(const Facts &facts, Verdict *verdict)
{
    const QByteArray id = facts.value("daemon");
    if (number(facts, "stopped"))
        add(&verdict->faults, "keepwatch is frozen: process " + id + " is stopped",
            "kill -CONT " + id + ", or, if a service manager restarts it, kill -KILL " + id);
    if (facts.contains("problem"))
        add(&verdict->doubts, "keepwatch (process " + id + ") cannot be looked into", facts.value("problem"));
    else if (!facts.contains("since") || (number(facts, "connections") > 0 && !facts.contains("silent")))
        add(&verdict->doubts, "keepwatch (process " + id + ") was not looked into in time",
            "ask with a larger --limit");
}

// A module that holds keepwatch up is the cause; keepwatch is not to be killed then.
static void judgeHang(const Facts &facts, bool aModuleHangs, Verdict *verdict)
{
    const QByteArray id = facts.value("daemon");
    if (isSilent(facts) && !number(facts, "stopped") && !aModuleHangs)
        add(&verdict->faults,
            "keepwatch hangs: process " + id + " does not answer, and no module holds it up",
            "ask again in 10 s; if it still hangs, see who reads its output and the system log, then kill "
            "-KILL "
                + id);
}

static bool isLooping(const Facts &module)
{
    return number(module, "streak") >= loopExits && number(module, "exits_last_age") < crashPeriod;
}

// What is wrong with a module that answers or should. `*text` stays empty if nothing is.
static Finding judgeLife(const Facts &facts, const Facts &module)
{
    const QByteArray name = nameOf(module), id = module.value("process"), service = module.value("service");
    const QByteArray consequence = isSilent(facts) ? ", and keepwatch waits for it in a call" : "";
    const QByteArray kill = "kill -KILL " + (id.isEmpty() ? module.value("owner") : id)
        + (number(module, "launched") ? ", and keepwatch restarts it" : "");
    if (number(module, "stopped"))
        return { name + " is frozen: process " + id + " is stopped" + consequence,
                 "kill -CONT " + id + ", or " + kill };
    if (module.value("answers") == "0")
        return { name + " hangs: it does not answer on the bus" + consequence,
                 "ask again in 10 s; if it still hangs, " + kill };
    if (isLooping(module))
        return { name + " keeps exiting, " + module.value("streak") + " times since "
                     + module.value("streak_since").mid(11, 8) + ", last "
                     + formatAge(number(module, "exits_last_age"))
                     + (facts.contains("daemon") ? " ago" : " before the log ends"),
                 "its last output is above each \"ended unexpectedly\" in the log"
                     + (module.contains("last_words") ? ": \"" + module.value("last_words") + "\"" : "") };
    return Finding();
}

// What is wrong with a module that is not there.
static Finding judgePresence(const Facts &facts, const Facts &module)
{
    const QByteArray name = nameOf(module), path = module.value("path"), service = module.value("service");
    const bool launched = number(module, "launched"), running = facts.value("state") == "running";
    const bool isSettled
        = !facts.contains("state") || running || number(facts, "state_since_age") >= patience;
    if (number(module, "exists") == 0 && launched)
        return { name + " is missing: there is no " + path,
                 "install it, or correct " + name + "/path in the settings" };
    if (!isSettled)
        return Finding();
    if (launched && !module.contains("process"))
        return { name + " does not run: keepwatch has no process of it",
                 "see in the log why; " + path + " must be executable" };
    if (facts.contains("connections") && !module.contains("owner")
        && (launched || number(module, "required")))
        return { name + " is not connected: nobody owns " + service,
                 launched ? "see its output in the log: it must own that name on the bus of keepwatch"
                          : "start it, since keepwatch does not" };
    if (number(module, "foreign"))
        return { service + " is owned by process " + module.value("owner") + ", which is not the " + name
                     + " of keepwatch",
                 "end that process; " + name + " takes the name at its next launch" };
    return Finding();
}

static void judgeModule(const Facts &facts, const Facts &module, Verdict *verdict)
{
    Finding finding = judgeLife(facts, module);
    if (number(module, "skipped"))
        finding = { nameOf(module) + " is skipped: " + module.value("skipped_path")
                        + " did not exist when keepwatch started",
                    number(module, "exists")
                        ? "it exists now: restart keepwatch"
                        : "install it, or correct its path in the settings, and restart keepwatch" };
    else if (finding.text.isEmpty() && facts.contains("daemon") && module.contains("name"))
        finding = judgePresence(facts, module);
    if (!finding.text.isEmpty())
        verdict->faults.append(finding);
}

static void judgeLog(const Facts &facts, Verdict *verdict)
{
    const QByteArray log = facts.value("log"), file = facts.value("log_file"),
                     problem = facts.value("log_problem");
    if (problem == "deleted")
        add(&verdict->faults, "the log " + log + " was deleted, and keepwatch still writes the deleted file",
            "restart keepwatch; before, what is in it can be copied from /proc/" + facts.value("daemon")
                + "/fd/" + facts.value("log_descriptor"));
    else if (problem == "moved")
        add(&verdict->faults, "keepwatch writes its log to " + file + ", but the settings name " + log,
            "restart keepwatch: the file was moved, or the settings were changed");
    else if (problem == "unwritable")
        add(&verdict->faults,
            "the log " + log + " cannot be written (" + facts.value("log_refusal")
                + "), and all lines are lost",
            "correct its folder or its rights, and restart keepwatch");
    else if (problem == "unwritten")
        add(&verdict->faults, "nobody writes the log " + log,
            "restart keepwatch: at its start the file could not be opened, or was not in the settings");
    else if (problem == "unreadable")
        add(&verdict->doubts, "the log " + file + " cannot be read by this user", "ask as root");
    if (number(facts, "log_full"))
        add(facts.contains("source") ? &verdict->doubts : &verdict->faults,
            "the log lies on a full disk, and may lack what came last", "make room on that disk");
}

// Why a log does not tell the state.
static Finding doubtState(const Facts &facts)
{
    const QByteArray source = facts.contains("source") ? facts.value("source") : QByteArray("the log");
    const QByteArray begin = facts.value("log_begin"),
                     pipe = "journalctl -o cat -t torvi | zarn5ctl status -";
    if (facts.contains("trouble"))
        return { source + " " + facts.value("trouble"), facts.value("trouble_advice") };
    if (facts.value("log") == "syslog")
        return { "the state is not known, because keepwatch logs to syslog only", "ask its log: " + pipe };
    if (facts.value("log") == "standard output" && !facts.contains("log_file"))
        return { "the state is not known, because keepwatch logs to standard output only",
                 "set logging/logfile, or read that output: ... | zarn5ctl status -" };
    if (facts.contains("log_unread"))
        return { "the log is too long to be read in time", "ask with --limit 60" };
    if (facts.contains("log_error"))
        return { source + " cannot be read: " + facts.value("log_error"), "see to the disk of the log" };
    if (facts.contains("log_json"))
        return { source + " is JSON, not a log", "give the lines alone: " + pipe };
    if (facts.contains("log_empty"))
        return { source + " is empty: it was just begun, rotated, or truncated, or its disk is full",
                 "see df, or give the log before it, too: cat LOG.1 LOG | zarn5ctl status -" };
    if (!begin.isEmpty() || facts.contains("log_hole"))
        return { source + " begins in the middle" + (begin.isEmpty() ? begin : ", at " + begin)
                     + ", and no state is told in it",
                 "give the log before it, too: cat LOG.1 LOG | zarn5ctl status -" };
    return { source + " is no log of keepwatch", "zarn5ctl check prints where keepwatch logs" };
}

static void judgeState(const Facts &facts, Verdict *verdict)
{
    const QByteArray state = facts.value("state"), awaited = facts.value("awaited");
    const bool isExplained
        = facts.contains("problem") || facts.value("log_problem").startsWith("un"); // not read
    if (state.isEmpty() && !isExplained)
        verdict->doubts.append(doubtState(facts));
    if (state.isEmpty() || state == "running")
        return;
    add(&verdict->faults,
        "keepwatch is " + state + " since " + facts.value("state_since")
            + (awaited.isEmpty() ? "" : ", waits for " + awaited),
        "if it stays so, see the end of the log, and run zarn5ctl check");
}

// How a keepwatch has ended that does not run, as its log says.
static QByteArray endOf(const Facts &facts)
{
    const QByteArray state = facts.value("state"), since = facts.value("state_since");
    if (state == "down")
        return ", shut down at " + since;
    return state.isEmpty() ? state : ", and ended without a shutdown: it was " + state + " since " + since;
}

static Verdict judgeDead(const Report &report)
{
    const Facts &facts = report.facts;
    Verdict verdict;
    QByteArray left;
    bool isInstalled = facts.contains("settings") || facts.contains("installed");
    for (const Facts &module : report.modules) {
        if (module.contains("process"))
            join(&left, nameOf(module) + " (process " + module.value("process") + ")");
        isInstalled = isInstalled || module.contains("process") || number(module, "exists");
    }
    if (facts.contains("hidden"))
        add(&verdict.doubts, "no keepwatch is seen, but the processes of others are hidden from this user",
            "ask as root");
    else if (!isInstalled)
        add(&verdict.doubts,
            "keepwatch does not run, and this user has neither its settings nor its executable",
            "ask as the user of keepwatch, or install it");
    else
        add(&verdict.faults,
            "keepwatch does not run" + endOf(facts) + (left.isEmpty() ? left : "; still there: " + left),
            left.isEmpty() ? "start it" : "start it, which ends the modules that are left");
    return verdict;
}

Verdict judge(const Report &report)
{
    const Facts &facts = report.facts;
    if (!facts.contains("daemon") && !facts.contains("source"))
        return judgeDead(report);
    Verdict verdict;
    if (facts.value("bus") == "answers" && facts.contains("connections") && number(facts, "connections") < 2
        && number(facts, "age") < patience && !number(facts, "stopped")) {
        add(&verdict.faults, "keepwatch has started but is not connected to its bus yet",
            "ask again in 10 s");
        return verdict; // it has neither modules nor a log yet
    }
    if (facts.value("up") == "0" && facts.contains("state") && facts.value("state") != "down")
        add(&verdict.faults, "keepwatch does not run" + endOf(facts), "start it");
    if (facts.contains("daemon")) {
        judgeBusDaemon(facts, &verdict);
        judgeConnections(facts, &verdict);
        judgeDaemon(facts, &verdict);
    }
    bool aModuleHangs = false;
    for (const Facts &module : report.modules) {
        judgeModule(facts, module, &verdict);
        aModuleHangs = aModuleHangs || number(module, "stopped") || module.value("answers") == "0";
    }
    judgeHang(facts, aModuleHangs, &verdict);
    judgeLog(facts, &verdict);
    judgeState(facts, &verdict);
    return verdict;
}

QByteArray headline(const Report &report, const Verdict &verdict)
{
    if (!verdict.faults.isEmpty())
        return "NOT WELL: " + verdict.faults.first().text;
    if (!verdict.doubts.isEmpty())
        return "CANNOT TELL: " + verdict.doubts.first().text;
    QByteArray names;
    for (const Facts &module : report.modules) {
        if (number(module, "answers"))
            join(&names, nameOf(module));
    }
    const QByteArray running = "WELL: running since " + report.facts.value("state_since");
    return names.isEmpty() ? running : running + "; all answer: " + names;
}
