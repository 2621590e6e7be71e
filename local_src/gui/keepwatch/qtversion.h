// The differences between Qt 4.8, 5, and 6, hidden behind common names.
#ifndef QTVERSION_H
#define QTVERSION_H

#include <QProcess>
#include <QTimer>

#if QT_VERSION >= 0x050000
#include <QLoggingCategory>

/** Passes every Qt message of the process to `handler`. */
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
/** Overrides the logging rules of the environment, which would drop log lines. */
inline void passAllMessages()
{
    QLoggingCategory::installFilter([](QLoggingCategory *category) {
        // Qt's own debug messages stay off, as they are without any rule.
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
inline void passAllMessages() { } // Qt 4 has no rules
inline void makePrecise(QTimer &) { } // every timer of Qt 4 is precise
inline qint64 idOf(const QProcess &process)
{
    return process.pid();
}
#endif

/**
 * A process of a module or a command. Use this class instead of QProcess: if fork fails, a plain QProcess of
 * Qt 5 takes -1 for the process ID, and its kill() kills all processes. Qt 5 starts a subclass by fork
 * instead of clone, which does not have this fault.
 */
class ChildProcess : public QProcess
{
};

#if QT_VERSION < 0x060000
#include <QTextCodec>
#include <clocale>
/**
 * Uses UTF-8 if there is no locale, as on many devices. Otherwise Qt 4 would drop all letters beyond ASCII
 * from the log lines.
 */
inline void keepLettersWithoutLocale()
{
    if (qstrcmp(setlocale(LC_CTYPE, 0), "C") == 0)
        QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
}
#else
inline void keepLettersWithoutLocale() { } // Qt 6 always uses UTF-8
#endif

#endif
