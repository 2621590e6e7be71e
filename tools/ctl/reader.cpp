#include "reader.h"

#include <cerrno>
#include <ctime>
#include <unistd.h>

static const size_t bufferBytes = 512 << 10;
static const size_t lineBytes = 256 << 10;
static const char stampForm[] = "0000-00-00 00:00:00.000";
static const size_t stampSize = sizeof stampForm - 1;

const char *const levelNames[] = { "error", "warning", "info", "debug", "trace" };

static bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool startsWithStamp(const Piece &text)
{
    if (text.size < stampSize)
        return false;
    for (size_t i = 0; i < stampSize; ++i) {
        if (stampForm[i] == '0' ? !isDigit(text.begin[i]) : stampForm[i] != text.begin[i])
            return false;
    }
    return true;
}

// Parses "[00012] WW " and returns its length; 0 if the line does not begin so.
static size_t parseHead(const Piece &line, LogLine *parsed)
{
    static const char *const marks[] = { "EE", "WW", "  ", "++", "->", "<-" };
    const bool negative = line.size > 1 && line.begin[1] == '-';
    const size_t digits = negative ? 2 : 1;
    size_t i = digits;
    int delay = 0;
    for (; i < line.size && isDigit(line.begin[i]); ++i)
        delay = qMin(delay * 10 + (line.begin[i] - '0'), 200000000);
    const char *const mark = line.begin + i + 2;
    if (i == digits || i + 5 > line.size || line.begin[i] != ']' || mark[-1] != ' ' || mark[2] != ' ')
        return 0;
    parsed->delay = negative ? -delay : delay;
    for (int level = Error; level <= LevelCount; ++level) {
        parsed->level = Level(qMin(level, int(Trace))); // which has two marks
        if (memcmp(mark, marks[level], 2) == 0)
            return i + 5;
    }
    return 0;
}

// Parses "(stamp) name: text".
static void parseRest(const Piece &rest, LogLine *parsed)
{
    parsed->stamp = parsed->name = Piece { "", 0 };
    parsed->text = rest;
    if (rest.size < stampSize + 3 || *rest.begin != '(' || !startsWithStamp(rest.from(1))
        || memcmp(rest.begin + 1 + stampSize, ") ", 2) != 0)
        return;
    parsed->stamp = Piece { rest.begin + 1, stampSize };
    parsed->text = rest.from(stampSize + 3);
    const Piece text = parsed->text;
    const size_t colon = text.find(':');
    if (colon == text.size)
        return;
    parsed->name = Piece { text.begin, colon }.trimmed();
    parsed->text = text.from(colon + 1);
    if (parsed->text.startsWith(" "))
        parsed->text = parsed->text.from(1);
}

bool parseLine(const Piece &line, LogLine *parsed)
{
    if (line.startsWith("{")) // what is inside of JSON is no line with a prefix
        return false;
    size_t head = 0;
    Piece rest = line.from(line.find('['));
    while (rest.size > 0 && !(head = parseHead(rest, parsed)))
        rest = rest.from(1 + rest.from(1).find('['));
    if (head)
        parseRest(rest.from(head), parsed);
    return head;
}

static int readNumber(const char *digits, int size)
{
    int number = 0;
    for (int i = 0; i < size; ++i)
        number = number * 10 + (digits[i] - '0');
    return number;
}

qint64 Clock::read(const Piece &stamp)
{
    if (memcmp(stamp.begin, minute, sizeof minute) != 0) {
        memcpy(minute, stamp.begin, sizeof minute);
        struct tm time = {};
        time.tm_year = readNumber(minute, 4) - 1900;
        time.tm_mon = readNumber(minute + 5, 2) - 1;
        time.tm_mday = readNumber(minute + 8, 2);
        time.tm_hour = readNumber(minute + 11, 2);
        time.tm_min = readNumber(minute + 14, 2);
        time.tm_isdst = -1;
        start = 1000 * qint64(zone == Utc ? timegm(&time) : mktime(&time));
    }
    return start + readNumber(stamp.begin + 17, 2) * qint64(1000) + readNumber(stamp.begin + 20, 3);
}

qint64 Clock::read(const QByteArray &stamp)
{
    return read(Piece { stamp.constData(), size_t(stamp.size()) });
}

QByteArray Clock::write(qint64 time) const
{
    const int ms = int((time % 1000 + 1000) % 1000);
    const time_t seconds = time_t((time - ms) / 1000);
    struct tm parts = {};
    zone == Utc ? gmtime_r(&seconds, &parts) : localtime_r(&seconds, &parts);
    char text[64] = "";
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return QByteArray(text) + format(".%03d", ms);
}

LogReader::LogReader(int descriptor)
    : descriptor(descriptor)
    , buffer(bufferBytes)
    , begin(buffer.data())
    , end(buffer.data())
{
}

// A log that was truncated while keepwatch had it open goes on where it was. What is in front of that need
// not be on the disk, and is not read then. A pipe has no position.
void LogReader::skipHole()
{
    if (lseek(descriptor, 0, SEEK_CUR) != 0)
        return;
    const off_t data = lseek(descriptor, 0, SEEK_DATA);
    hasHole = data > 0;
    if (data < 0 && errno == ENXIO) // there is none
        lseek(descriptor, 0, SEEK_END);
}

// Appends to what is not returned yet; false at the end.
bool LogReader::fill()
{
    if (isEmpty)
        skipHole();
    memmove(buffer.data(), begin, size_t(end - begin));
    end = buffer.data() + (end - begin);
    begin = buffer.data();
    ssize_t count;
    do
        count = read(descriptor, end, bufferBytes - size_t(end - begin));
    while (count < 0 && errno == EINTR);
    error = count < 0 ? errno : 0;
    end += qMax(count, ssize_t(0));
    return count > 0;
}

bool LogReader::next(Piece *line)
{
    for (;;) {
        hasHole = hasHole || (isEmpty && begin < end && *begin == '\0');
        while (begin < end && *begin == '\0') // in front of what is left of a truncated log
            ++begin;
        isJson = isJson || (isEmpty && begin < end && *begin == '{');
        isEmpty = isEmpty && begin == end;
        const Piece all = { begin, size_t(end - begin) };
        *line = Piece { begin, all.find('\n') };
        const bool isWhole = line->size < all.size;
        if (!isWhole && all.size < lineBytes) {
            if (!fill())
                return false;
            continue;
        }
        begin += line->size + isWhole;
        const bool returned = !isRest;
        isRest = !isWhole;
        if (!returned)
            continue;
        // After a power failure, NULs can stand between a line that was cut and the next one.
        if (const void *nul = memrchr(line->begin, '\0', line->size))
            *line = line->from(size_t(static_cast<const char *>(nul) + 1 - line->begin));
        line->cutEnd("\r", 1);
        return true;
    }
}
