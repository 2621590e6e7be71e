// Checks the executables of the modules, their bus names, and what two modules must not have in common.
#include "check.h"
#include "modules.h"

#include <QFileInfo>

#include <csignal>
#include <cstring>
#include <elf.h>
#include <unistd.h>

static const int serviceLength = 255 - int(strlen(".adaptor")); // of an interface name that has it in front

QByteArray findMisreading(const QString &path, const QByteArray &otherwise)
{
    const QString first = path.section(QLatin1Char(' '), 0, 0);
    if (path.startsWith(QLatin1Char('~')))
        return "~ is not replaced by the home directory; write that itself";
    if (path.contains(QLatin1Char('$')))
        return "$ is not replaced by a variable; write its value itself";
    if (path.contains(QLatin1String(" #")))
        return "# begins no comment here, and belongs to the path; put the comment after a ;";
    if (path.startsWith(QLatin1Char('\'')))
        return "' belongs to the path; put double quotes, or none";
    if (first != path && QFileInfo(first).isFile())
        return "arguments cannot be given, and belong to the path; name a script that gives them";
    return otherwise;
}

// Returns why a script is not started by that name; empty if it is.
static QByteArray judgeScript(const QByteArray &head)
{
    QList<QByteArray> words = head.mid(2).split('\n').first().replace('\t', ' ').split(' ');
    words.removeAll(QByteArray());
    const QByteArray interpreter = words.value(0);
    if (access(interpreter.constData(), X_OK) != 0)
        return "cannot be started by \"" + interpreter + "\" (" + strerror(errno)
            + "); correct its first line";
    if (interpreter.endsWith("/env"))
        return "is started by env, and so has another name; name the interpreter itself in its first line";
    return QByteArray();
}

// Whether this machine runs a program. The fields have the same place with 32 and with 64 bits.
static bool fitsMachine(const Elf32_Ehdr &program, const Elf32_Ehdr &own)
{
    const int second = own.e_machine == EM_X86_64 ? EM_386 : own.e_machine == EM_AARCH64 ? EM_ARM : EM_NONE;
    return program.e_ident[EI_DATA] == own.e_ident[EI_DATA]
        && program.e_ident[EI_CLASS] <= own.e_ident[EI_CLASS]
        && (program.e_machine == own.e_machine || program.e_machine == second);
}

QByteArray judgeProgram(const QString &path)
{
    QFile file(path);
    if (!QFileInfo(path).isFile())
        return "is no file, and is never started; name a program";
    if (access(QFile::encodeName(path).constData(), X_OK) != 0)
        return "is never started: " + QByteArray(strerror(errno)) + "; see to its rights";
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray(); // it can be run, but not be looked into
    const QByteArray head = file.read(256), self = readFile(0, "exe");
    if (head.startsWith("#!"))
        return judgeScript(head);
    Elf32_Ehdr program = {}, own = {};
    memcpy(&program, head.constData(), qMin(sizeof program, size_t(head.size())));
    memcpy(&own, self.constData(), qMin(sizeof own, size_t(self.size())));
    if (head.startsWith(ELFMAG) && !self.isEmpty() && !fitsMachine(program, own))
        return "is made for another machine, and is never started; replace it";
    if (!head.startsWith(ELFMAG) || (program.e_type != ET_EXEC && program.e_type != ET_DYN))
        return "is neither a program nor a script with #!, and is never started; replace it";
    return QByteArray();
}

static QByteArray judgeService(const QString &service)
{
    if (isServiceName(service) && !service.contains(QLatin1Char('-')) && service.size() <= serviceLength)
        return QByteArray();
    return "is never connected; name one like com.qel.zarn5.gui, without dashes, 247 characters at most";
}

// The name of a module's process; empty if there is no such file.
static QByteArray processNameOf(const ModuleSettings &module)
{
    const QFileInfo file(module.path);
    return file.exists() ? QFile::encodeName(file.fileName().left(processNameLength)) : QByteArray();
}

// The pattern of the names that the start kills; empty for none.
static QByteArray patternOf(const ModuleSettings &module)
{
    const QFileInfo file(module.path);
    const bool kills = file.exists() && module.start;
    return kills ? QFile::encodeName(file.baseName().left(processNameLength)) : QByteArray();
}

// Faults what the start would kill, but for what is the module's own.
static void checkVictims(const QByteArray &place, const ModuleSettings &module, Check *check)
{
    const QByteArray program = QFile::encodeName(QFileInfo(module.path).absoluteFilePath());
    for (const Process &process : findNamed(patternOf(module), check->processes)) {
        if (!process.runs() || kill(process.id, 0) != 0)
            continue;
        const QByteArray victim = describe(process);
        if (readFile(process.id, "cmdline").split('\0').contains(program))
            check->note(place, victim + " is left of an earlier run, and the start ends it");
        else
            check->fault(place, "its start kills " + victim + "; end that, or give it another name");
    }
}

static void checkModule(const QByteArray &place, const ModuleSettings &module, Check *check)
{
    const QByteArray name = processNameOf(module), pattern = patternOf(module);
    if (name.isEmpty())
        return check->fault(
            place,
            findMisreading(module.path, "there is no such file, and the module is left out; correct it"));
    if (name.contains("keepwatch"))
        check->fault(place, "its name contains keepwatch, which does not start beside it; rename it");
    if (!module.start)
        return;
    check->fault(place, judgeProgram(module.path));
    // For pgrep it is an expression or an option, and an empty one finds all.
    if (pattern.isEmpty() || pattern.startsWith('-') || strpbrk(pattern.constData(), "^$[]|()*+?{}\\"))
        check->fault(place,
                     "pgrep does not find just its name, and others are killed; use letters, digits, _");
    else
        checkVictims(place, module, check);
}

void checkModules(const QSettings &settings, Check *check)
{
    QMap<QByteArray, ModuleSettings> modules;
    for (const QString &name : moduleNames())
        modules[name.toUtf8()] = readModuleSettings(settings, name);
    for (const QByteArray &name : modules.keys()) {
        const ModuleSettings &module = modules[name];
        const QByteArray place = check->placeOf(name + "/path"),
                         servicePlace = check->placeOf(name + "/service"), pattern = patternOf(module);
        check->fault(servicePlace, judgeService(module.service));
        checkModule(place, module, check);
        for (const QByteArray &other : modules.keys()) {
            if (other != name && !pattern.isEmpty() && processNameOf(modules[other]).contains(pattern))
                check->fault(place,
                             "its name is in that of " + other + ", which the start kills too; rename one");
            if (other < name && module.service == modules[other].service)
                check->fault(servicePlace, "is that of " + other + " too; give each its own");
        }
    }
}
