// The command "plot": draws when the modules were not released, who was the cause, and the delay of the
// lines.
#include "commands.h"
#include "state.h"

#include <QPair>

#include <unistd.h>

static const int cellLimit = 1000, spanLimit = 80, rowSpanLimit = 20,
                 rowLimit = 10; // together at most 200 kB
static const int width = 1000, left = 190, top = 50, height = 260, rowHeight = 20, margin = 20; // pixels
static const int plotWidth = width - left - margin;

namespace {

// A period, or with equal ends an event.
struct Span
{
    qint64 from, to; // milliseconds since 1970
    int count; // of which it was made
};

// Spans in the order of time. If there are too many, those with the smallest gaps become one.
struct Spans
{
    QList<Span> all;
    qint64 gap = 1; // milliseconds

    void add(qint64 from, qint64 to, int limit);
};

void Spans::add(qint64 from, qint64 to, int limit)
{
    all.append(Span { from, qMax(from, to), 1 });
    while (all.size() > limit) {
        QList<Span> merged;
        for (const Span &span : all) {
            if (merged.isEmpty() || span.from - merged.last().to > gap) {
                merged.append(span);
                continue;
            }
            merged.last().to = qMax(merged.last().to, span.to);
            merged.last().count += span.count;
        }
        all = merged;
        if (all.size() > limit / 2) // so it is never more than twice the time of the log
            gap *= 2;
    }
}

// What is drawn of lines that would lie on one another: the one with the largest delay.
struct Cell
{
    qint64 time;
    int delay, count;
};

// The modules that were a cause: when they exited or vanished, and until when all waited for them.
struct Row
{
    QByteArray name;
    Spans bars, marks;
    qint64 blamed = -1; // since when; -1 if it is not
};

// Shaded are the first four.
enum Phase { Starting, Paused, Ended, Silent, Released, Waiting, Undetermined };
const char *const phaseNames[] = { "starting", "pause", "shut down", "silence" };
const char *const phaseColours[] = { "#c8dcff", "#ffe0a0", "#d0d0d0", "#f0c8f0" };

class Plot
{
public:
    void add(const LogLine &line);
    void draw();
    bool isEmpty = true;

private:
    void addCell(const Cell &cell);
    void enter(Phase entered, qint64 at);
    void blame(const QByteArray &name, bool marked);
    double x(qint64 time) const
    {
        return left + plotWidth * double(time - first) / double(range);
    }
    double y(int delay) const
    {
        return top + height - height * double(delay - least) / double(most - least);
    }
    void drawAxes(double bottom) const;
    void drawCells() const;
    void drawSpans(const Spans &spans, double y, double height, const char *colour,
                   const QByteArray &title) const;

    Clock clock = Clock(Clock::Utc); // so that the labels are local again
    qint64 first = 0, last = 0, now = 0, before = 0, range = 1;
    int least = 0, most = 10; // delays
    QMap<QPair<qint64, qint64>, Cell> cells;
    qint64 cellWidth = 1, cellHeight = 1; // milliseconds
    Phase phase = Undetermined;
    qint64 since = 0;
    Spans spans[Released];
    QList<Row> rows;
};

}

void Plot::add(const LogLine &line)
{
    static const Phase entered[]
        = { Undetermined, Starting, Waiting, Released, Paused, Undetermined, Ended, Ended }; // by State
    if (!line.stamp.size)
        return;
    before = isEmpty ? 0 : now;
    now = clock.read(line.stamp);
    first = isEmpty ? now : qMin(first, now);
    last = isEmpty ? now : qMax(last, now);
    since = isEmpty ? now : since;
    isEmpty = false;
    least = qMin(least, line.delay);
    most = qMax(most, line.delay);
    addCell(Cell { now, line.delay, 1 });
    Statement statement;
    if (!parseStatement(line, &statement))
        return;
    if (statement.event == RunStarts && before && phase != Ended)
        enter(Silent, before); // nobody saw the end of the run before
    if (statement.event == Await)
        enter(Waiting, now);
    else if (entered[statement.enters] != Undetermined)
        enter(entered[statement.enters], now);
    if (statement.event == Exit || statement.event == Lost || statement.event == Await)
        blame(statement.name.bytes().left(60), statement.event != Await);
}

void Plot::addCell(const Cell &cell)
{
    Cell &known = cells[qMakePair(cell.time / cellWidth, qint64(cell.delay) / cellHeight)];
    const int count = known.count + cell.count;
    known = known.count && known.delay >= cell.delay ? known : cell;
    known.count = count;
    if (cells.size() <= cellLimit)
        return;
    ((last - first) / cellWidth > plotWidth ? cellWidth : cellHeight) *= 2;
    const QList<Cell> old = cells.values();
    cells.clear();
    for (const Cell &kept : old)
        addCell(kept);
}

void Plot::enter(Phase entered, qint64 at)
{
    if (phase == Undetermined) // a release or a wait shows that there was none before
        phase = entered == Starting                     ? Starting
            : entered == Released || entered == Waiting ? Paused
                                                        : Released;
    if (entered == Waiting || entered == phase)
        return;
    if (phase < Released)
        spans[phase].add(since, at, spanLimit);
    if (entered != Paused || phase == Ended) {
        for (Row &row : rows) {
            if (row.blamed >= 0)
                row.bars.add(row.blamed, at, rowSpanLimit);
            row.blamed = -1;
        }
    }
    phase = entered;
    since = at;
}

// A module and its service have a row in common. Too many share the last one.
void Plot::blame(const QByteArray &name, bool marked)
{
    const bool isFull = rows.size() >= rowLimit;
    int i = 0;
    while (i < rows.size() && rows[i].name != name && !isAlike(name, rows[i].name)
           && !isAlike(rows[i].name, name) && !(isFull && rows[i].name == "others"))
        ++i;
    if (i == rows.size()) {
        rows.append(Row());
        rows[i].name = isFull ? QByteArray("others") : name;
    }
    rows[i].blamed = rows[i].blamed < 0 ? now : rows[i].blamed;
    if (marked)
        rows[i].marks.add(now, now, rowSpanLimit);
}

static void printText(double x, double y, const char *anchor, const QByteArray &text)
{
    print(format("<text x=\"%.1f\" y=\"%.0f\" text-anchor=\"%s\">", x, y, anchor) + escape(text, Xml)
          + "</text>\n");
}

// At most eight times, which are round.
void Plot::drawAxes(double bottom) const
{
    qint64 step = 1; // seconds
    for (int next :
         { 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400 })
        step = range / 1000 / step > 8 ? next : step;
    while (range / 1000 / step > 8)
        step *= 2;
    for (qint64 at = (first / 1000 / step + 1) * step; at * 1000 <= first + range; at += step) {
        const QByteArray stamp = clock.write(at * 1000);
        print(format("<path d=\"M%.1f %dV%.0f\" stroke=\"#ccc\"/>", x(at * 1000), top, bottom));
        printText(x(at * 1000), bottom + 15, "middle",
                  step < 86400 ? stamp.mid(11, step < 60 ? 8 : 5) : stamp.left(10));
    }
    printText(left, bottom + 32, "start", clock.write(first) + " to " + clock.write(last));
    for (int delay : { 0, most / 2, most })
        printText(left - 8, y(delay) + 4, "end", QByteArray::number(delay) + " ms");
}

// A stroke without a length has round ends, which are a point.
void Plot::drawCells() const
{
    print("<g stroke=\"#2060a0\" stroke-width=\"5\" stroke-linecap=\"round\">\n");
    for (const Cell &cell : cells)
        print(format("<path d=\"M%.0f %.0fh0\"><title>%s: %d ms, %d lines</title></path>\n", x(cell.time),
                     y(cell.delay), clock.write(cell.time).constData(), cell.delay, cell.count));
    print("</g>\n");
}

// At least so wide that they can be seen, and hit by a mouse.
void Plot::drawSpans(const Spans &spans, double y, double height, const char *colour,
                     const QByteArray &title) const
{
    print(QByteArray("<g fill=\"") + colour + "\">\n");
    for (const Span &span : spans.all) {
        QByteArray text = title;
        if (span.count > 1)
            text += format(", %d times", span.count);
        text += ": " + clock.write(span.from);
        if (span.to > span.from)
            text += " to " + clock.write(span.to) + format(", %.1f s", double(span.to - span.from) / 1000);
        print(format("<rect x=\"%.1f\" y=\"%.0f\" width=\"%.1f\" height=\"%.0f\"><title>", x(span.from), y,
                     qMax(3.0, x(span.to) - x(span.from)), height)
              + escape(text, Xml) + "</title></rect>\n");
    }
    print("</g>\n");
}

void Plot::draw()
{
    const bool isKnown = phase != Undetermined;
    now = last;
    enter(Released, last);
    range = qMax(last - first, qint64(10000));
    const double bottom = top + height + (rows.isEmpty() ? 0 : margin + rowHeight * int(rows.size()));
    print(format(
              "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %d %.0f\" font-family=\"sans-serif\" ",
              width, bottom + 45)
          + "font-size=\"12\"><rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n");
    if (!isKnown)
        printText(left, 20, "start", "keepwatch itself says nothing in this log: releases are not known");
    for (int i = 0; i < Released; ++i) {
        const double legend = left + 110 * i;
        print(format("<rect x=\"%.0f\" y=\"28\" width=\"12\" height=\"12\" fill=\"%s\"/>", legend,
                     phaseColours[i]));
        printText(legend + 18, 39, "start", phaseNames[i]);
        drawSpans(isKnown ? spans[i] : Spans(), top, height, phaseColours[i], phaseNames[i]);
    }
    drawAxes(bottom);
    drawCells();
    double y = top + height + margin;
    for (const Row &row : rows) {
        printText(left - 8, y + 14, "end", row.name.left(28));
        drawSpans(row.bars, y + 3, rowHeight - 6, "#f0a030", "wait for " + row.name);
        drawSpans(row.marks, y + 5, rowHeight - 10, "#d00000", "exit or loss of " + row.name);
        y += rowHeight;
    }
    print("</svg>\n");
}

int plotCommand(const Options &options)
{
    if (isatty(STDOUT_FILENO)) {
        complain("the picture goes to a file: zarn5ctl plot LOG >FILE.svg");
        return 2;
    }
    const int file = openLog(options.log);
    if (file < 0)
        return 2;
    LogReader reader(file);
    LogLine parsed;
    Plot plot;
    for (Piece line; reader.next(&line);) {
        if (parseLine(line, &parsed))
            plot.add(parsed);
    }
    if (plot.isEmpty || reader.error) {
        complain(reader.error ? strerror(reader.error) : "no line of this log has a timestamp");
        return 1;
    }
    plot.draw();
    return finishOutput() ? 0 : 1;
}
