#include "verdict.h"

static const int loopExits
    = 3; // exits that make a restart loop, each less than the period after the one before
static const int crashPeriod = 300; // seconds
static const int patience = 10; // seconds that a start or a launch may take

namespace {

enum Kind { Fault, Doubt };

// What is found if the condition holds; see holds and fill. Of the rules of a group, the first one counts.
struct Rule
{
    const char *group;
    Kind kind;
    const char *condition, *text, *advice;
};

}

// A keepwatch that does not run, or has neither modules nor a log yet. No other rule applies then.
static const Rule startRules[] = {
    { "start", Doubt, "dead hidden",
      "no keepwatch is seen, but the processes of others are hidden from this user", "ask as root" },
    { "start", Doubt, "dead !installed",
      "keepwatch does not run, and this user has neither its settings nor its executable",
      "ask as the user of keepwatch, or install it" },
    { "start", Fault, "dead", "keepwatch does not run{end}{left?; still there: %}",
      "start it{left?, which ends the modules that are left}" },
    { "start", Fault, "connecting !stopped", "keepwatch has started but is not connected to its bus yet",
      "ask again in 10 s" },
};

static const Rule daemonRules[] = {
    { "end", Fault, "up=0 state !state=down", "keepwatch does not run{end}", "start it" },
    { "bus", Fault, "bus=silent bus_stopped",
      "the bus daemon (process {bus_process}) is stopped, and keepwatch and its modules wait for it",
      "kill -CONT {bus_process}" },
    { "bus", Fault, "bus=silent",
      "the bus daemon{bus_process? (process %)} hangs, and keepwatch and its modules wait for it",
      "end it, not keepwatch, which would wait for it again{bus_process?: kill -KILL %}; it listens at "
      "{bus_address}" },
    { "bus", Fault, "bus=gone", "the bus daemon is gone: nobody listens at {bus_address}",
      "start a bus daemon, and then restart keepwatch" },
    { "bus", Doubt, "bus=refused", "the bus at {bus_address} does not accept {user}",
      "see that keepwatch and its bus daemon run as the same user" },
    { "bus", Doubt, "bus=unknown", "the environment of keepwatch names no bus",
      "restart keepwatch with DBUS_SESSION_BUS_ADDRESS" },
    { "bus", Doubt, "bus=answers connections=",
      "the connections of keepwatch are not known: the bus daemon knows other process IDs",
      "ask in the PID namespace of the bus daemon" },
    { "bus", Fault, "connections=1",
      "keepwatch has one of its two connections to the bus, and so gets no log lines",
      "ask again in 10 s; if it is still so, restart keepwatch" },
    { "bus", Fault, "connections=0 bus_younger",
      "keepwatch does not use the bus at {bus_address} (bus daemon: process {bus_process}), which is a new "
      "one",
      "restart keepwatch, so that it and its modules use the new bus" },
    { "bus", Fault, "connections=0",
      "keepwatch runs but is not connected to the bus at {bus_address} (bus daemon: process {bus_process})",
      "restart keepwatch" },
    { "stop", Fault, "stopped", "keepwatch is frozen: process {daemon} is stopped",
      "kill -CONT {daemon}, or, if a service manager restarts it, kill -KILL {daemon}" },
    { "look", Doubt, "problem", "keepwatch (process {daemon}) cannot be looked into", "{problem}" },
    { "look", Doubt, "late", "keepwatch (process {daemon}) was not looked into in time",
      "ask with a larger --limit" },
};

static const Rule moduleRules[] = {
    { "module", Fault, "skipped exists",
      "{name} is skipped: {skipped_path} did not exist when keepwatch started",
      "it exists now: restart keepwatch" },
    { "module", Fault, "skipped", "{name} is skipped: {skipped_path} did not exist when keepwatch started",
      "install it, or correct its path in the settings, and restart keepwatch" },
    { "module", Fault, "stopped", "{name} is frozen: process {process} is stopped{consequence}",
      "kill -CONT {process}, or kill -KILL {process}{restart}" },
    { "module", Fault, "answers=0", "{name} hangs: it does not answer on the bus{consequence}",
      "ask again in 10 s; if it still hangs, kill -KILL {killed}{restart}" },
    { "module", Fault, "loops", "{name} keeps exiting, {streak} times since {streak_begin}, last {last_exit}",
      "its last output is above each \"ended unexpectedly\" in the log{last_words?: \"%\"}" },
    { "module", Fault, "launched exists=0", "{name} is missing: there is no {path}",
      "install it, or correct {name}/path in the settings" },
    { "module", Fault, "settled launched !process", "{name} does not run: keepwatch has no process of it",
      "see in the log why; {path} must be executable" },
    { "module", Fault, "settled absent launched", "{name} is not connected: nobody owns {service}",
      "see its output in the log: it must own that name on the bus of keepwatch" },
    { "module", Fault, "settled absent required", "{name} is not connected: nobody owns {service}",
      "start it, since keepwatch does not" },
    { "module", Fault, "settled foreign",
      "{service} is owned by process {owner}, which is not the {name} of keepwatch",
      "end that process; {name} takes the name at its next launch" },
};

// A module that holds keepwatch up is the cause of a hang; keepwatch is not to be killed then.
static const Rule logRules[] = {
    { "hang", Fault, "silent !stopped !held",
      "keepwatch hangs: process {daemon} does not answer, and no module holds it up",
      "ask again in 10 s; if it still hangs, see who reads its output and the system log, then kill -KILL "
      "{daemon}" },
    { "log", Fault, "log_problem=deleted",
      "the log {log} was deleted, and keepwatch still writes the deleted file",
      "restart keepwatch; before, what is in it can be copied from /proc/{daemon}/fd/{log_descriptor}" },
    { "log", Fault, "log_problem=moved",
      "keepwatch writes its log to {log_file}, but the settings name {log}",
      "restart keepwatch: the file was moved, or the settings were changed" },
    { "log", Fault, "log_problem=unwritable",
      "the log {log} cannot be written ({log_refusal}), and all lines are lost",
      "correct its folder or its rights, and restart keepwatch" },
    { "log", Fault, "log_problem=unwritten", "nobody writes the log {log}",
      "restart keepwatch: at its start the file could not be opened, or was not in the settings" },
    { "log", Doubt, "log_problem=unreadable", "the log {log_file} cannot be read by this user",
      "ask as root" },
    { "disk", Doubt, "log_full source", "the log lies on a full disk, and may lack what came last",
      "make room on that disk" },
    { "disk", Fault, "log_full", "the log lies on a full disk, and may lack what came last",
      "make room on that disk" },
    { "state", Fault, "state !state=running",
      "keepwatch is {state} since {state_since}{awaited?, waits for %}",
      "if it stays so, see the end of the log, and run zarn5ctl check" },
    { "state", Doubt, "untold trouble", "{source} {trouble}", "{trouble_advice}" },
    { "state", Doubt, "untold log !log_file", "the state is not known, because keepwatch logs to {log} only",
      "set logging/logfile, or give that output; of syslog: journalctl -o cat -t torvi | zarn5ctl status -" },
    { "state", Doubt, "untold log_unread", "the log is too long to be read in time", "ask with --limit 60" },
    { "state", Doubt, "untold log_error", "{what} cannot be read: {log_error}",
      "see to the disk of the log" },
    { "state", Doubt, "untold log_json", "{what} is JSON, not a log",
      "give the lines alone: journalctl -o cat -t torvi | zarn5ctl status -" },
    { "state", Doubt, "untold log_empty",
      "{what} is empty: it was just begun, rotated, or truncated, or its disk is full",
      "see df, or give the log before it, too: cat LOG.1 LOG | zarn5ctl status -" },
    { "state", Doubt, "untold middle",
      "{what} begins in the middle{log_begin?, at %}, and no state is told in it",
      "give the log before it, too: cat LOG.1 LOG | zarn5ctl status -" },
    { "state", Doubt, "untold", "{what} is no log of keepwatch",
      "zarn5ctl check prints where keepwatch logs" },
};

QByteArray nameOf(const Facts &module)
{
    return module.value(module.contains("name") ? "name" : "log_name");
}

// Adds what the rules say of a module, or need of it.
static void prepareModule(bool settled, Facts *facts, Facts *module)
{
    const bool loops
        = number(*module, "streak") >= loopExits && number(*module, "exits_last_age") < crashPeriod;
    const QByteArray name = nameOf(*module);
    (*module)["name"] = name;
    (*module)["killed"] = module->value("process", module->value("owner"));
    (*module)["restart"] = number(*module, "launched") ? ", and keepwatch restarts it" : "";
    set(module, "settled", settled);
    set(module, "absent", facts->contains("connections") && !module->contains("owner"));
    set(module, "loops", loops);
    (*module)["streak_begin"] = module->value("streak_since").mid(11, 8);
    (*module)["last_exit"] = formatAge(number(*module, "exits_last_age"))
        + (facts->contains("daemon") ? " ago" : " before the log ends");
    (*module)["consequence"] = fill("{silent?, and keepwatch waits for it in a call}", *facts);
    if (holds("stopped", *module) || holds("answers=0", *module))
        set(facts, "held", 1);
    if (module->contains("process"))
        join(&(*facts)["left"], fill("{name} (process {process})", *module));
    if (holds("process", *module) || holds("exists", *module))
        set(facts, "installed", 1);
}

// The same of keepwatch.
static void prepare(Facts *facts, QList<Facts> *modules)
{
    const QByteArray state = facts->value("state");
    const qint64 connections = facts->value("connections", "2").toLongLong();
    const bool isSeen
        = facts->contains("since") && (!holds("connections", *facts) || facts->contains("silent"));
    const bool isRead = !facts->contains("problem") && !facts->value("log_problem").startsWith("un");
    set(facts, "dead", !facts->contains("daemon") && !facts->contains("source"));
    set(facts, "connecting", connections < 2 && number(*facts, "age") < patience);
    set(facts, "late", facts->contains("daemon") && !isSeen);
    set(facts, "untold", state.isEmpty() && isRead);
    set(facts, "middle", holds("log_begin", *facts) || holds("log_hole", *facts));
    (*facts)["what"] = facts->value("source", "the log");
    (*facts)["end"] = fill(state == "down" ? ", shut down at {state_since}"
                                           : "{state?, and ended without a shutdown: it was % since }"
                                             "{state_since}",
                           *facts);
    if (facts->contains("settings"))
        set(facts, "installed", 1);
    const bool settled
        = state.isEmpty() || state == "running" || number(*facts, "state_since_age") >= patience;
    for (Facts &module : *modules)
        prepareModule(settled, facts, &module);
}

template <int count> static void apply(const Rule (&rules)[count], const Facts &facts, Verdict *verdict)
{
    QByteArray group;
    for (const Rule &rule : rules) {
        if (group == rule.group || !holds(rule.condition, facts))
            continue;
        group = rule.group;
        (rule.kind == Fault ? verdict->faults : verdict->doubts)
            .append(Finding { fill(rule.text, facts), fill(rule.advice, facts) });
    }
}

Verdict judge(const Report &report)
{
    Facts facts = report.facts;
    QList<Facts> modules = report.modules;
    prepare(&facts, &modules);
    Verdict verdict;
    apply(startRules, facts, &verdict);
    if (verdict.status())
        return verdict;
    apply(daemonRules, facts, &verdict);
    for (const Facts &module : modules)
        apply(moduleRules, module, &verdict);
    apply(logRules, facts, &verdict);
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
    return "WELL: running since " + report.facts.value("state_since")
        + (names.isEmpty() ? names : "; all answer: " + names);
}
