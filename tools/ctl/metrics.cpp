// The metrics of a keepwatch. What is not known is left out.
#include "commands.h"
#include "state.h"

namespace {

// Samples, each family under the heading that comes with its first one.
class Writer
{
public:
    QByteArray text;

    // `value`: of its only sample
    void family(const char *name, const char *type, const char *help, const QByteArray &value = QByteArray())
    {
        current = QByteArray("keepwatch_") + name;
        heading = "# HELP " + current + " " + help + "\n# TYPE " + current + " " + type + "\n";
        sample(value);
    }
    void sample(const QByteArray &value, const QByteArray &labels = QByteArray(), const char *suffix = "")
    {
        if (value.isEmpty())
            return;
        text += heading + current + suffix + (labels.isEmpty() ? labels : "{" + labels + "}") + " " + value
            + "\n";
        heading.clear();
    }

private:
    QByteArray current, heading;
};

}

// Of bytes and quotes that not every reader of a label takes, question marks remain.
static QByteArray labelOf(const Facts &module)
{
    QByteArray label = module.value("log_name");
    for (int i = 0; i < label.size(); ++i) {
        if (label.at(i) < ' ' || label.at(i) > '~' || strchr("\"\\", label.at(i)))
            label[i] = '?';
    }
    return "module=\"" + label + "\"";
}

static QByteArray secondsOf(const Facts &facts, const char *milliseconds)
{
    return facts.contains(milliseconds) ? format("%.3f", double(number(facts, milliseconds)) / 1000)
                                        : QByteArray();
}

static QByteArray flag(bool value)
{
    return value ? "1" : "0";
}

// Empty if it is not known. A keepwatch that does not run does not answer.
static QByteArray aliveOf(const Facts &facts)
{
    if (holds("up=0", facts) || holds("bus=silent", facts) || holds("bus=gone", facts))
        return "0";
    if (!facts.contains("connections"))
        return QByteArray();
    return flag(number(facts, "connections") >= 2 && facts.contains("silent") && !holds("silent", facts));
}

static void writeState(const Facts &facts, Writer *writer)
{
    const QByteArray state = facts.value("state");
    const bool dead = holds("up=0 !state=down", facts), known = !state.isEmpty() && state != stateNames[Wait];
    writer->family("up", "gauge", "Whether a process called keepwatch is there.", facts.value("up"));
    writer->family("alive", "gauge", "Whether keepwatch answers on its bus.", aliveOf(facts));
    writer->family("state", "gauge",
                   "1 for the state that keepwatch is in, 0 for the others; 0 for all if it is dead.");
    for (int i = Start; known && i <= Down; ++i) {
        if (i != Wait)
            writer->sample(flag(!dead && state == stateNames[i]),
                           "state=\"" + QByteArray(stateNames[i]).replace(' ', '_') + "\"");
    }
    writer->family("state_since_timestamp_seconds", "gauge", "When keepwatch entered its state.",
                   known && !dead ? secondsOf(facts, "state_since_time") : QByteArray());
    writer->family("released", "gauge", "Whether keepwatch is there and has released its modules.",
                   state.isEmpty() ? state : flag(!dead && state == "running"));
    writer->family("releases_total", "counter", "Releases since keepwatch started.", facts.value("releases"));
    writer->family("not_released_seconds", "gauge", "Time without a release since keepwatch started.",
                   secondsOf(facts, "unreleased"));
    writer->family("session_start_timestamp_seconds", "gauge", "When keepwatch started.",
                   secondsOf(facts, "start_time"));
}

static QByteArray upOf(const Facts &facts, const Facts &module)
{
    if (module.contains("answers") || facts.value("bus") != "answers")
        return module.value("answers");
    return module.contains("name") && facts.contains("silent") ? "0" : "";
}

static void writeModules(const Report &report, Writer *writer)
{
    writer->family("module_up", "gauge", "Whether the module answers on its bus.");
    for (const Facts &module : report.modules)
        writer->sample(upOf(report.facts, module), labelOf(module));
    writer->family("module_ends_total", "counter", "Unexpected exits of the module since keepwatch started.");
    for (const Facts &module : report.modules) {
        if (!report.facts.contains("start") || !module.contains("exits"))
            continue;
        const qint64 killed = number(module, "exits_killed"), others = number(module, "exits") - killed;
        writer->sample(QByteArray::number(killed), labelOf(module) + ",cause=\"signal\"");
        writer->sample(QByteArray::number(others), labelOf(module) + ",cause=\"exit\"");
    }
    writer->family("module_last_end_timestamp_seconds", "gauge", "When the module exited unexpectedly last.");
    for (const Facts &module : report.modules)
        writer->sample(secondsOf(module, "exits_last_time"), labelOf(module));
    writer->family("module_left_out", "gauge", "Whether there was no such program when keepwatch started.");
    for (const Facts &module : report.modules)
        writer->sample(module.value("skipped"), labelOf(module));
    writer->family("module_awaited", "gauge",
                   "Whether keepwatch waits for the module, its launch or its service.");
    for (const Facts &module : report.modules)
        writer->sample(report.facts.value("up") == "0" ? QByteArray() : module.value("awaited"),
                       labelOf(module));
}

static void writeLines(const Facts &facts, Writer *writer)
{
    if (!facts.contains("lines_late"))
        return;
    writer->family("log_lines_total", "counter",
                   "Lines in this log since its beginning, or since the last start in it.");
    for (const char *level : levelNames)
        writer->sample(facts.value(QByteArray("lines_") + level), "level=\"" + QByteArray(level) + "\"");
    writer->family("log_late_lines_total", "counter",
                   "Lines of log_lines_total that came more than a second after their timestamp.",
                   facts.value("lines_late"));
    writer->family("log_delay_seconds", "histogram",
                   "Time from timestamp to arrival of the lines of log_lines_total.");
    qint64 count = 0;
    for (int i = 0; i <= bucketCount; ++i) {
        count += number(facts, "delay_bucket_" + QByteArray::number(i));
        const QByteArray bound = i < bucketCount ? format("%g", buckets[i]) : QByteArray("+Inf");
        writer->sample(QByteArray::number(count), "le=\"" + bound + "\"", "_bucket");
    }
    writer->sample(facts.value("delay_sum"), QByteArray(), "_sum");
    writer->sample(QByteArray::number(count), QByteArray(), "_count");
}

QByteArray metricsOf(const Report &report)
{
    Writer writer;
    writeState(report.facts, &writer);
    writeModules(report, &writer);
    writeLines(report.facts, &writer);
    return writer.text;
}
