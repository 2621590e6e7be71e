#include "text.h"

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
    static const unsigned smallest[] = { 0, 0, 0x80, 0x800, 0x10000 };
    const unsigned char first = text.begin[0];
    const size_t length = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    *code = length == 1 ? first : first & (0x7f >> length);
    if (length > text.size || (first >= 0x80 && first < 0xc2))
        return 0;
    for (size_t i = 1; i < length; ++i) {
        if ((text.begin[i] & 0xc0) != 0x80)
            return 0;
        *code = *code << 6 | (text.begin[i] & 0x3f);
    }
    const bool surrogate = *code >= 0xd800 && *code < 0xe000;
    return *code < smallest[length] || *code > 0x10ffff || surrogate ? 0 : length;
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

void print(const QByteArray &text)
{
    fwrite(text.constData(), 1, size_t(text.size()), stdout);
}

bool finishOutput()
{
    if (fflush(stdout) == 0 && !ferror(stdout))
        return true;
    fputs("zarn5ctl: the output cannot be written; make room on its disk\n", stderr);
    return false;
}
