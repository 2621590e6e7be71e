// All in which Qt 4.8, 5 and 6 differ for keepwatch, under one name for the three.
#ifndef QTVERSION_H
#define QTVERSION_H

#include <QProcess>
#include <QTimer>

#if QT_VERSION >= 0x050000
#include <QLoggingCategory>

/** Makes `handler` the end of every message of the process. */
template <void (*handler)(QtMsgType, const char *)> void installMessageHandler()
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        handler(type, text.toLocal8Bit().constData());
    });
}
inline void sendMessage(QtMsgType type, const QString &text)
{
    qt_message_output(type, QMessageLogContext(), text);
}
/** Keeps logging rules of the environment away, which would drop lines. */
inline void passAllMessages()
{
    QLoggingCategory::installFilter([](QLoggingCategory *category) {
        // Debug messages of the library's own categories are off without a rule, too.
        category->setEnabled(QtDebugMsg, qstrcmp(category->categoryName(), "default") == 0);
        category->setEnabled(QtWarningMsg, true);
        category->setEnabled(QtCriticalMsg, true);
    });
}
inline void makePrecise(QTimer &timer)
{
    timer.setTimerType(Qt::PreciseTimer);
}
inline qint64 idOf(const QProcess &process)
{
    return process.processId();
}
#else
template <void (*handler)(QtMsgType, const char *)> void installMessageHandler()
{
    qInstallMsgHandler(handler);
}
inline void sendMessage(QtMsgType type, const QString &text)
{
    qt_message_output(type, text.toLocal8Bit().constData());
}
inline void passAllMessages() { } // there are no rules
inline void makePrecise(QTimer &) { } // always is
inline qint64 idOf(const QProcess &process)
{
    return process.pid();
}
#endif

/**
 * For a plain QProcess Qt 5 clones in a way that takes a failure for a process with the id -1: its kill()
 * then kills every process there is. Not so for any other class.
 */
class ChildProcess : public QProcess
{
};

#if QT_VERSION < 0x060000
#include <QTextCodec>
#include <clocale>
/**
 * Many a device starts its daemons without a locale. Qt 4 takes that for an encoding that lacks most letters,
 * and lines would lose them.
 */
inline void keepLettersWithoutLocale()
{
    if (qstrcmp(setlocale(LC_CTYPE, 0), "C") == 0)
        QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
}
#else
inline void keepLettersWithoutLocale() { } // always does
#endif

#endif
