// The modules of the device, and what keepwatch and its tools must agree on about them.
#ifndef MODULES_H
#define MODULES_H

#include <QStringList>

#include <dbus/dbus.h>

/** Characters of a process name; the kernel truncates process names to this length. */
static const int processNameLength = 15;

/** Returns the names of all modules, in the order in which keepwatch serves them. To add one, add it here. */
inline QStringList moduleNames()
{
    return QStringList() << QLatin1String("gui") << QLatin1String("uartinterface");
}

/**
 * Returns whether a module can own `service`. Check this before a bus name is watched or called, because
 * libdbus aborts the process on an invalid one. A unique name (":1.2") is valid for libdbus but cannot be
 * owned.
 */
inline bool isServiceName(const QString &service)
{
    return !service.startsWith(QLatin1Char(':')) && dbus_validate_bus_name(service.toUtf8().constData(), 0);
}

#endif
