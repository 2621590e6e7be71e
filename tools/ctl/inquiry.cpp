#include "inquiry.h"

#include "bus.h"
#include "check.h"
#include "commands.h"
#include "modules.h"
#include "place.h"
#include "settings.h"

#include <QDataStream>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static const int graceMs = 300; // for an inquiry that keeps its time limit to hand over what it knows

namespace {

// One inquiry, in the process that takes the daemon's place.
class Asker
{
public:
    Process daemon; // with the id 0 if none runs
    Inquiry inquiry;
    int pipe; // for the report

    void run();

private:
    void send() const;
    qint64 answerEnd() const;
    QByteArray placed(const QString &path) const;
    void readSettings();
    void findLog(const LoggingSettings &settings);
    void judgeUnwritten(const QByteArray &path);
    void askBus();
    bool askNames(Bus *bus);
    void askLives(Bus *bus);

    QList<WrittenFile> files;
    QList<int> ids; // of the daemon
    QByteArray prefix; // of absolute paths
    int log = -1; // the file to follow
    qint64 deadline; // milliseconds of the monotonic clock
    QList<QByteArray> connections; // of the daemon
    Report report;
    Facts &facts = report.facts;
};

}

// The whole report each time, since nobody knows what comes next. It is small.
void Asker::send() const
{
    QByteArray text;
    QDataStream stream(&text, QIODevice::WriteOnly);
    stream << facts << report.modules;
    if (write(pipe, text.constData(), size_t(text.size())) < 0)
        _exit(1); // nobody waits for it any more
}

qint64 Asker::answerEnd() const
{
    return qMin(monotonicMs() + inquiry.answerMs, deadline);
}

void Asker::run()
{
    deadline = monotonicMs() + inquiry.limitMs;
    if (daemon.id) {
        files = openWrittenFiles(daemon.id);
        ids = namespaceIds(daemon.id);
        if (!takePlace(daemon.id, &prefix, &facts["problem"]))
            return send();
        facts.remove("problem");
        prctl(PR_SET_PDEATHSIG, SIGKILL); // which a change of the user has cleared
        facts["since"] = Clock(Clock::Local).write(startTime(daemon));
    }
    readSettings();
    send();
    if (daemon.id)
        askBus();
    send();
    if (log >= 0)
        describeLog(log, deadline, daemon.id != 0, &report);
    send();
}

QByteArray Asker::placed(const QString &path) const
{
    return QFileInfo(path).isAbsolute() ? prefix + QFile::encodeName(path) : QFile::encodeName(path);
}

void Asker::readSettings()
{
    actAsKeepwatch();
    const QSettings settings;
    if (QFile::exists(settings.fileName()))
        facts["settings"] = QFile::encodeName(settings.fileName());
    for (const QString &name : moduleNames()) {
        const ModuleSettings read = readModuleSettings(settings, name);
        const QFileInfo file(read.path);
        Facts module;
        module["name"] = name.toUtf8();
        module["path"] = QFile::encodeName(file.absoluteFilePath());
        module["log_name"] = QFile::encodeName(file.baseName());
        module["service"] = read.service.toUtf8();
        set(&module, "launched", read.start);
        set(&module, "required", read.wait);
        set(&module, "exists", access(placed(read.path).constData(), F_OK) == 0);
        report.modules.append(module);
    }
    if (inquiry.log)
        findLog(readLoggingSettings(settings));
}

static bool isSame(const WrittenFile &file, const QByteArray &path)
{
    struct stat status;
    return stat(path.constData(), &status) == 0 && file.inode == status.st_ino
        && file.device == status.st_dev;
}

// The daemon writes the file that the settings name, or one that had this name, or none.
void Asker::findLog(const LoggingSettings &settings)
{
    const QByteArray path = placed(settings.logFile), telegramFile = placed(settings.telegramFile);
    const bool hasFile = !path.isEmpty();
    facts["log"] = settings.useSyslog ? "syslog" : "standard output";
    if (hasFile)
        facts["log"] = QFile::encodeName(QFileInfo(settings.logFile).absoluteFilePath());
    Finding trouble;
    if (hasFile && !daemon.id)
        log = openLog(path, &trouble);
    const WrittenFile *written = 0;
    bool isFound = false;
    for (const WrittenFile &file : files) {
        const bool isLog
            = hasFile ? isSame(file, path) : !settings.useSyslog && file.descriptor == STDOUT_FILENO;
        if (isLog || (hasFile && !isFound && file.descriptor > STDERR_FILENO && !isSame(file, telegramFile)))
            written = &file;
        isFound = isFound || isLog;
    }
    if (!written && hasFile && daemon.id)
        judgeUnwritten(path);
    if (!written)
        return;
    log = written->file;
    facts["log_file"] = written->path;
    set(&facts, "log_descriptor", written->descriptor);
    if (log < 0)
        facts["log_problem"] = "unreadable";
    else if (!isFound)
        facts["log_problem"] = written->path.endsWith(" (deleted)") ? "deleted" : "moved";
}

void Asker::judgeUnwritten(const QByteArray &path)
{
    const QByteArray folder = path.left(path.lastIndexOf('/') + 1) + ".";
    const bool possible = access(path.constData(), W_OK) == 0
        || (errno == ENOENT && access(folder.constData(), W_OK | X_OK) == 0);
    facts["log_problem"] = possible ? "unwritten" : "unwritable";
    if (!possible)
        facts["log_refusal"] = strerror(errno);
}

void Asker::askBus()
{
    QByteArray address = busAddress();
    facts["bus_address"] = address;
    facts["bus"] = "unknown";
    if (address.isEmpty())
        return;
    const qint64 begin = monotonicMs();
    Bus bus;
    facts["bus"] = bus.open(address.replace("unix:path=", "unix:path=" + prefix), answerEnd());
    if (facts["bus"] != "answers")
        return;
    set(&facts, "bus_ms", monotonicMs() - begin);
    if (!askNames(&bus)) {
        facts["bus"] = "silent";
        return;
    }
    send(); // the others may be silent until the time is over
    askLives(&bus);
}

// Whose the names on the bus are. False if the bus daemon does not answer. The connections stay unknown if
// the bus daemon, in a PID namespace of its own, knows other process IDs.
bool Asker::askNames(Bus *bus)
{
    const qint64 end = answerEnd();
    const size_t list = bus->askDaemon("ListNames");
    bus->wait(end);
    const QList<QByteArray> names = bus->names(list);
    for (const QByteArray &name : names)
        bus->askDaemon("GetConnectionUnixProcessID", name);
    if (!bus->wait(end) || names.isEmpty())
        return false;
    bool isComparable = false;
    for (int i = 0; i < names.size(); ++i) {
        const qint64 owner = bus->number(list + 1 + size_t(i));
        if (names[i].startsWith(':') && ids.contains(int(owner)))
            connections.append(names[i]);
        isComparable = isComparable || ids.contains(int(owner)) || owner == getpid();
        for (Facts &module : report.modules) {
            if (module.value("service") == names[i] && !names[i].startsWith(':'))
                set(&module, "owner", owner);
        }
    }
    if (isComparable)
        set(&facts, "connections", connections.size());
    return true;
}

// All at once. Introspection is answered by the main loop of a module, and leaves no line in the log.
void Asker::askLives(Bus *bus)
{
    QMap<QByteArray, size_t> questions; // by name
    for (const QByteArray &name : connections)
        questions[name] = bus->ask(name, "/", "org.freedesktop.DBus.Peer", "Ping");
    for (const Facts &module : report.modules) {
        const QByteArray name = module.value("service");
        if (inquiry.modules && module.contains("owner"))
            questions[name] = bus->ask(name, "/", "org.freedesktop.DBus.Introspectable", "Introspect");
    }
    bus->wait(answerEnd());
    facts["silent"] = "";
    for (const QByteArray &name : connections) {
        // The bus daemon replies for a connection that has ended.
        if (!bus->isAnswered(questions[name]) || bus->isError(questions[name]))
            join(&facts["silent"], name, " ");
    }
    for (Facts &module : report.modules) {
        if (!questions.contains(module.value("service")))
            continue;
        const size_t question = questions[module.value("service")];
        set(&module, "answers", bus->isAnswered(question));
        if (bus->isAnswered(question))
            set(&module, "ms", bus->milliseconds(question));
    }
}

namespace {

struct Answer
{
    pid_t asker;
    int pipe;
};

}

// The asker takes the place of a user, and must not reach the terminal of another one.
static Answer startAsker(const Process &daemon, const Inquiry &inquiry)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return { -1, -1 };
    const pid_t asker = fork();
    if (asker == 0) {
        const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
            dup2(null, stream);
        close(ends[0]);
        setsid();
        Asker asker;
        asker.daemon = daemon;
        asker.inquiry = inquiry;
        asker.pipe = ends[1];
        asker.run();
        _exit(0);
    }
    close(ends[1]);
    return { asker, ends[0] };
}

// Reads what comes until the time is over, and returns the last whole report. The asker can hang in the
// kernel, so nobody waits for its exit.
static Report finishAsker(const Answer &answer, qint64 end)
{
    static const int limit = 4000000;
    QByteArray text;
    char buffer[4096];
    struct pollfd input = { answer.pipe, POLLIN, 0 };
    while (text.size() < limit) {
        const int ready = poll(&input, 1, int(qMax(qint64(0), end - monotonicMs())));
        const ssize_t count = ready > 0 ? read(answer.pipe, buffer, sizeof buffer) : 0;
        if (ready == 0 || (ready > 0 && count <= 0))
            break;
        text.append(buffer, int(count));
    }
    close(answer.pipe);
    if (answer.asker > 0) {
        kill(answer.asker, SIGKILL);
        waitpid(answer.asker, 0, WNOHANG);
    }
    Report report, read;
    QDataStream stream(&text, QIODevice::ReadOnly);
    while (!stream.atEnd()) {
        stream >> read.facts >> read.modules;
        if (stream.status() == QDataStream::Ok)
            report = read;
    }
    return report;
}

static void describeProcess(const Process &process, Facts *module)
{
    set(module, "process", process.id);
    set(module, "stopped", process.isStopped());
}

// The child of the daemon whose call, number in the log, or name is the module's. Without a daemon, a module
// that another one has left behind.
static void findProcess(const Processes &processes, const Process &daemon, Facts *module)
{
    const QByteArray path = module->value("path");
    const QByteArray name = path.mid(path.lastIndexOf('/') + 1).left(processNameLength);
    const int logged = int(number(*module, "log_process"));
    for (const Process &process : processes) {
        if (!process.runs() || (daemon.id && process.parent != daemon.id))
            continue;
        const bool isSure = daemon.id
            && (namespaceIds(process.id).contains(logged)
                || readFile(process.id, "cmdline").split('\0').contains(path));
        if (isSure || (process.name == name && !module->contains("process")))
            describeProcess(process, module);
    }
}

// Whether the owner of the service, as the bus daemon knows it, is the module or a descendant of it.
static bool isForeign(const Processes &processes, const Facts &module)
{
    const int expected = int(number(module, "process")), owner = int(number(module, "owner"));
    for (const Process &process : processes) {
        if (descendsFrom(processes, process.id, expected) && namespaceIds(process.id).contains(owner))
            return false;
    }
    return true;
}

static void findProcesses(const Processes &processes, const Process &daemon, Report *report)
{
    for (Facts &module : report->modules) {
        const int owner = int(number(module, "owner"));
        const bool launched = number(module, "launched");
        if (launched || !daemon.id)
            findProcess(processes, daemon, &module);
        else if (processes.contains(owner))
            describeProcess(processes[owner], &module);
        if (launched && owner > 0 && report->facts.contains("connections"))
            set(&module, "foreign", isForeign(processes, module));
    }
}

QByteArray socketPath(const QByteArray &address)
{
    const QByteArray value = address.mid(address.indexOf('=') + 1).split(';')[0].split(',')[0];
    const QByteArray name = QByteArray::fromPercentEncoding(value);
    return address.startsWith("unix:abstract=") ? "@" + name : name;
}

// What is known to everyone.
static void describeDaemon(const Processes &processes, const Process &daemon, Facts *facts)
{
    set(facts, "daemon", daemon.id);
    (*facts)["user"] = userName(userOf(daemon.id));
    set(facts, "stopped", daemon.isStopped());
    set(facts, "age", time(0) - startTime(daemon) / 1000);
    (*facts)["folder"] = readLink(daemon.id, "cwd");
    const int busDaemon = findListener(processes, daemon.id, socketPath(facts->value("bus_address")));
    if (!busDaemon)
        return;
    set(facts, "bus_process", busDaemon);
    set(facts, "bus_stopped", processes[busDaemon].isStopped());
    set(facts, "bus_younger", processes[busDaemon].started > daemon.started);
}

QList<Report> inquire(const Processes &processes, const QList<Process> &daemons, const Inquiry &inquiry)
{
    const qint64 end = monotonicMs() + inquiry.limitMs + graceMs;
    const QList<Process> asked = daemons.isEmpty() ? QList<Process>() << Process() : daemons;
    QList<Answer> answers;
    for (const Process &daemon : asked)
        answers.append(startAsker(daemon, inquiry));
    QList<Report> reports;
    for (int i = 0; i < asked.size(); ++i) {
        Report report = finishAsker(answers[i], end);
        if (asked[i].id)
            describeDaemon(processes, asked[i], &report.facts);
        findProcesses(processes, asked[i], &report);
        reports.append(report);
    }
    return reports;
}
