// Reads logs of keepwatch, whatever is in them, in constant memory.
#ifndef READER_H
#define READER_H

#include "text.h"

#include <vector>

enum Level { Error, Warning, Info, Debug, Trace, LevelCount };
extern const char *const levelNames[LevelCount];

/** A log line. The pieces are parts of the line that was parsed. */
struct LogLine
{
    Level level;
    int delay; ///< milliseconds from the timestamp to the arrival; negative if the clocks differ
    Piece stamp; ///< "yyyy-MM-dd hh:mm:ss.zzz"; empty if the line has none
    Piece name; ///< who published it, without padding; empty without a timestamp
    Piece text; ///< the rest
};

/** Parses a line, with or without a prefix of syslog. Returns false if it is not a log line. */
bool parseLine(const Piece &line, LogLine *parsed);

/** Returns whether `text` begins with a timestamp. */
bool startsWithStamp(const Piece &text);

/** Reads and writes timestamps, as local time or as UTC. Remembers the current minute, so it is fast for a
 * log. */
class Clock
{
public:
    enum Zone { Local, Utc };
    explicit Clock(Zone zone)
        : zone(zone)
    {
    }
    qint64 read(const Piece &stamp); ///< returns milliseconds since 1970
    qint64 read(const QByteArray &stamp);
    QByteArray write(qint64 time) const; ///< `time`: milliseconds since 1970

private:
    Zone zone;
    char minute[16] = {}; // "yyyy-MM-dd hh:mm"
    qint64 start = 0; // of that minute, milliseconds since 1970
};

/**
 * Splits a log into lines. A last line without a line end is not complete yet and not returned. Of a line of
 * more than 256 kB the rest is dropped.
 */
class LogReader
{
public:
    /** Reads from `descriptor`, which stays with the caller. */
    explicit LogReader(int descriptor);

    /** Moves `line` to the next line, which is valid until the next call; false at the end. */
    bool next(Piece *line);

    int error = 0; ///< number of a failed read
    bool isEmpty = true; ///< there was nothing but NULs
    bool hasHole = false; ///< it was truncated while it was written
    bool isJson = false; ///< its first line begins with a brace

private:
    bool fill();
    void skipHole();

    int descriptor;
    bool isRest = false; // of a line that is too long
    std::vector<char> buffer;
    char *begin, *end; // of what is not returned yet
};

#endif
