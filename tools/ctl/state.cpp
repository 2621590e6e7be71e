#include "state.h"

#include <ctime>
#include <sys/stat.h>
#include <sys/statvfs.h>

static const qint64 crashPeriodMs = 300000; // as in keepwatch
static const int listLimit = 64; // modules, services; a broken log can have any number
static const int textLimit = 200; // characters that are kept of a name or an output
static const int lateMs = 1000;

const double buckets[] = { 0.01, 0.1, 1, 5, 25, 125 };
const char *const stateNames[] = { "unknown", "starting",       "not released",  "running",
                                   "pausing", "reestablishing", "shutting down", "down" };

const LogText logTexts[] = {
    { "********starting new logging session********", Start, RunStarts },
    { "startup *", Start, Nothing },
    { "connected to all required services: run!", Run, Release },
    { "all required services are reestablished: run!", Run, Release },
    { "pausing system due to errors", Pause, Nothing },
    { "connection to * was unexpectedly closed", Pause, Lost },
    { "reestablishing services", Reestablish, Nothing },
    { "shutdown *", Shutdown, Nothing },
    { "system was shutted down", Down, Nothing },
    { "file * does not exist", Unknown, Skip },
    { "still waiting for *", Unknown, Await },
    { "unable to start process *", Unknown, Await },
    { "started * with pid #", Unknown, Launch },
    { "restarted * with pid #", Unknown, Launch },
    { "\"*\" ended unexpectedly with exit status #", Pause, Exit },
    { 0, Unknown, Nothing },
};

// Cuts a number off the end of `text`; false if there is none.
static bool cutNumber(Piece *text, qint64 *number)
{
    size_t digits = 0;
    while (digits < text->size && digits < 9 && strchr("0123456789", text->end()[-1 - int(digits)]))
        ++digits;
    *number = QByteArray(text->end() - digits, int(digits)).toLongLong();
    text->size -= digits;
    return digits > 0;
}

static bool match(const Piece &text, const char *pattern, Statement *statement)
{
    const char *const star = strchr(pattern, '*');
    if (!star || star == pattern) // the first text has asterisks of its own
        return text.size == strlen(pattern) && text.startsWith(pattern);
    const size_t head = size_t(star - pattern), tail = strcspn(star + 1, "#");
    if (text.size <= head || memcmp(text.begin, pattern, head) != 0)
        return false;
    statement->name = text.from(head);
    return (star[1 + tail] != '#' || cutNumber(&statement->name, &statement->number))
        && statement->name.cutEnd(star + 1, tail) && statement->name.size > 0;
}

// Parses "watchdog.cpp        ,  171: text" in a line of keepwatch.
static bool parseTag(const LogLine &line, Piece *text)
{
    if (line.name.size != strlen("keepwatch") || !line.name.startsWith("keepwatch")
        || !(line.text.startsWith("watchdog.cpp ") || line.text.startsWith("logging.cpp ")))
        return false;
    const size_t colon = line.text.find(':');
    *text = line.text.from(qMin(colon + 1, line.text.size)).trimmed();
    return colon < line.text.size;
}

// Parses "\"service\" : \"output\"", whose last quote can be missing. Returns false if `text` is not that.
static bool parseOutput(const Piece &text, Piece *service, Piece *output)
{
    static const char separator[] = "\" : \"";
    if (!text.startsWith("\""))
        return false;
    *service = Piece { text.begin + 1, text.from(1).find('"') };
    *output = text.from(1 + service->size);
    if (!output->startsWith(separator))
        return false;
    *output = output->from(strlen(separator));
    output->cutEnd("\"", 1);
    return true;
}

bool parseStatement(const LogLine &line, Statement *statement)
{
    Piece text, service, output;
    if (!parseTag(line, &text) || parseOutput(text, &service, &output))
        return false;
    *statement = Statement { Unknown, Nothing, Piece { "", 0 }, 0, 1 };
    Piece once = text;
    if (once.cutEnd(" times", 6) && cutNumber(&once, &statement->times) && once.cutEnd(", ", 2))
        text = once;
    else
        statement->times = 1;
    for (const LogText *known = logTexts; known->pattern; ++known) {
        if (!match(text, known->pattern, statement))
            continue;
        statement->enters = known->enters;
        statement->event = known->event;
        break;
    }
    return true;
}

// The name that a module has in the log: of "/opt/zarn5_gui.v2", "zarn5_gui".
static QByteArray logName(const QByteArray &path)
{
    const QByteArray file = path.mid(path.lastIndexOf('/') + 1);
    const int dot = int(file.indexOf('.'));
    return (dot == 0 || file.isEmpty() ? path : file.left(dot < 0 ? file.size() : dot)).left(textLimit);
}

bool isAlike(const QByteArray &service, const QByteArray &module)
{
    const int dot = int(service.lastIndexOf('.'));
    return dot >= 0 && ("_" + module).endsWith("_" + service.mid(dot + 1));
}

// Returns the module that a name in the log means, which is made if there is none. Too many share the last
// one.
static Facts *moduleOf(const QByteArray &name, QList<Facts> *modules)
{
    for (Facts &module : *modules) {
        if (module.value("log_name") == name || module.value("service") == name)
            return &module;
    }
    for (Facts &module : *modules) {
        if (!module.contains("service") && isAlike(name, module.value("log_name")))
            return &module;
    }
    if (modules->size() < listLimit) {
        modules->append(Facts());
        modules->last()["log_name"] = name;
    }
    return &modules->last();
}

void LogState::count(const LogLine &line)
{
    ++lines[line.level];
    late += line.delay > lateMs;
    delaySum += qMax(line.delay, 0);
    int bucket = 0;
    while (bucket < bucketCount && line.delay > buckets[bucket] * 1000)
        ++bucket;
    ++delays[bucket];
    if (line.stamp.size == sizeof last)
        memcpy(last, line.stamp.begin, sizeof last);
}

void LogState::add(const LogLine &line)
{
    Statement statement;
    const bool isOwn = parseStatement(line, &statement);
    const bool starts = isOwn && statement.event == RunStarts;
    if (starts) {
        LogState fresh;
        fresh.facts["log_begin"] = facts.value("log_begin");
        fresh.complete = complete;
        *this = fresh;
    }
    shortened = shortened || (isOwn && statement.times > 1);
    count(line);
    if (!isOwn)
        return addOutput(line);
    if (facts.value("log_begin").isEmpty())
        facts["log_begin"] = line.stamp.bytes();
    if (starts)
        facts["start"] = line.stamp.bytes();
    if (statement.enters != Unknown)
        enter(statement.enters, line.stamp);
    const QByteArray name = statement.name.bytes();
    switch (statement.event) {
    case Release: releases += statement.times; break;
    case Skip: (*moduleOf(logName(name), &modules))["skipped_path"] = name.left(textLimit); break;
    case Launch: set(moduleOf(logName(name), &modules), "log_process", statement.number); break;
    case Exit: exited(statement, line.stamp); break;
    case Await:
        if (state == Unknown)
            enter(Wait, line.stamp);
        if (awaited.contains(name.left(textLimit)))
            awaited.clear(); // the next check begins
        if (awaited.size() < listLimit)
            awaited.append(name.left(textLimit));
        break;
    default: break;
    }
}

void LogState::addOutput(const LogLine &line)
{
    Piece text, service, output;
    complete = true;
    if (!parseTag(line, &text) || !parseOutput(text, &service, &output))
        return;
    const QByteArray name = service.bytes().left(textLimit);
    if (outputs.size() < listLimit || outputs.contains(name))
        outputs[name] = output.bytes().left(textLimit);
}

void LogState::enter(State entered, const Piece &stamp)
{
    awaited.clear();
    if (state == entered)
        return;
    const qint64 time = clock.read(stamp);
    if (entered == Run && gapStart) {
        gap = qMax(qint64(0), time - gapStart);
        unreleased += gap;
        gapStart = 0;
    } else if (entered != Run && !gapStart) {
        gapStart = time;
    }
    state = entered;
    facts["state"] = stateNames[state];
    facts["state_since"] = stamp.bytes();
}

static void increase(Facts *facts, const char *name, qint64 by)
{
    set(facts, name, number(*facts, name) + by);
}

void LogState::exited(const Statement &statement, const Piece &stamp)
{
    Facts &exited = *moduleOf(logName(statement.name.bytes()), &modules);
    const QByteArray before = exited.value("exits_last");
    const bool again = !before.isEmpty() && clock.read(stamp) - clock.read(before) < crashPeriodMs;
    if (before.isEmpty())
        exited["exits_first"] = stamp.bytes();
    if (!again) {
        exited["streak"] = "1";
        exited["streak_since"] = stamp.bytes();
    }
    increase(&exited, "streak", again ? statement.times : 0);
    increase(&exited, "exits", statement.times);
    increase(&exited, "exits_killed", statement.number == 1 ? statement.times : 0);
    exited["exits_last"] = stamp.bytes();
    for (const QByteArray &service : outputs.keys()) {
        if (isAlike(service, exited.value("log_name")))
            exited["last_words"] = outputs.value(service);
    }
}

// Each timestamp gets its time, milliseconds since 1970, and its age, seconds.
static void addFacts(const Facts &added, qint64 now, Clock *clock, Facts *facts)
{
    for (const QByteArray &name : added.keys()) {
        const QByteArray value = added.value(name);
        (*facts)[name] = value;
        if (value.size() != 23 || !startsWithStamp(Piece { value.constData(), 23 }))
            continue;
        set(facts, name + "_time", clock->read(value));
        set(facts, name + "_age", (now - clock->read(value)) / 1000);
    }
}

void LogState::describeLines(Facts *facts) const
{
    for (int level = 0; level < LevelCount; ++level)
        set(facts, QByteArray("lines_") + levelNames[level], lines[level]);
    set(facts, "lines_late", late);
    (*facts)["delay_sum"] = format("%.3f", double(delaySum) / 1000);
    for (int bucket = 0; bucket <= bucketCount; ++bucket)
        set(facts, "delay_bucket_" + QByteArray::number(bucket), delays[bucket]);
}

// Who is awaited. If a name is that of no module, it is not known of the others that they are not.
void LogState::describeAwaited(Report *report) const
{
    const int modules = int(report->modules.size());
    for (const QByteArray &name : awaited) {
        join(&report->facts["awaited"], name);
        set(moduleOf(name, &report->modules), "awaited", 1);
    }
    const bool known = awaited.isEmpty() ? state == Run || state == Shutdown || state == Down
                                         : report->modules.size() == modules;
    for (Facts &module : report->modules) {
        if (known && !module.contains("awaited"))
            set(&module, "awaited", 0);
    }
}

void LogState::describe(qint64 now, Report *report)
{
    const QByteArray stamp(last, *last ? int(sizeof last) : 0);
    const bool isWhole = facts.contains("start");
    if (!now && *last)
        now = clock.read(stamp);
    if (*last)
        facts["log_last"] = stamp;
    if (complete)
        describeLines(&facts);
    if (isWhole) {
        set(&facts, "releases", releases);
        set(&facts, "gap", gap);
    }
    if (isWhole && !shortened)
        set(&facts, "unreleased", unreleased + (gapStart ? qMax(qint64(0), now - gapStart) : 0));
    addFacts(facts, now, &clock, &report->facts);
    for (Facts &module : modules) {
        set(&module, "exits", number(module, "exits"));
        set(&module, "exits_killed", number(module, "exits_killed"));
        if (isWhole)
            set(&module, "skipped", module.contains("skipped_path"));
        addFacts(module, now, &clock, moduleOf(module.value("log_name"), &report->modules));
    }
    describeAwaited(report);
}

qint64 monotonicMs()
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * qint64(1000) + time.tv_nsec / 1000000;
}

void describeLog(int file, qint64 deadline, bool current, Report *report)
{
    static const int linesPerLook = 10000;
    Facts &facts = report->facts;
    struct stat status;
    struct statvfs room;
    if (fstat(file, &status) == 0 && S_ISREG(status.st_mode)) {
        set(&facts, "log_size", qint64(status.st_size));
        if (fstatvfs(file, &room) == 0 && room.f_blocks > 0 && room.f_bavail == 0)
            set(&facts, "log_full", 1);
    }
    LogReader reader(file);
    LogState state;
    Piece line;
    LogLine parsed;
    for (int count = 1; reader.next(&line); ++count) {
        if (parseLine(line, &parsed))
            state.add(parsed);
        if (deadline && count % linesPerLook == 0 && monotonicMs() > deadline) {
            set(&facts, "log_unread", 1);
            return;
        }
    }
    if (reader.error)
        facts["log_error"] = strerror(reader.error);
    if (reader.isEmpty)
        set(&facts, "log_empty", 1);
    if (reader.hasHole)
        set(&facts, "log_hole", 1);
    if (reader.isJson)
        set(&facts, "log_json", 1);
    state.describe(current ? qint64(time(0)) * 1000 : 0, report);
}
