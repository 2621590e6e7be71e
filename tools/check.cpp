// zarn5-check: will keepwatch start on this device? Prints its settings as it reads them, then every fault.
// To be run as the user, in the working directory and with the environment of keepwatch. Changes nothing.
#include "qtversion.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QSettings>
#include <QStringList>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dbus/dbus.h>
#include <regex.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

static const int processNameLength = 15; // of a name the kernel keeps no more
static const int settingsBytes = 1000000; // taking a large file to pieces may use all memory
static const int patienceMs = 10000; // with a command, or with the bus
static const int commandBytes = 1000000; // of output
static const quint64 roomBytes = 1000000; // of a file system that is not full

static QStringList notes; // what is worth knowing, and no fault
static QStringList faults; // printed behind the settings and the notes

// `what` refers to `texts` as %2, %3.
template <typename... Texts> static void fault(const QString &where, const char *what, const Texts &...texts)
{
    faults << QString::fromLatin1(QByteArray("fault: %1: ") + what).arg(where, texts...);
}

template <typename... Texts> static void note(const QString &where, const char *what, const Texts &...texts)
{
    notes << QString::fromLatin1(QByteArray("note: %1: ") + what).arg(where, texts...);
}

// One line, whatever the text.
static void print(const QString &text)
{
    QString line;
    for (const QChar c : text)
        line += c.isPrint() ? QString(c) : QString::fromLatin1("\\x%1").arg(c.unicode(), 0, 16);
    puts(line.toLocal8Bit().constData());
}

static bool allows(const QString &path, int mode)
{
    return access(QFile::encodeName(path).constData(), mode) == 0;
}

static QString systemError()
{
    return QString::fromLocal8Bit(strerror(errno));
}

// What opening `path` would find or make: a link may lead to a file that is yet to be made.
static QFileInfo linkTarget(const QString &path)
{
    QFileInfo info(path);
    for (int links = 0; links < 40 && !info.exists() && info.isSymLink(); ++links)
        info.setFile(info.symLinkTarget());
    return info;
}

/** Reads keys as keepwatch does, by its library and conversions; prints each, faults what misleads. */
class Settings
{
public:
    explicit Settings(const QStringList &files)
        : files(files)
    {
    }

    QVariant value(const QString &key, const QVariant &standard);
    void show(const QString &key, const QString &value) const;
    /** The key and the file that has it: where a fault is. */
    QString where(const QString &key) const;
    /** Value and show in one. */
    QString text(const QString &key, const QString &standard);
    /** The same for a number, 1 by default: whether it is not 0. `zero`, `other`: what that means. */
    bool flag(const QString &key, const char *zero, const char *other);
    /** Faults what stands in the files and was not read by now. */
    void findUnknown() const;

private:
    const QStringList files;
    const QSettings settings;
    QStringList known;
    QStringList sections;
};

QVariant Settings::value(const QString &key, const QVariant &standard)
{
    known << key;
    sections << key.section(QLatin1Char('/'), 0, 0);
    QVariant value = settings.value(key, standard);
    const QString text = value.toString();
    if (value.userType() == QMetaType::QStringList)
        fault(where(key), "\"%2\" is a list and reads as nothing; put double quotes around it",
              value.toStringList().join(QLatin1String(", ")));
    const QByteArray bytes = text.toLatin1();
    const QString meant = QString::fromUtf8(bytes.constData(), bytes.size());
    if (QString::fromLatin1(bytes) == text && meant != text && !meant.contains(QChar::ReplacementCharacter))
        fault(where(key), "\"%2\" reads as \"%3\"; write what is not ASCII as its code, like \\x00e4", meant,
              text);
    return value;
}

void Settings::show(const QString &key, const QString &value) const
{
    print(where(key).insert(key.size(), QLatin1String(" = ") + value));
}

QString Settings::where(const QString &key) const
{
    for (const QString &file : files) {
        if (QSettings(file, QSettings::NativeFormat).contains(key))
            return key + QLatin1String(" (") + file + QLatin1Char(')');
    }
    return key + QLatin1String(" (default)");
}

QString Settings::text(const QString &key, const QString &standard)
{
    QString text = value(key, standard).toString();
    const bool isPath = key.endsWith(QLatin1String("path")) || key.endsWith(QLatin1String("file"));
    QString shown = QLatin1Char('"') + text + QLatin1Char('"');
    if (isPath && !text.isEmpty() && QFileInfo(text).isRelative())
        shown += QLatin1String(" in ") + QDir::currentPath();
    show(key, shown);
    return text;
}

bool Settings::flag(const QString &key, const char *zero, const char *other)
{
    const QVariant value = this->value(key, 1);
    const int number = value.toInt();
    show(key, QString::number(number) + QLatin1String(", ") + QLatin1String(number ? other : zero));
    bool isNumber;
    value.toString().toInt(&isNumber);
    if (!isNumber && value.userType() != QMetaType::QStringList)
        fault(where(key), "\"%2\" reads as %3; write 0 or 1", value.toString(), QString::number(number));
    return number != 0;
}

void Settings::findUnknown() const
{
    for (const QString &file : files) {
        if (!file.endsWith(QLatin1String("/keepwatch.conf")))
            continue; // others may have settings there
        QStringList faulted;
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

// All files in which the library looks for a key, in its order.
static QStringList settingsFiles()
{
    // Nothing has settings by this name.
    QStringList folders(
        QFileInfo(QSettings(QSettings::UserScope, QLatin1String("zarn5-check")).fileName()).path());
    const QString listed = QFile::decodeName(qgetenv("XDG_CONFIG_DIRS"));
    if (listed.isEmpty())
        folders
            << QFileInfo(QSettings(QSettings::SystemScope, QLatin1String("zarn5-check")).fileName()).path();
    else
        folders << listed.split(QLatin1Char(':'));
    folders.removeAll(QString());
    const QLatin1String forUs("/zarn5/keepwatch.conf"), forAll("/zarn5.conf");
    QStringList files;
    files << folders.first() + forUs << folders.first() + forAll;
    for (const QString &folder : folders.mid(1))
        files << folder + forUs;
    for (const QString &folder : folders.mid(1))
        files << folder + forAll;
    return files;
}

// The end of the line at `start`, as the library takes it: a quoted text and what stands behind a backslash
// go on over line ends, and a comment begins anew. `equals`: the first = outside of quotes, -1 for none.
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
        const char first = data.at(start);
        if (isspace(static_cast<unsigned char>(first))) {
            number += first == '\n';
            end = start + 1;
            continue;
        }
        int equals;
        end = endOfLine(data, start, &equals);
        const QByteArray line = data.mid(start, end - start);
        const QString where = file + QLatin1Char(':') + QString::number(number);
        const int bracket = int(line.indexOf(']'));
        number += int(line.count('\n'));
        if (first == ';')
            continue;
        if (first == '[' ? bracket < 0 : equals < 0) {
            fault(where, "reads as neither [section] nor key=value; correct it or put ; in front");
            continue;
        }
        if (line.count('\n') > 0)
            fault(where, "goes on over the line end; close its quotes, and end it with no \\");
        if (first == '[')
            section = line.left(bracket + 1);
        const QByteArray name = first == '[' ? section : section + line.left(equals).trimmed();
        if (const int before = seen.value(name)) {
            if (first == '[')
                note(where, "%2 stands in line %3 too, and the keys of both count",
                     QString::fromUtf8(name.constData()), QString::number(before));
            else
                fault(where, "key \"%2\" stands in line %3 too, which is ignored; take one out",
                      QString::fromUtf8(line.left(equals).trimmed().constData()), QString::number(before));
        }
        seen[name] = number - int(line.count('\n'));
    }
}

// False if reading the files might take all memory or never end.
static bool checkSettingsFiles(const QStringList &files)
{
    bool found = false;
    for (const QString &file : files) {
        struct stat status;
        if (stat(QFile::encodeName(file).constData(), &status) != 0) {
            if (errno != ENOENT && errno != ENOTDIR)
                fault(file, "cannot be read (%2), and is ignored; see to its folder's rights", systemError());
            continue;
        }
        found = true;
        print(QLatin1String("settings: ") + file);
        if (!S_ISDIR(status.st_mode) && (!S_ISREG(status.st_mode) || status.st_size > settingsBytes)) {
            fault(file, "is no regular file or over 1 MB, and no key or module was looked at; replace it");
            return false;
        }
        QSettings settings(file, QSettings::NativeFormat);
        settings.allKeys(); // reads it to its end
        if (settings.status() == QSettings::AccessError)
            fault(file, "cannot be read, and is ignored; see to its rights");
        QFile lines(file);
        if (lines.open(QIODevice::ReadOnly))
            checkLines(file, lines.readAll().replace("\xef\xbb\xbf", "")); // what an editor may put in front
    }
    if (!found)
        print(QLatin1String("settings: none found, looked for ") + files.join(QLatin1String(", ")));
    return true;
}

// What a shell, or another form of settings, would make of a path that leads nowhere. False if nothing.
static bool faultMisreading(const QString &where, const QString &path)
{
    const QString first = path.section(QLatin1Char(' '), 0, 0);
    if (path.startsWith(QLatin1Char('~')))
        fault(where, "~ is not replaced by the home directory; write that itself");
    else if (path.contains(QLatin1Char('$')))
        fault(where, "$ is not replaced by a variable; write its value itself");
    else if (path.contains(QLatin1String(" #")))
        fault(where, "# begins no comment here, and belongs to the path; put the comment behind a ;");
    else if (path.startsWith(QLatin1Char('\'')))
        fault(where, "' belongs to the path; put double quotes, or none");
    else if (first != path && QFileInfo(first).isFile())
        fault(where, "arguments cannot be given, and belong to the path; name a script that gives them");
    else
        return false;
    return true;
}

static void checkRoom(const QString &where, const QFileInfo &target)
{
    struct statvfs room;
    const QString folder = target.path();
    if (statvfs(QFile::encodeName(folder).constData(), &room) != 0 || room.f_blocks == 0)
        return; // a file system without end
    const quint64 bytes = quint64(room.f_bavail) * room.f_frsize;
    if (bytes < roomBytes)
        fault(where, "the file system of \"%2\" has %3 kB left, and lines will be lost; make room", folder,
              QString::number(bytes / 1000));
    else if (room.f_files > 0 && room.f_favail == 0 && !target.exists())
        fault(where, "the file system of \"%2\" takes no more files, and lines are lost; make room", folder);
}

static void checkLogFile(const QString &where, const QString &path)
{
    if (path.isEmpty())
        return;
    const QFileInfo target = linkTarget(path);
    struct stat status;
    if (stat(QFile::encodeName(target.filePath()).constData(), &status) == 0) {
        if (S_ISDIR(status.st_mode) || S_ISSOCK(status.st_mode))
            fault(where, "is a folder or a socket, and lines are lost; name a file");
        else if (S_ISFIFO(status.st_mode))
            fault(where, "is a FIFO, and the start waits until somebody reads it; name a file");
        else if (!allows(path, W_OK))
            fault(where, "cannot be written (%2), and lines are lost; see to its rights", systemError());
        else if (S_ISREG(status.st_mode))
            checkRoom(where, target);
    } else if (errno == ENOENT && faultMisreading(where, path)) {
        return;
    } else if (errno != ENOENT) {
        fault(where, "cannot be opened (%2), and lines are lost; correct it", systemError());
    } else if (!allows(target.path(), W_OK | X_OK)) {
        fault(where, "cannot be made in folder \"%2\" (%3), and lines are lost; make or correct that",
              target.path(), systemError());
    } else {
        checkRoom(where, target);
    }
}

static QString folderOf(const QFileInfo &file)
{
    return QFileInfo(file.path()).canonicalFilePath();
}

static void checkLogging(Settings *settings)
{
    const QLatin1String logKey("logging/logfile"), telegramKey("logging/telegramfile"),
        syslogKey("logging/syslog");
    const QString log = settings->text(logKey, QString()), telegrams = settings->text(telegramKey, QString());
    checkLogFile(settings->where(logKey), log);
    checkLogFile(settings->where(telegramKey), telegrams);
    const QFileInfo logTarget = linkTarget(log), telegramTarget = linkTarget(telegrams);
    if (!log.isEmpty() && logTarget.fileName() == telegramTarget.fileName()
        && folderOf(logTarget) == folderOf(telegramTarget)
        && (logTarget.isFile() || !logTarget.exists())) // no terminal or /dev/null, which several may share
        fault(settings->where(telegramKey),
              "is the log file too, and one overwrites the other; name two files");

    const QString syslog = settings->value(syslogKey, QLatin1String("false")).toString();
    const bool off = syslog == QLatin1String("false");
    settings->show(syslogKey,
                   QLatin1Char('"') + syslog + QLatin1String(off ? "\", standard output" : "\", syslog"));
    if (!off && syslog != QLatin1String("true"))
        fault(settings->where(syslogKey), "\"%2\" is not false, and means syslog; write true or false",
              syslog);
    if (!off && !allows(QLatin1String("/dev/log"), W_OK))
        fault(QLatin1String("/dev/log"), "nobody takes lines for syslog; start its daemon before keepwatch");
    settings->flag(QLatin1String("logging/debug"), "plain debug messages pass", "no plain debug messages");
    settings->flag(QLatin1String("logging/trace"), "trace messages pass", "no trace messages");
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
    if (service.startsWith(QLatin1Char(':')) || !dbus_validate_bus_name(service.toUtf8().constData(), 0))
        fault(where, "is no bus name and never comes; name one like com.qel.zarn5.gui");
    else if (service.contains(QLatin1Char('-')) || service.size() > 255 - int(strlen(".adaptor")))
        fault(where,
              "makes no interface name, and is never connected; take out dashes, 247 characters at most");
}

// Whether pgrep, given `pattern`, finds a process of this name.
static bool finds(const QString &pattern, const QString &name)
{
    regex_t expression;
    if (regcomp(&expression, pattern.toLocal8Bit().constData(), REG_EXTENDED | REG_NOSUB) != 0)
        return false;
    const bool found = regexec(&expression, name.toLocal8Bit().constData(), 0, 0, 0) == 0;
    regfree(&expression);
    return found;
}

// Runs a command, of whatever kind PATH finds, and takes its output line by line. False if it did not end.
static bool run(const QString &program, const QStringList &arguments, QStringList *lines)
{
    ChildProcess command;
    command.setStandardErrorFile(QLatin1String("/dev/null")); // else it would be kept, without limit
    command.start(program, arguments);
    QByteArray output;
    QElapsedTimer timer;
    timer.start();
    while (output.size() < commandBytes
           && command.waitForReadyRead(qMax(0, patienceMs - int(timer.elapsed()))))
        output += command.readAllStandardOutput();
    const QString where = program + QLatin1Char(' ') + arguments.join(QLatin1String(" "));
    if (command.error() == QProcess::FailedToStart) {
        fault(where, "cannot be run, and old processes stay; install it or correct PATH");
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

struct Process
{
    QString name;
    char state;
    int parent;
};

// What the kernel says of a process; without a name if there is none.
static Process readProcess(int id)
{
    Process process = { QString(), 0, 0 };
    QFile file(QString::fromLatin1("/proc/%1/stat").arg(id));
    if (!file.open(QIODevice::ReadOnly))
        return process;
    const QByteArray stat = file.readAll();
    const int begin = int(stat.indexOf('(')) + 1,
              end = int(stat.lastIndexOf(')')); // either may be in the name, too
    if (begin < 1 || sscanf(stat.constData() + end, ") %c %d", &process.state, &process.parent) != 2)
        return process;
    process.name = QString::fromLocal8Bit(stat.mid(begin, end - begin).constData());
    return process;
}

// The keepwatch that runs: to look at its next start it counts as ended, with all below it.
static int running;

static bool belongsToRunning(int id)
{
    while (id > 1 && id != running)
        id = readProcess(id).parent;
    return running && id == running;
}

// What surrounds a process that runs; empty if this user may not know.
static QString surrounding(const QList<QByteArray> &environment, const QByteArray &variable)
{
    for (const QByteArray &line : environment) {
        if (line.startsWith(variable + '='))
            return QFile::decodeName(line.mid(variable.size() + 1));
    }
    return QString();
}

// Notes it, and in what its surroundings differ from ours.
static void findRunning()
{
    for (const QString &entry : QDir(QLatin1String("/proc")).entryList(QDir::Dirs)) {
        const int id = entry.toInt();
        struct stat status;
        if (id <= 0 || stat(QFile::encodeName(QLatin1String("/proc/") + entry).constData(), &status) != 0)
            continue;
        const Process process = readProcess(id);
        if (process.name != QLatin1String("keepwatch") || process.state == 'Z'
            || readProcess(process.parent).name == process.name) // its child, on the way to be a module
            continue;
        running = id;
        const QString folder = QLatin1String("/proc/") + entry;
        char program[4096];
        const ssize_t size = readlink(QFile::encodeName(folder + QLatin1String("/exe")).constData(), program,
                                      sizeof program);
        const QString path = QFile::decodeName(QByteArray(program, int(qMax(size, ssize_t(0)))));
        const QLatin1String where("keepwatch");
        if (status.st_uid != getuid())
            return fault(where,
                         "process %2 is %3's, whose rights, home and settings count; run this as that user",
                         entry, QFileInfo(folder).owner());
        note(where, "runs as process %2 (%3); this is about its next start", entry, path);
        if (path.endsWith(QLatin1String(" (deleted)")))
            note(where, "process %2 is still the program of before an upgrade; restart it", entry);
        const QString directory = QFileInfo(folder + QLatin1String("/cwd")).symLinkTarget();
        if (!directory.isEmpty() && directory != QDir::currentPath())
            note(where, "it runs in %2, and relative paths are looked at from %3; go there first", directory,
                 QDir::currentPath());
        QFile file(folder + QLatin1String("/environ"));
        if (!file.open(QIODevice::ReadOnly))
            return;
        const QList<QByteArray> environment = file.readAll().split('\0');
        const char *const variables[] = { "HOME", "XDG_CONFIG_HOME", "XDG_CONFIG_DIRS" };
        for (const char *variable : variables) {
            const QString its = surrounding(environment, variable),
                          ours = QFile::decodeName(qgetenv(variable));
            if (its != ours)
                note(QLatin1String(variable), "is \"%2\" for the keepwatch that runs and \"%3\" here", its,
                     ours);
        }
        const QString bus = surrounding(environment, "DBUS_SESSION_BUS_ADDRESS");
        if (qgetenv("DBUS_SESSION_BUS_ADDRESS").isEmpty() && !bus.isEmpty()) {
            qputenv("DBUS_SESSION_BUS_ADDRESS", QFile::encodeName(bus));
            note(QLatin1String("DBUS_SESSION_BUS_ADDRESS"), "is not set; taken from the keepwatch that runs");
        }
        return;
    }
}

// Asks pgrep as keepwatch does, and faults every process that it finds. False if asking again is of no use.
static bool checkProcesses(const QString &where, const QString &pattern, bool ours, const char *what)
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
        const QString name = readProcess(number).name;
        if (number != getpid() && !name.isEmpty() && (!ours || kill(number, 0) == 0)
            && !belongsToRunning(number))
            fault(where, what, id, name);
    }
    return true;
}

struct Module
{
    QString place; ///< where its path stands in the settings
    QString service;
    QString processName; ///< empty if there is no such file
    QString pattern; ///< of the names that the start kills; empty for none
};

static Module checkModule(Settings *settings, const QString &name)
{
    const QString pathKey = name + QLatin1String("/path"), serviceKey = name + QLatin1String("/service");
    const QString path = settings->text(pathKey, QLatin1String("zarn5_") + name);
    const bool start
        = settings->flag(name + QLatin1String("/start"), "something else starts it", "keepwatch starts it");
    settings->flag(name + QLatin1String("/wait"), "the release does not wait for it",
                   "the release waits for it");
    Module module;
    module.service = settings->text(serviceKey, QLatin1String("com.qel.zarn5.") + name);
    checkService(settings->where(serviceKey), module.service);
    module.place = settings->where(pathKey);
    if (!QFile(path).exists()) {
        if (!faultMisreading(module.place, path))
            fault(module.place,
                  "there is no such file, and the module is left out; correct it or the working directory");
        return module;
    }
    module.processName = QFileInfo(path).fileName().left(processNameLength);
    if (module.processName.contains(QLatin1String("keepwatch")))
        fault(module.place, "its name contains keepwatch, which does not start beside it; rename it");
    if (!start)
        return module;
    checkProgram(module.place, path);
    module.pattern = QFileInfo(path).baseName().left(processNameLength);
    if (module.pattern.isEmpty() || !finds(module.pattern, module.processName))
        fault(module.place, "pgrep does not find its name, and an old process stays; use letters, digits, _");
    return module;
}

static void checkModules(Settings *settings)
{
    const Module modules[] = { checkModule(settings, QLatin1String("gui")),
                               checkModule(settings, QLatin1String("uartinterface")) };
    if (modules[0].service == modules[1].service)
        fault(settings->where(QLatin1String("uartinterface/service")),
              "is that of gui too, and only gui is connected; give each its own");

    QStringList unused;
    run(QLatin1String("kill"), QStringList() << QLatin1String("-0") << QString::number(getpid()), &unused);
    bool works = checkProcesses(QLatin1String("keepwatch"), QLatin1String("keepwatch"), false,
                                "does not start beside process %2 (%3); end that, or give it another name");
    for (const Module &module : modules) {
        if (module.pattern.isEmpty())
            continue;
        if (modules[&module == modules].processName.contains(module.pattern))
            fault(module.place,
                  "its name is in the other module's, which the start kills with it; rename one");
        works = works
            && checkProcesses(module.place, module.pattern, true,
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

// Whether there were any faults.
static bool printFindings()
{
    for (const QString &line : notes)
        print(line);
    notes.clear();
    const bool any = !faults.isEmpty();
    for (const QString &line : faults)
        print(line);
    faults.clear();
    fflush(stdout);
    return any;
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
    findRunning();
    const QStringList files = settingsFiles();
    if (checkSettingsFiles(files)) {
        Settings settings(files);
        checkLogging(&settings);
        checkModules(&settings);
        settings.findUnknown();
    }
    bool faulty = printFindings(); // while it is sure that this comes to its end
    checkBus();
    faulty = printFindings() || faulty;
    if (!faulty)
        puts("no fault found");
    return faulty ? 1 : 0;
}
