// The command "log": a row per line of a log.
#include "commands.h"
#include "reader.h"

// A line that is no log line belongs to the text of the one before.
static void printRow(const Piece &line, Form form, Clock *clock)
{
    LogLine parsed = {};
    const bool isLine = parseLine(line, &parsed);
    const Target target = form == JsonLines ? Json : Terminal;
    QByteArray arrival, delay, level, name, text = escape(isLine ? parsed.text : line, target);
    if (isLine) {
        delay = QByteArray::number(parsed.delay);
        level = levelNames[parsed.level];
        name = escape(parsed.name, target);
        if (parsed.stamp.size)
            arrival = clock->write(clock->read(parsed.stamp) + parsed.delay);
    }
    if (form == JsonLines)
        print("{\"arrival\":" + (arrival.isEmpty() ? "null" : "\"" + arrival + "\"")
              + ",\"delay\":" + (isLine ? delay : "null") + ",\"level\":\"" + level + "\",\"module\":\""
              + name + "\",\"text\":\"" + text + "\"}\n");
    else if (form == Rows)
        print(arrival + "\t" + delay + "\t" + level + "\t" + name + "\t" + text + "\n");
    else
        print(arrival.leftJustified(23) + delay.rightJustified(7) + " ms " + level.leftJustified(8)
              + name.leftJustified(16) + text + "\n");
}

int logCommand(const Options &options)
{
    const int file = openLog(options.log);
    if (file < 0)
        return 2;
    LogReader reader(file);
    Clock clock(Clock::Utc); // written as it was read, it is the local time of the log
    for (Piece line; reader.next(&line);)
        printRow(line, options.form, &clock);
    if (reader.error)
        complain("the log cannot be read further: " + QByteArray(strerror(reader.error)));
    return finishOutput() && !reader.error ? 0 : 1;
}
