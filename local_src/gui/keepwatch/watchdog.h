// The supervisor of the modules and its table.
#ifndef WATCHDOG_H
#define WATCHDOG_H

#include <QDBusServiceWatcher>
#include <QProcess>
#include <QStringList>
#include <QTimer>

class QDBusInterface;

/** One supervised module. Lives as long as the Watchdog object, which owns it. */
struct Module
{
    QString path; ///< absolute path of the executable
    QString service; ///< bus service name
    QProcess *process; ///< owned; null while the module has no process
    QDBusInterface *interface; ///< owned; null while the module is not connected
    bool start; ///< the supervisor starts it
    bool wait; ///< the supervisor waits for its service
    quint64 outputBytes; ///< read from the process since its launch
    qint32 crashCount; ///< unexpected ends in the current period; the launch argument
    QTimer crashCountTimer; ///< ends the period
};

/**
 * Launches the modules, follows their processes and bus services, and leads the system from state
 * to state by the ticks of cyclicTimer. Owns the module table. Lives on the main thread and blocks
 * it in bus calls and process waits; a process wait runs the slots of that process inside.
 */
class Watchdog : public QObject
{
    Q_OBJECT

public:
    /**
     * Builds the table of those `modules` whose executables exist and starts the state machine.
     * `statusModuleName`: the one of them that receives the status reports.
     */
    Watchdog(const QStringList &modules, const QString &statusModuleName);
    ~Watchdog();

public slots:
    /** Runs both shutdown passes at once: asks the modules to quit, kills what is left. */
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

    /** The states of the supervisor. The numbers are tested by range. */
    enum State {
        StartupQuit = 0, ///< asks modules left from an earlier run to quit
        StartupKill = 1, ///< drops the bus connections and removes stale processes
        StartupLaunch = 2, ///< starts the modules' processes
        StartupWait = 3, ///< waits for the required services, then releases the modules
        Running = 4, ///< normal operation
        Pausing = 5, ///< tells the modules to pause and relaunches missing processes
        Reestablishing = 6, ///< waits for the required services, then releases the modules again
        ShutdownQuit = 7, ///< asks the connected modules to quit
        ShutdownKill = 8, ///< drops the bus connections and kills what is left
        Down = 9 ///< nothing further
    };

    void readModules(const QStringList &modules);

    // One pass of the state machine each.
    void startupQuit();
    void startupKill();
    void startupLaunch();
    void startupWait();
    void pausing();
    void reestablishing();
    void shutdownQuit();
    void shutdownKill();

    /** Launches every module that should run and does not; false if a launch failed. */
    bool launchMissing(const char *wording);
    /** Names every awaited module without a connection; false if there is one. */
    bool allConnected() const;
    /** Calls run(0) on all connected modules, and only then run(1). */
    void release();

    /** Starts the process of a module that has none. `wording`: "started" or "restarted". */
    bool launchModule(Module *module, const char *wording);
    /** Sends SIGKILL to whatever pgrep finds under the module's executable name. */
    void killUnresponsive(Module *module);
    /** Makes `interface` anew; it stays null if nobody owns the service. */
    void connectModule(Module *module);
    void disconnectModule(Module *module);

    /** Sets `memory` to the size in the "VmSize:" line of a process status file, if there is one. */
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
