#include "inquiry.h"

#include "bus.h"
#include "check.h"
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

static QByteArray text(qint64 number)
{
    return QByteArray::number(number);
}

static QByteArray encode(const QString &path)
{
    return QFile::encodeName(path);
}

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
    void readSettings();
    void findLog(const QString &setting, const QString &telegramFile);
    void use(const WrittenFile &file);
    void judgeUnwritten(const QByteArray &path);
    void askBus();
    bool askNames(Bus *bus);
    void askLives(Bus *bus);

    QList<WrittenFile> files;
    QList<int> ids; // of the daemon
    QByteArray prefix; // of absolute paths
    int log = -1; // the file to follow
    qint64 deadline; // milliseconds of the monotonic clock
    Facts facts;
    QList<Facts> modules;
};

}

// The whole report each time, since nobody knows what comes next. It is small.
void Asker::send() const
{
    QByteArray report;
    QDataStream stream(&report, QIODevice::WriteOnly);
    stream << facts << modules;
    if (write(pipe, report.constData(), size_t(report.size())) < 0)
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
    Report report = { facts, modules };
    if (log >= 0)
        describeLog(log, deadline, daemon.id != 0, &report);
    facts = report.facts;
    modules = report.modules;
    send();
}

void Asker::readSettings()
{
    actAsKeepwatch();
    const QSettings settings;
    if (QFile::exists(settings.fileName()))
        facts["settings"] = encode(settings.fileName());
    for (const QString &name : moduleNames()) {
        const ModuleSettings read = readModuleSettings(settings, name);
        const QFileInfo file(read.path);
        struct stat status;
        Facts module;
        module["name"] = name.toUtf8();
        module["path"] = encode(file.absoluteFilePath());
        module["log_name"] = encode(file.baseName());
        module["service"] = read.service.toUtf8();
        module["launched"] = text(read.start);
        module["required"] = text(read.wait);
        module["exists"]
            = text(stat(((file.isAbsolute() ? prefix : "") + encode(read.path)).constData(), &status) == 0);
        modules.append(module);
    }
    const LoggingSettings logging = readLoggingSettings(settings);
    if (!inquiry.log)
        return;
    if (!logging.logFile.isEmpty())
        return findLog(logging.logFile, logging.telegramFile);
    facts["log"] = logging.useSyslog ? "syslog" : "standard output";
    for (const WrittenFile &file : files) {
        if (!logging.useSyslog && file.descriptor == STDOUT_FILENO)
            use(file);
    }
}

void Asker::use(const WrittenFile &file)
{
    log = file.file;
    facts["log_file"] = file.path;
    facts["log_descriptor"] = text(file.descriptor);
    if (log < 0)
        facts["log_problem"] = "unreadable";
}

// The daemon writes the file that the settings name, or one that had this name, or none.
void Asker::findLog(const QString &setting, const QString &telegramFile)
{
    const QFileInfo info(setting);
    const QByteArray path = (info.isAbsolute() ? prefix : "") + encode(setting);
    facts["log"] = encode(info.absoluteFilePath());
    struct stat status = {}, telegrams = {};
    stat(path.constData(), &status);
    stat(encode(telegramFile).constData(), &telegrams);
    if (!daemon.id && S_ISREG(status.st_mode))
        log = open(path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (!daemon.id)
        return;
    const WrittenFile *other = 0;
    for (const WrittenFile &file : files) {
        if (file.inode == status.st_ino && file.device == status.st_dev)
            return use(file);
        if (file.descriptor > STDERR_FILENO
            && !(file.inode == telegrams.st_ino && file.device == telegrams.st_dev))
            other = &file;
    }
    if (!other)
        return judgeUnwritten(path);
    facts["log_problem"] = other->path.endsWith(" (deleted)") ? "deleted" : "moved";
    use(*other);
}

void Asker::judgeUnwritten(const QByteArray &path)
{
    const QByteArray folder = path.contains('/') ? path.left(path.lastIndexOf('/') + 1) : ".";
    const bool exists = access(path.constData(), F_OK) == 0;
    const bool possible = access((exists ? path : folder).constData(), exists ? W_OK : W_OK | X_OK) == 0;
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
    facts["bus_ms"] = text(monotonicMs() - begin);
    if (!askNames(&bus)) {
        facts["bus"] = "silent";
        return;
    }
    send(); // the others may be silent until the time is over
    askLives(&bus);
}

// Whose the names on the bus are. False if the bus daemon does not answer.
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
    int connections = 0;
    for (int i = 0; i < names.size(); ++i) {
        const qint64 owner = bus->number(list + 1 + size_t(i));
        if (names[i].startsWith(':') && ids.contains(int(owner)))
            facts["connection_" + text(connections++)] = names[i];
        for (Facts &module : modules) {
            if (module.value("service") == names[i] && isServiceName(QString::fromUtf8(names[i].constData())))
                module["owner"] = text(owner);
        }
    }
    facts["connections"] = text(connections);
    return true;
}

// All at once. Introspection is answered by the main loop of a module, and leaves no line in the log.
void Asker::askLives(Bus *bus)
{
    QList<size_t> pings;
    for (int i = 0; i < number(facts, "connections"); ++i)
        pings.append(bus->ask(facts["connection_" + text(i)], "/", "org.freedesktop.DBus.Peer", "Ping"));
    QMap<int, size_t> lives;
    for (int i = 0; inquiry.modules && i < modules.size(); ++i) {
        if (modules[i].contains("owner"))
            lives[i]
                = bus->ask(modules[i]["service"], "/", "org.freedesktop.DBus.Introspectable", "Introspect");
    }
    bus->wait(answerEnd());
    QByteArray silent;
    for (int i = 0; i < pings.size(); ++i) {
        // The bus daemon replies for a connection that has ended.
        if (!bus->isAnswered(pings[i]) || bus->isError(pings[i]))
            join(&silent, facts["connection_" + text(i)], " ");
    }
    facts["silent"] = silent;
    for (int i : lives.keys()) {
        modules[i]["answers"] = text(bus->isAnswered(lives[i]));
        modules[i]["ms"] = text(bus->milliseconds(lives[i]));
    }
}

namespace {

struct Answer
{
    pid_t asker;
    int pipe;
    QByteArray text;
};

}

// The asker takes the place of a user, and must not reach the terminal of another one.
static Answer startAsker(const Process &daemon, const Inquiry &inquiry)
{
    Answer answer = { -1, -1, QByteArray() };
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return answer;
    answer.pipe = ends[0];
    answer.asker = fork();
    if (answer.asker == 0) {
        close(ends[0]);
        const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
            dup2(null, stream);
        setsid();
        Asker asker;
        asker.daemon = daemon;
        asker.inquiry = inquiry;
        asker.pipe = ends[1];
        asker.run();
        _exit(0);
    }
    close(ends[1]);
    return answer;
}

// Reads what comes until the time is over. The asker can hang in the kernel, so nobody waits for its exit.
static void finishAsker(Answer *answer, qint64 end)
{
    static const int limit = 4000000;
    char buffer[4096];
    struct pollfd input = { answer->pipe, POLLIN, 0 };
    while (answer->text.size() < limit) {
        const int ready = poll(&input, 1, int(qMax(qint64(0), end - monotonicMs())));
        const ssize_t count = ready > 0 ? read(answer->pipe, buffer, sizeof buffer) : 0;
        if (ready == 0 || (ready > 0 && count <= 0))
            break;
        answer->text.append(buffer, int(count));
    }
    close(answer->pipe);
    if (answer->asker > 0) {
        kill(answer->asker, SIGKILL);
        waitpid(answer->asker, 0, WNOHANG);
    }
}

// The last whole report that was sent.
static Report readReport(QByteArray text)
{
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
    (*module)["process"] = text(process.id);
    (*module)["stopped"] = text(process.isStopped());
}

// The child of the daemon whose call, number in the log, or name is the module's.
static void findModuleProcess(const Processes &processes, const Process &daemon, Facts *module)
{
    const QByteArray path = module->value("path");
    const QByteArray name = path.mid(path.lastIndexOf('/') + 1).left(processNameLength);
    for (const Process &process : processes) {
        if (process.parent != daemon.id || !process.runs())
            continue;
        const bool isNamed = namespaceIds(process.id).mid(1).contains(int(number(*module, "log_process")));
        if (isNamed || readFile(process.id, "cmdline").split('\0').contains(path)
            || (process.name == name && !module->contains("process")))
            describeProcess(process, module);
    }
}

// Whether the owner of the service, as the bus daemon knows it, is the module or a descendant of it.
static bool isForeign(const Processes &processes, const Facts &module)
{
    const int expected = int(number(module, "process")), owner = int(number(module, "owner"));
    bool isOurs = false;
    for (const Process &process : processes)
        isOurs = isOurs
            || (descendsFrom(processes, process.id, expected) && namespaceIds(process.id).contains(owner));
    return !isOurs;
}

static void findModuleProcesses(const Processes &processes, const Process &daemon, Report *report)
{
    for (Facts &module : report->modules) {
        const int owner = int(number(module, "owner"));
        if (number(module, "launched"))
            findModuleProcess(processes, daemon, &module);
        else if (processes.contains(owner))
            describeProcess(processes[owner], &module);
        if (number(module, "launched") && owner > 0)
            module["foreign"] = text(isForeign(processes, module));
    }
}

// Modules that a keepwatch has left behind.
static void findLeftModules(const Processes &processes, Report *report)
{
    for (Facts &module : report->modules) {
        for (const Process &process : processes) {
            if (process.name == module.value("log_name").left(processNameLength) && process.runs())
                describeProcess(process, &module);
        }
    }
}

QByteArray socketPath(const QByteArray &address)
{
    const int path = int(address.indexOf("path=")), abstract = int(address.indexOf("abstract="));
    const int begin = int(address.indexOf('=', path < 0 ? abstract : path)) + 1;
    const QByteArray name = address.mid(begin).split(';')[0].split(',')[0];
    return path < 0 && abstract >= 0 ? "@" + name : name;
}

// What is known to everyone.
static void describeDaemon(const Processes &processes, const Process &daemon, Facts *facts)
{
    (*facts)["daemon"] = text(daemon.id);
    (*facts)["user"] = userName(userOf(daemon.id));
    (*facts)["stopped"] = text(daemon.isStopped());
    (*facts)["age"] = text(time(0) - startTime(daemon) / 1000);
    (*facts)["folder"] = readLink(daemon.id, "cwd");
    if (facts->value("bus") == "answers" && number(*facts, "connections") >= 2)
        return; // to look through the descriptors of others takes some time
    const int busDaemon = findListener(processes, daemon.id, socketPath(facts->value("bus_address")));
    if (!busDaemon)
        return;
    (*facts)["bus_process"] = text(busDaemon);
    (*facts)["bus_stopped"] = text(processes[busDaemon].isStopped());
    (*facts)["bus_younger"] = text(processes[busDaemon].started > daemon.started);
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
        finishAsker(&answers[i], end);
        Report report = readReport(answers[i].text);
        if (asked[i].id) {
            describeDaemon(processes, asked[i], &report.facts);
            findModuleProcesses(processes, asked[i], &report);
        } else {
            findLeftModules(processes, &report);
        }
        reports.append(report);
    }
    return reports;
}
