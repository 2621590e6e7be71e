#include "text.h"

#include <QString>

#include <cstdarg>
#include <cstdio>

Piece Piece::trimmed() const
{
    Piece text = *this;
    while (text.size > 0 && *text.begin == ' ')
        text = text.from(1);
    while (text.size > 0 && text.end()[-1] == ' ')
        --text.size;
    return text;
}

bool Piece::cutEnd(const char *text, size_t length)
{
    if (size < length || memcmp(end() - length, text, length) != 0)
        return false;
    size -= length;
    return true;
}

// Returns the length of the UTF-8 character in front, and its code; 0 if there is none.
static size_t readCharacter(const Piece &text, unsigned *code)
{
    const unsigned char first = *text.begin;
    *code = first;
    if (first < 0x80)
        return 1;
    const size_t length = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    const QByteArray character(text.begin, int(qMin(length, text.size)));
    const QString read = QString::fromUtf8(character);
    *code = read.toUcs4().value(0);
    return read.toUtf8() == character ? length : 0;
}

// Returns what stands for a character that cannot be itself. A terminal takes the codes up to U+009F for
// commands; others turn the direction of a line around, so that it reads as another text.
static QByteArray escapeCharacter(unsigned code, Target target)
{
    const bool control = code < 0x20 || (code >= 0x7f && code < 0xa0) || (code >= 0x2028 && code <= 0x202e)
        || (code >= 0x2066 && code <= 0x2069);
    if (control && target == Xml)
        return "\xef\xbf\xbd"; // not even its number is allowed
    if (control)
        return format(target == Terminal && code < 0x100 ? "\\x%02x" : "\\u%04x", code);
    if (target == Json && (code == '"' || code == '\\'))
        return format("\\%c", code);
    if (target == Xml && code < 0x80 && strchr("<>&\"", int(code)))
        return format("&#%u;", code);
    return QByteArray();
}

QByteArray escape(const Piece &text, Target target)
{
    QByteArray escaped;
    escaped.reserve(int(text.size) + 16);
    for (Piece rest = text; rest.size > 0;) {
        unsigned code;
        const size_t length = readCharacter(rest, &code);
        const QByteArray other = length ? escapeCharacter(code, target)
            : target == Terminal        ? format("\\x%02x", *rest.begin & 0xff)
                                        : QByteArray("\xef\xbf\xbd");
        escaped += other.isEmpty() ? QByteArray::fromRawData(rest.begin, int(length)) : other;
        rest = rest.from(length ? length : 1);
    }
    return escaped;
}

QByteArray escape(const QByteArray &text, Target target)
{
    return escape(Piece { text.constData(), size_t(text.size()) }, target);
}

QByteArray format(const char *form, ...)
{
    char text[1001];
    va_list arguments;
    va_start(arguments, form);
    vsnprintf(text, sizeof text, form, arguments);
    va_end(arguments);
    return text;
}

bool holds(const char *condition, const Facts &facts)
{
    for (const QByteArray &word : QByteArray(condition).split(' ')) {
        const bool negated = word.startsWith('!');
        const QList<QByteArray> parts = word.mid(negated ? 1 : 0).split('=');
        const QByteArray value = facts.value(parts[0]);
        const bool isSet = !value.isEmpty() && value != "0";
        if (negated == (parts.size() == 1 ? isSet : value == parts[1]))
            return false;
    }
    return true;
}

QByteArray fill(const QByteArray &form, const Facts &facts)
{
    QList<QByteArray> parts = form.split('{');
    QByteArray text = parts.takeFirst();
    for (const QByteArray &part : parts) {
        const int end = int(part.indexOf('}'));
        const QList<QByteArray> slot = part.left(end).split('?');
        const QByteArray value = facts.value(slot[0]);
        if (slot.size() == 1)
            text += value;
        else if (!value.isEmpty())
            text += QByteArray(slot[1]).replace("%", value);
        text += part.mid(end + 1);
    }
    return text;
}

QByteArray formatAge(qint64 seconds)
{
    if (seconds < 0)
        return "in the future";
    if (seconds < 120)
        return QByteArray::number(seconds) + " s";
    if (seconds < 7200)
        return QByteArray::number(seconds / 60) + " min";
    return seconds < 172800 ? QByteArray::number(seconds / 3600) + " h"
                            : QByteArray::number(seconds / 86400) + " days";
}

void join(QByteArray *list, const QByteArray &item, const char *separator)
{
    *list += (list->isEmpty() ? "" : separator) + item;
}

void complain(const QByteArray &text)
{
    fprintf(stderr, "zarn5ctl: %s\n", escape(text).constData());
}

void print(const QByteArray &text)
{
    fwrite(text.constData(), 1, size_t(text.size()), stdout);
}

bool finishOutput()
{
    if (fflush(stdout) == 0 && !ferror(stdout))
        return true;
    complain("the output cannot be written; make room on its disk");
    return false;
}
