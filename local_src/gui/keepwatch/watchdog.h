// The supervisor of the modules, and its module table.
#ifndef WATCHDOG_H
#define WATCHDOG_H

#include "qtversion.h"
#include "settings.h"

#include <QDBusServiceWatcher>
#include <QStringList>

class QDBusInterface;

/**
 * Runs "pgrep name" and returns the process IDs that it prints, in order. Returns an empty list if pgrep
 * cannot be started. Blocks until pgrep exits or prints nothing for 30 s.
 *
 * The caller provides `process` and keeps it alive if pgrep hangs, because the destructor of a running
 * QProcess would log a warning here.
 */
QStringList findProcesses(const QString &name, ChildProcess *process);

/**
 * One supervised module: its settings, with the absolute path of the executable, and its state. Owned by
 * Watchdog; lives as long as the Watchdog object.
 */
struct Module : ModuleSettings
{
    QProcess *process; ///< owned; null while the module has no process
    QDBusInterface *interface; ///< owned; null while the module is not connected
    quint64 outputBytes; ///< bytes read from the process since its launch
    qint32 crashCount; ///< unexpected exits, each within 300 s of the last; argument of the next launch
    QTimer crashCountTimer; ///< resets crashCount 300 s after the last unexpected exit
};

/**
 * Supervises the modules: launches them, watches their processes and bus names, and runs the state machine,
 * one pass per timeout of cyclicTimer. Owns the module table. Runs on the main thread.
 *
 * D-Bus calls and waits for a process block the main thread. A wait for a process can call the slots that
 * are connected to that process before it returns.
 *
 * The texts that this class logs, their spelling included, and the file name in their tags are an interface:
 * zarn5ctl and scripts of operators read them. Never change them, and never move a log statement to another
 * file.
 */
class Watchdog : public QObject
{
    Q_OBJECT

public:
    /**
     * Builds the table of the `modules` whose executables exist, and starts the state machine.
     * `statusModuleName` names the module that receives the status reports.
     */
    Watchdog(const QStringList &modules, const QString &statusModuleName);
    ~Watchdog();

public slots:
    /**
     * Runs both shutdown passes immediately: calls quit() on the connected modules, then kills the rest.
     */
    void forceShutdown();

private slots:
    void onReadStandardOutput();
    void onCrashCountTimer();
    void onCyclicTimer();
    void onStatusTimer();
    void onServiceRegistered(QString name);
    void onServiceUnregistered(QString name);
    void onProcessFinished(int exitCode, QProcess::ExitStatus exitStatus);

private:
    friend class InsideTest;

    /** The supervisor states. The code compares their numbers, so the order matters. */
    enum State {
        StartupQuit = 0, ///< calls quit() on modules that a previous run left
        StartupKill = 1, ///< disconnects all modules and kills stale processes
        StartupLaunch = 2, ///< launches the modules
        StartupWait = 3, ///< waits for the required modules, then releases all connected modules
        Running = 4, ///< normal operation
        Pausing = 5, ///< pauses the connected modules and restarts those without a process
        Reestablishing = 6, ///< waits for the required modules, then releases all connected modules again
        ShutdownQuit = 7, ///< calls quit() on the connected modules
        ShutdownKill = 8, ///< disconnects all modules and kills the processes that still run
        Down = 9 ///< shutdown is complete
    };

    void readModules(const QStringList &modules);

    // Each function executes one pass of the state machine.
    void startupQuit();
    void startupKill();
    void startupLaunch();
    void startupWait();
    void pausing();
    void reestablishing();
    void shutdownQuit();
    void shutdownKill();

    /** Launches every module that has no process but should have one. Returns false if a launch fails. */
    bool launchMissing(const char *wording);
    /** Logs each required module that is not connected. Returns true if there is none. */
    bool allConnected() const;
    /** Releases the modules: calls run(0) on all connected modules, and then run(1). */
    void release();

    /**
     * Launches a module that has no process. `wording` is the verb of the log message: "started" or
     * "restarted". Returns false if the process does not start within 5 s.
     */
    bool launchModule(Module *module, const char *wording);
    /** Sends SIGKILL to every process that pgrep finds for the module's executable. */
    void killUnresponsive(Module *module);
    /** Recreates `interface`. It stays null if the bus name has no owner. */
    void connectModule(Module *module);
    void disconnectModule(Module *module);

    /**
     * Copies the value of the "VmSize:" line of `statusFile` into `memory`. Leaves `memory` unchanged if
     * the file cannot be read or has no such line.
     */
    static void readMemory(const QString &statusFile, QString *memory);

    quint32 state;
    QList<Module *> modules;
    Module *statusModule;
    QString statusModuleName;
    QDBusServiceWatcher serviceWatcher;
    QTimer cyclicTimer;
    QTimer statusTimer;
};

#endif
