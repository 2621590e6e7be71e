// The settings of keepwatch, with their defaults.
#ifndef SETTINGS_H
#define SETTINGS_H

#include <QString>

class QSettings;

/** The section of one module. */
struct ModuleSettings
{
    QString path; ///< path of the executable, as written
    QString service; ///< D-Bus bus name; can be invalid, see isServiceName
    bool start; ///< whether keepwatch launches the module
    bool wait; ///< whether a release waits for the module
};

/** The section "logging". */
struct LoggingSettings
{
    QString telegramFile; ///< path; empty if there is no telegram file
    QString logFile; ///< path; empty if there is no log file
    bool useSyslog; ///< syslog in place of stdout
    bool suppressDebug; ///< drops plain debug messages
    bool suppressTrace; ///< drops trace messages
};

/** Reads the section of the module `name`. A missing or unreadable file yields the defaults. */
ModuleSettings readModuleSettings(const QSettings &settings, const QString &name);

/** Reads the section "logging". A missing or unreadable file yields the defaults. */
LoggingSettings readLoggingSettings(const QSettings &settings);

#endif
