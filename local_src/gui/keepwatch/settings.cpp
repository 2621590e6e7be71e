#include "settings.h"

#include <QSettings>

// A text that is not a number, such as "true", reads as 0.
static bool readFlag(const QSettings &settings, const QString &key)
{
    return settings.value(key, 1).toInt() != 0;
}

ModuleSettings readModuleSettings(const QSettings &settings, const QString &name)
{
    ModuleSettings module;
    module.path = settings.value(name + QLatin1String("/path"), QLatin1String("zarn5_") + name).toString();
    module.start = readFlag(settings, name + QLatin1String("/start"));
    module.wait = readFlag(settings, name + QLatin1String("/wait"));
    module.service
        = settings.value(name + QLatin1String("/service"), QLatin1String("com.qel.zarn5.") + name).toString();
    return module;
}

LoggingSettings readLoggingSettings(const QSettings &settings)
{
    const QString off = QLatin1String("false"); // any other text turns syslog on
    LoggingSettings logging;
    logging.telegramFile = settings.value(QLatin1String("logging/telegramfile")).toString();
    logging.logFile = settings.value(QLatin1String("logging/logfile")).toString();
    logging.useSyslog = settings.value(QLatin1String("logging/syslog"), off).toString() != off;
    logging.suppressDebug = readFlag(settings, QLatin1String("logging/debug"));
    logging.suppressTrace = readFlag(settings, QLatin1String("logging/trace"));
    return logging;
}
