// zarn5-check: will keepwatch start on this device? Prints its settings as it reads them, then every fault.
// To be run as the user, in the working directory and with the environment of keepwatch. Changes nothing.
#include "modules.h"
#include "qtversion.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QSet>
#include <QSettings>
#include <QStringList>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

static const int settingsBytes = 1000000; // taking a large file to pieces may use all memory
static const int patienceMs = 10000; // with a command, or with the bus
static const quint64 roomBytes = 1000000; // of a file system that is not full
static const rlim_t openFiles = 32; // for the bus, the logs, and pipes to two modules and a command

static QStringList files; // in which Qt looks up a key, in this order
static QStringList known, sections; // that have been read
static QStringList faults; // printed last

// One line, whatever the text.
static void print(const QString &text)
{
    QString line;
    for (const QChar c : text)
        line += c.isPrint() ? QString(c) : QString::fromLatin1("\\x%1").arg(c.unicode(), 0, 16);
    puts(line.toLocal8Bit().constData());
}

// `what` refers to `texts` as %2, %3.
template <typename... Texts> static void fault(const QString &where, const char *what, const Texts &...texts)
{
    faults << QString::fromLatin1(QByteArray("fault: %1: ") + what).arg(where, texts...);
}

// What is worth knowing, and no fault.
template <typename... Texts> static void note(const QString &where, const char *what, const Texts &...texts)
{
    print(QString::fromLatin1(QByteArray("note: %1: ") + what).arg(where, texts...));
}

static bool allows(const QString &path, int mode)
{
    return access(QFile::encodeName(path).constData(), mode) == 0;
}

static QString systemError()
{
    return QString::fromLocal8Bit(strerror(errno));
}

// The key and the file that has it: where a fault is.
static QString placeOf(const QString &key)
{
    for (const QString &file : files) {
        if (QSettings(file, QSettings::NativeFormat).contains(key))
            return key + QLatin1String(" (") + file + QLatin1Char(')');
    }
    return key + QLatin1String(" (default)");
}

static void show(const QString &key, const QString &value)
{
    print(placeOf(key).insert(key.size(), QLatin1String(" = ") + value));
}

// As keepwatch reads it, by its library.
static QVariant readKey(const QString &key, const QVariant &standard)
{
    known << key;
    sections << key.section(QLatin1Char('/'), 0, 0);
    QVariant value = QSettings().value(key, standard);
    const QString text = value.toString();
    if (value.userType() == QMetaType::QStringList)
        fault(placeOf(key), "\"%2\" is a list and reads as nothing; put double quotes around it",
              value.toStringList().join(QLatin1String(", ")));
    const QByteArray bytes = text.toLatin1();
    const QString meant = QString::fromUtf8(bytes.constData(), bytes.size());
    if (text.contains(QChar()) || text.contains(QChar::ReplacementCharacter))
        fault(placeOf(key),
              "\"%2\" has bytes that are no letters; write what is not ASCII as its code, like \\x00e4",
              text);
    else if (QString::fromLatin1(bytes) == text && meant != text
             && !meant.contains(QChar::ReplacementCharacter))
        fault(placeOf(key), "\"%2\" reads as \"%3\"; write what is not ASCII as its code, like \\x00e4",
              meant, text);
    return value;
}

static QString readText(const QString &key, const QString &standard)
{
    QString text = readKey(key, standard).toString();
    const bool isPath = key.endsWith(QLatin1String("path")) || key.endsWith(QLatin1String("file"));
    QString shown = QLatin1Char('"') + text + QLatin1Char('"');
    if (isPath && !text.isEmpty() && QFileInfo(text).isRelative())
        shown += QLatin1String(" in ") + QDir::currentPath();
    show(key, shown);
    return text;
}

// A number, 1 by default: whether it is not 0. `zero`, `other`: what that means.
static bool readFlag(const QString &key, const char *zero, const char *other)
{
    const QVariant value = readKey(key, 1);
    const int number = value.toInt();
    show(key, QString::number(number) + QLatin1String(", ") + QLatin1String(number ? other : zero));
    bool isNumber;
    value.toString().toInt(&isNumber);
    if (!isNumber && value.userType() != QMetaType::QStringList)
        fault(placeOf(key), "\"%2\" reads as %3; write 0 or 1", value.toString(), QString::number(number));
    return number != 0;
}

// What stands in the files and was not read by now.
static void findUnknown()
{
    for (const QString &file : files) {
        if (!file.endsWith(QLatin1String("/keepwatch.conf")))
            continue; // others may have settings there
        QSet<QString> faulted;
        for (const QString &key : QSettings(file, QSettings::NativeFormat).allKeys()) {
            const QString section = key.section(QLatin1Char('/'), 0, 0);
            if (known.contains(key) || faulted.contains(section))
                continue;
            if (section == key) {
                fault(file, "key \"%2\" stands in no section and is ignored; move it into one", key);
            } else if (sections.contains(section)) {
                fault(file, "key \"%2\" is unknown and ignored; mind its case, or put ; in front", key);
            } else {
                fault(file, "section \"%2\" is unknown and ignored; mind its case, or take it out", section);
                faulted << section;
            }
        }
    }
}

static QStringList settingsFiles()
{
    // Nothing has settings by this name.
    const QLatin1String none("zarn5-check"), forUs("/zarn5/keepwatch.conf"), forAll("/zarn5.conf");
    const QString own = QFileInfo(QSettings(QSettings::UserScope, none).fileName()).path();
    QString listed = QFile::decodeName(qgetenv("XDG_CONFIG_DIRS"));
    if (listed.isEmpty())
        listed = QFileInfo(QSettings(QSettings::SystemScope, none).fileName()).path();
    QStringList found = QStringList() << own + forUs << own + forAll, rest;
    for (const QString &folder : listed.split(QLatin1Char(':'))) {
        if (folder.isEmpty())
            continue;
        found << folder + forUs;
        rest << folder + forAll;
    }
    return found + rest;
}

// Returns the end of the line at `start`, as Qt reads it: a quoted text, and a line that ends with a
// backslash, continue on the next line; a comment does not. `equals`: the first = outside of quotes, -1 for
// none.
static int endOfLine(const QByteArray &data, int start, int *equals)
{
    const bool comment = data.at(start) == ';';
    bool quoted = false;
    int i = start;
    *equals = -1;
    for (; i < data.size(); ++i) {
        const char c = data.at(i);
        if (!quoted && (c == '\n' || c == '\r' || (c == ';' && !comment)))
            break;
        if (comment)
            continue;
        if (c == '"')
            quoted = !quoted;
        else if (c == '=' && !quoted && *equals < 0)
            *equals = i - start;
        else if (c == '\\')
            i += data.mid(i + 1, 2) == "\r\n" || data.mid(i + 1, 2) == "\n\r" ? 2 : 1;
    }
    return qMin(i, int(data.size()));
}

// Faults, each with its number, lines that the library passes over and keys that it takes from another line.
static void checkLines(const QString &file, const QByteArray &data)
{
    QMap<QByteArray, int> seen; // section, or section and key: the last line that has it
    QByteArray section;
    int number = 1;
    for (int start = 0, end; start < data.size(); start = end) {
        if (isspace(static_cast<unsigned char>(data.at(start)))) {
            number += data.at(start) == '\n';
            end = start + 1;
            continue;
        }
        int equals;
        end = endOfLine(data, start, &equals);
        const QByteArray line = data.mid(start, end - start);
        const bool heads = line.startsWith('[');
        const int size = heads ? int(line.indexOf(']')) + 1 : equals, here = number;
        const QString where = file + QLatin1Char(':') + QString::number(here);
        number += int(line.count('\n'));
        if (line.startsWith(';'))
            continue;
        const bool unclosed = heads && size == 0;
        if (size < 0 || unclosed) {
            fault(where, "reads as neither [section] nor key=value; correct it or put ; in front");
            continue;
        }
        if (number > here)
            fault(where, "goes on over the line end; close its quotes, and end it with no \\");
        const QByteArray name = line.left(size).trimmed();
        if (heads)
            section = name;
        int &before = seen[heads ? section : section + '=' + name];
        if (before && heads)
            note(where, "%2 stands in line %3 too, and the keys of both count", QString::fromUtf8(name),
                 QString::number(before));
        else if (before)
            fault(where, "key \"%2\" stands in line %3 too, which is ignored; take one out",
                  QString::fromUtf8(name), QString::number(before));
        before = here;
    }
}

// False if reading the files might take all memory or never end.
static bool checkSettingsFiles()
{
    bool found = false;
    for (const QString &file : files) {
        struct stat status;
        if (stat(QFile::encodeName(file).constData(), &status) != 0) {
            if ((errno != ENOENT && errno != ENOTDIR) || QFileInfo(file).isSymLink())
                fault(file, "cannot be read (%2), and is ignored; correct its link or its folder's rights",
                      systemError());
            continue;
        }
        found = true;
        print(QLatin1String("settings: ") + file);
        if (!S_ISDIR(status.st_mode) && (!S_ISREG(status.st_mode) || status.st_size > settingsBytes)) {
            fault(file, "is no regular file or over 1 MB, and no key or module was looked at; replace it");
            return false;
        }
        QFile lines(file);
        if (lines.open(QIODevice::ReadOnly))
            checkLines(file, lines.readAll().replace("\xef\xbb\xbf", "")); // what an editor may put in front
        else
            fault(file, "is a folder or cannot be read, and is ignored; correct that");
    }
    if (!found)
        print(QLatin1String("settings: none found, looked for ") + files.join(QLatin1String(", ")));
    return true;
}

// What a shell, or another form of settings, would make of a path that leads nowhere. False if nothing.
static bool faultMisreading(const QString &where, const QString &path)
{
    const QString first = path.section(QLatin1Char(' '), 0, 0);
    const char *what = 0;
    if (path.startsWith(QLatin1Char('~')))
        what = "~ is not replaced by the home directory; write that itself";
    else if (path.contains(QLatin1Char('$')))
        what = "$ is not replaced by a variable; write its value itself";
    else if (path.contains(QLatin1String(" #")))
        what = "# begins no comment here, and belongs to the path; put the comment after a ;";
    else if (path.startsWith(QLatin1Char('\'')))
        what = "' belongs to the path; put double quotes, or none";
    else if (first != path && QFileInfo(first).isFile())
        what = "arguments cannot be given, and belong to the path; name a script that gives them";
    if (!what)
        return false;
    fault(where, what);
    return true;
}

// Returns what tells it from any other file; empty if there will be none, or one that several may share.
static QString checkLogFile(const QString &key)
{
    const QString path = readText(key, QString()), where = placeOf(key);
    if (path.isEmpty())
        return QString();
    QFileInfo target(path); // of a link, which may lead to a file that is yet to be made
    for (int links = 0; links < 40 && !target.exists() && target.isSymLink(); ++links)
        target.setFile(target.symLinkTarget());
    const QString folder = target.path();
    struct stat status;
    struct statvfs room;
    const bool exists = stat(QFile::encodeName(target.filePath()).constData(), &status) == 0;
    if (!exists && errno == ENOENT && faultMisreading(where, path))
        return QString();
    if (exists && (S_ISDIR(status.st_mode) || S_ISSOCK(status.st_mode)))
        fault(where, "is a folder or a socket, and lines are lost; name a file");
    else if (exists && S_ISFIFO(status.st_mode))
        note(where, "is a FIFO, and the start waits until somebody reads it");
    else if (exists ? !allows(path, W_OK) : errno != ENOENT)
        fault(where, "cannot be opened (%2), and lines are lost; correct it or its rights", systemError());
    else if (!exists && !allows(folder, W_OK | X_OK))
        fault(where, "cannot be made in folder \"%2\" (%3), and lines are lost; make or correct that", folder,
              systemError());
    else if ((exists && !S_ISREG(status.st_mode))
             || statvfs(QFile::encodeName(folder).constData(), &room) != 0 || room.f_blocks == 0)
        ; // a device, or a file system without end
    else if (quint64(room.f_bavail) * room.f_frsize < roomBytes)
        fault(where, "the file system of \"%2\" has %3 kB left, and lines will be lost; make room", folder,
              QString::number(quint64(room.f_bavail) * room.f_frsize / 1000));
    else if (!exists && room.f_files > 0 && room.f_favail == 0)
        fault(where, "the file system of \"%2\" takes no more files, and lines are lost; make room", folder);
    if (exists)
        return S_ISREG(status.st_mode) ? QString::fromLatin1("%1 %2").arg(status.st_dev).arg(status.st_ino)
                                       : QString();
    const QString place = QFileInfo(folder).canonicalFilePath();
    return place.isEmpty() ? place : place + QLatin1Char('/') + target.fileName();
}

static void checkLogging()
{
    const QLatin1String telegramKey("logging/telegramfile"), syslogKey("logging/syslog");
    const QString log = checkLogFile(QLatin1String("logging/logfile")), telegrams = checkLogFile(telegramKey);
    if (!log.isEmpty() && log == telegrams)
        fault(placeOf(telegramKey), "is the log file too, and one overwrites the other; name two files");

    const QString syslog = readKey(syslogKey, QLatin1String("false")).toString();
    const bool off = syslog == QLatin1String("false");
    show(syslogKey, QLatin1Char('"') + syslog + QLatin1String(off ? "\", standard output" : "\", syslog"));
    if (!off && syslog != QLatin1String("true"))
        fault(placeOf(syslogKey), "\"%2\" is not false, and means syslog; write true or false", syslog);
    if (!off && !allows(QLatin1String("/dev/log"), W_OK))
        fault(QLatin1String("/dev/log"), "nobody takes lines for syslog; start its daemon before keepwatch");
    readFlag(QLatin1String("logging/debug"), "plain debug messages pass", "no plain debug messages");
    readFlag(QLatin1String("logging/trace"), "trace messages pass", "no trace messages");
}

static void checkProgram(const QString &where, const QString &path)
{
    if (!QFileInfo(path).isFile())
        return fault(where, "is no file, and is never started; name a program");
    if (!allows(path, X_OK))
        return fault(where, "cannot be executed (%2), and is never started; see to its rights",
                     systemError());

    QFile file(path), self(QLatin1String("/proc/self/exe"));
    if (!file.open(QIODevice::ReadOnly) || !self.open(QIODevice::ReadOnly))
        return; // may be run, but not be looked into
    const QByteArray head = file.read(256);
    if (head.startsWith("#!")) {
        QList<QByteArray> words = head.mid(2).split('\n').first().replace('\t', ' ').split(' ');
        words.removeAll(QByteArray());
        const QString interpreter = QString::fromLocal8Bit(words.value(0));
        if (!allows(interpreter, X_OK))
            fault(where, "cannot be started by \"%2\" (%3); correct its first line", interpreter,
                  systemError());
        else if (QFileInfo(interpreter).fileName() == QLatin1String("env"))
            fault(where,
                  "is started by env, so its process has another name, and an old one is not found; "
                  "name the interpreter itself in its first line");
        return;
    }
    const QByteArray own = self.read(head.size());
    if (head.size() < 20 || !head.startsWith("\177ELF"))
        fault(where, "is neither a program nor a script with #!, and is never started; replace it");
    else if (head.mid(18, 2) != own.mid(18, 2) && head.at(4) >= own.at(4)) // 32 bits may run on 64
        fault(where, "is made for another machine; replace it");
}

static void checkService(const QString &where, const QString &service)
{
    if (!isServiceName(service))
        fault(where, "is no bus name and never comes; name one like com.qel.zarn5.gui");
    else if (service.contains(QLatin1Char('-')) || service.size() > 255 - int(strlen(".adaptor")))
        fault(where,
              "makes no interface name, and is never connected; take out dashes, 247 characters at most");
}

// Runs a command, of whatever kind PATH finds, and takes its output line by line. False if it did not end.
static bool run(const QString &program, const QStringList &arguments, QStringList *lines)
{
    ChildProcess command;
    command.setStandardErrorFile(QLatin1String("/dev/null")); // else it would be kept, without limit
    command.start(program, arguments);
    QByteArray output;
    for (int reads = 0; reads < 100 && command.waitForReadyRead(patienceMs);
         ++reads) // one may print for ever
        output += command.readAllStandardOutput();
    const QString where = program + QLatin1Char(' ') + arguments.join(QLatin1String(" "));
    if (command.error() == QProcess::FailedToStart) {
        fault(where, "cannot be run (%2), and old processes stay; install it or correct PATH",
              command.errorString().section(QLatin1String(": "), -1));
        return false;
    }
    if (command.state() != QProcess::NotRunning) {
        command.kill();
        command.waitForFinished();
        fault(where, "does not end, and the start waits for it; see which one PATH finds");
        return false;
    }
    if (command.exitStatus() != QProcess::NormalExit || command.exitCode() > 1) // 1: none found
        fault(where, "fails, and old processes stay; see which one PATH finds");
    *lines = QString::fromLatin1(output.constData()).split(QLatin1Char('\n'));
    lines->removeAll(QString());
    return true;
}

enum Field { Name, State, Parent };

// What the kernel says of a process; empty if there is none. Its name may have brackets of its own.
static QStringList readProcess(int id)
{
    QFile file(QString::fromLatin1("/proc/%1/stat").arg(id));
    const QString stat = file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
    const int begin = int(stat.indexOf(QLatin1Char('('))) + 1, end = int(stat.lastIndexOf(QLatin1Char(')')));
    return QStringList(stat.mid(begin, end - begin)) << stat.mid(end + 2).split(QLatin1Char(' '));
}

// The keepwatch that runs: to look at its next start it counts as ended, with all below it.
static int running = -1;

// Notes it, and in what its surroundings differ from ours.
static void findRunning()
{
    for (const QString &entry : QDir(QLatin1String("/proc")).entryList(QDir::Dirs)) {
        const int id = entry.toInt();
        const QStringList process = readProcess(id);
        if (process.at(Name) != QLatin1String("keepwatch") || process.value(State) == QLatin1String("Z")
            || readProcess(process.value(Parent).toInt()).at(Name) == process.at(Name)) // not yet a module
            continue;
        const QString folder = QLatin1String("/proc/") + entry,
                      path = QFileInfo(folder + QLatin1String("/exe")).symLinkTarget(),
                      directory = QFileInfo(folder + QLatin1String("/cwd")).symLinkTarget();
        if (!path.isEmpty() && !path.contains(QLatin1String("/keepwatch")))
            continue; // a script of that name, which stands in its way
        running = id;
        const QLatin1String where("keepwatch");
        if (QFileInfo(folder).ownerId() != getuid())
            return fault(where,
                         "process %2 is %3's, whose rights, home and settings count; run this as that user",
                         entry, QFileInfo(folder).owner());
        note(where, "runs as process %2 (%3); this is about its next start", entry, path);
        if (path.endsWith(QLatin1String(" (deleted)")))
            note(where, "process %2 is still the program of before an upgrade; restart it", entry);
        if (!directory.isEmpty() && directory != QDir::currentPath())
            note(where, "it runs in %2, and relative paths are looked at from %3; go there first", directory,
                 QDir::currentPath());
        QFile file(folder + QLatin1String("/environ"));
        if (!file.open(QIODevice::ReadOnly))
            return fault(where, "process %2 has more capabilities, and hides its bus; run this with them",
                         entry);
        const QByteArray environment = '\0' + file.readAll();
        const char *const variables[]
            = { "HOME", "XDG_CONFIG_HOME", "XDG_CONFIG_DIRS", "DBUS_SESSION_BUS_ADDRESS" };
        for (const char *variable : variables) {
            const QByteArray ours = qgetenv(variable);
            const QByteArray key = '\0' + QByteArray(variable) + '=';
            const int at = int(environment.indexOf(key));
            QByteArray its = at < 0 ? "" : environment.constData() + at + key.size();
            if (its != ours)
                note(QLatin1String(variable), "is \"%2\" for the keepwatch that runs and \"%3\" here",
                     QFile::decodeName(its), QFile::decodeName(ours));
            // Its bus is looked at, where it has it: in a /tmp of its own, for one.
            its.replace("unix:path=", "unix:path=/proc/" + entry.toLatin1() + "/root");
            if (variable == variables[3] && ours.isEmpty())
                qputenv(variable, its);
        }
        return;
    }
}

// Asks pgrep as keepwatch does, and faults every process that it finds, or notes it if that is the module's
// own `program`, empty for keepwatch. False if asking again is of no use.
static bool checkProcesses(const QString &where, const QString &pattern, const QByteArray &program,
                           const char *what)
{
    QStringList ids;
    if (!run(QLatin1String("pgrep"), QStringList(pattern), &ids))
        return false;
    for (const QString &id : ids) {
        const int number = id.toInt();
        if (number <= 0) {
            fault(QLatin1String("pgrep ") + pattern,
                  "prints \"%2\", which is no process; see which one PATH finds", id);
            return false;
        }
        const QString name = readProcess(number).at(Name);
        int parent = number;
        while (parent > 1 && parent != running)
            parent = readProcess(parent).value(Parent).toInt();
        if (number == getpid() || name.isEmpty() || parent == running
            || (!program.isEmpty() && kill(number, 0) != 0))
            continue;
        QFile call(QString::fromLatin1("/proc/%1/cmdline").arg(number));
        if (call.open(QIODevice::ReadOnly) && !program.isEmpty()
            && call.readAll().split('\0').contains(program))
            note(where, "process %2 (%3) is left of an earlier run, and the start ends it", id, name);
        else
            fault(where, what, id, name);
    }
    return true;
}

struct Module
{
    QString name;
    QString place; ///< where its path stands in the settings
    QString servicePlace; ///< where its service stands
    QString service;
    QByteArray program; ///< as keepwatch calls it
    QString processName; ///< empty if there is no such file
    QString pattern; ///< of the names that the start kills; empty for none
};

static Module checkModule(const QString &name)
{
    const QString pathKey = name + QLatin1String("/path"), serviceKey = name + QLatin1String("/service");
    const QString path = readText(pathKey, defaultPath(name));
    const bool start
        = readFlag(name + QLatin1String("/start"), "something else starts it", "keepwatch starts it");
    readFlag(name + QLatin1String("/wait"), "the release does not wait for it", "the release waits for it");
    Module module;
    module.name = name;
    module.service = readText(serviceKey, defaultService(name));
    module.servicePlace = placeOf(serviceKey);
    checkService(module.servicePlace, module.service);
    module.place = placeOf(pathKey);
    if (!QFile(path).exists()) {
        if (!faultMisreading(module.place, path))
            fault(module.place,
                  "there is no such file, and the module is left out; correct it or the working directory");
        return module;
    }
    module.program = QFile::encodeName(QFileInfo(path).absoluteFilePath());
    module.processName = QFileInfo(path).fileName().left(processNameLength);
    if (module.processName.contains(QLatin1String("keepwatch")))
        fault(module.place, "its name contains keepwatch, which does not start beside it; rename it");
    if (!start)
        return module;
    checkProgram(module.place, path);
    module.pattern = QFileInfo(path).baseName().left(processNameLength);
    if (module.pattern.isEmpty() || module.pattern.startsWith(QLatin1Char('-'))
        || strpbrk(module.pattern.toLocal8Bit().constData(), "^$[]|()*+?{}\\"))
        fault(module.place,
              "pgrep does not find just its name, and old processes stay or others are killed; "
              "use letters, digits, _");
    return module;
}

// Faults what two modules must not have in common.
static void compareModules(const Module &module, const Module &other)
{
    if (module.service == other.service)
        fault(module.servicePlace, "is that of %2 too, and only %2 is connected; give each its own",
              other.name);
    for (const Module *killer : { &module, &other }) {
        const Module *victim = killer == &module ? &other : &module;
        if (!killer->pattern.isEmpty() && victim->processName.contains(killer->pattern))
            fault(killer->place, "its name is in that of %2, which the start kills with it; rename one",
                  victim->name);
    }
}

static void checkModules()
{
    QList<Module> modules;
    for (const QString &name : moduleNames()) {
        const Module module = checkModule(name);
        for (const Module &other : modules)
            compareModules(module, other);
        modules << module;
    }

    QStringList unused;
    run(QLatin1String("kill"), QStringList() << QLatin1String("-0") << QString::number(getpid()), &unused);
    bool works = checkProcesses(QLatin1String("keepwatch"), QLatin1String("keepwatch"), QByteArray(),
                                "does not start beside process %2 (%3); end that, or give it another name");
    for (const Module &module : modules) {
        if (module.pattern.isEmpty())
            continue;
        works = works
            && checkProcesses(module.place, module.pattern, module.program,
                              "its start kills process %2 (%3); end that, or give it another name");
    }
}

// A bus that is there but hangs would hold up the library for ever. Called as a signal handler.
static void giveUp(int)
{
    const char text[]
        = "fault: DBUS_SESSION_BUS_ADDRESS: the bus is silent, and the start waits; start another\n";
    const ssize_t ignored = write(STDOUT_FILENO, text, sizeof text - 1);
    Q_UNUSED(ignored)
    _exit(1);
}

static void checkBus()
{
    unsetenv("DISPLAY"); // with a display and no bus the library would start one
    signal(SIGALRM, giveUp);
    alarm(patienceMs / 1000);
    const QDBusConnection bus = QDBusConnection::sessionBus();
    alarm(0);
    if (!bus.isConnected())
        fault(QLatin1String("DBUS_SESSION_BUS_ADDRESS"),
              "there is no session bus, and keepwatch aborts (%2); start one, or set its address",
              bus.lastError().message());
}

static void printFaults()
{
    static int printed;
    for (; printed < faults.size(); ++printed)
        print(faults.at(printed));
    fflush(stdout);
}

// Else neither this nor keepwatch comes far.
static bool checkOpenFiles()
{
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= openFiles)
        return true;
    fault(QLatin1String("ulimit -n"), "%2 open files are too few, and nothing was looked at; allow 1024",
          QString::number(limit.rlim_cur));
    return false;
}

int main(int argc, char **argv)
{
    if (argc != 1) {
        fputs("usage: zarn5-check\n", stderr);
        return 2;
    }
    // As in keepwatch: what the library finds depends on it.
    QCoreApplication::setOrganizationName(QLatin1String("zarn5"));
    QCoreApplication::setOrganizationDomain(QLatin1String("zarn5.qel.com"));
    QCoreApplication::setApplicationName(QLatin1String("keepwatch"));
    QCoreApplication application(argc, argv);
    keepLettersWithoutLocale();

    print(QLatin1String("version: " VERSION ", as the keepwatch that was installed with this program"));
    if (checkOpenFiles()) {
        findRunning();
        files = settingsFiles();
        if (checkSettingsFiles()) {
            checkLogging();
            checkModules();
            findUnknown();
        }
        printFaults(); // while it is sure that this comes to its end
        checkBus();
    }
    printFaults();
    if (faults.isEmpty())
        puts("no fault found");
    return !faults.isEmpty() || fflush(stdout) != 0 || ferror(stdout) ? 1 : 0;
}
