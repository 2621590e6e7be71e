// Pieces of text, and how texts of others are printed.
#ifndef TEXT_H
#define TEXT_H

#include <QByteArray>
#include <QList>
#include <QMap>

#include <cstring>

/** What is known, by name. What is not known is absent, and never reads as 0 by accident. */
typedef QMap<QByteArray, QByteArray> Facts;

inline qint64 number(const Facts &facts, const QByteArray &name)
{
    return facts.value(name).toLongLong();
}

inline void set(Facts *facts, const QByteArray &name, qint64 number)
{
    (*facts)[name] = QByteArray::number(number);
}

/** What is known about a keepwatch. */
struct Report
{
    Facts facts;
    QList<Facts> modules;
};

/** A piece of a buffer that somebody else owns. Any byte can be in it. */
struct Piece
{
    const char *begin;
    size_t size;

    const char *end() const
    {
        return begin + size;
    }
    QByteArray bytes() const
    {
        return QByteArray(begin, int(size));
    }
    Piece from(size_t at) const
    {
        return Piece { begin + at, size - at };
    } ///< `at` is at most `size`
    size_t find(char c) const
    {
        const void *const at = memchr(begin, c, size);
        return at ? size_t(static_cast<const char *>(at) - begin) : size;
    } ///< `size` if there is none
    Piece trimmed() const; ///< without blanks on both sides
    bool startsWith(const char *text) const
    {
        return size >= strlen(text) && memcmp(begin, text, strlen(text)) == 0;
    }
    bool cutEnd(const char *text, size_t length); ///< cuts `text` off; false if it is not the end
};

/** Where a text goes, and so which characters are escaped in it. Xml: also in an attribute. */
enum Target { Terminal, Json, Xml };

/** Returns `text` as UTF-8 of which nothing can act on the target; in JSON, in the quotes of a string. */
QByteArray escape(const Piece &text, Target target = Terminal);
QByteArray escape(const QByteArray &text, Target target = Terminal);

/** Returns a text of at most 1000 characters in the format of printf. */
QByteArray format(const char *form, ...) __attribute__((format(printf, 1, 2)));

/**
 * Returns whether each word of `condition` is true: "name" if the fact is known and not 0, "name=value" if it
 * is that, and both with "!" in front if not.
 */
bool holds(const char *condition, const Facts &facts);

/**
 * Returns `form` with facts in it: for "{name}" the value, and for "{name?text}" the text, with the value for
 * "%", if there is a value.
 */
QByteArray fill(const QByteArray &form, const Facts &facts);

/** Returns a time span as "5 s", "3 min", "7 h", or "12 days". */
QByteArray formatAge(qint64 seconds);

/** Appends `item` to a list of words. */
void join(QByteArray *list, const QByteArray &item, const char *separator = ", ");

/** Writes what is wrong and what to do to standard error, escaped. */
void complain(const QByteArray &text);

/** Writes `text` to standard output; finishOutput tells whether all has arrived, otherwise why not. */
void print(const QByteArray &text);
bool finishOutput();

#endif
