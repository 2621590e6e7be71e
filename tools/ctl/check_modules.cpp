// Checks the executables of the modules, their bus names, and what two modules must not have in common.
#include "check.h"
#include "modules.h"

#include <QFileInfo>

#include <csignal>
#include <cstring>
#include <elf.h>
#include <unistd.h>

static const int serviceLength = 255 - int(strlen(".adaptor")); // of an interface name that has it in front

// Returns why a script is not started by that name; empty if it is.
static QByteArray judgeScript(const QByteArray &head)
{
    QList<QByteArray> words = head.mid(2).split('\n').first().replace('\t', ' ').split(' ');
    words.removeAll(QByteArray());
    const QByteArray interpreter = words.value(0);
    if (access(interpreter.constData(), X_OK) != 0)
        return "cannot be started by \"" + interpreter + "\" (" + QByteArray(strerror(errno))
            + "); correct its first line";
    if (interpreter.endsWith("/env"))
        return "is started by env, and so has another name; name the interpreter itself in its first line";
    return QByteArray();
}

// Whether this machine runs a program. The fields have the same place with 32 and with 64 bits.
static bool fitsMachine(const QByteArray &head)
{
    const QByteArray self = readFile(0, "exe");
    Elf32_Ehdr program = {}, own = {};
    memcpy(&program, head.constData(), qMin(sizeof program, size_t(head.size())));
    memcpy(&own, self.constData(), qMin(sizeof own, size_t(self.size())));
    const int second = own.e_machine == EM_X86_64 ? EM_386 : own.e_machine == EM_AARCH64 ? EM_ARM : EM_NONE;
    const bool isKnown = program.e_machine == own.e_machine || program.e_machine == second;
    return self.isEmpty()
        || (isKnown && program.e_ident[EI_DATA] == own.e_ident[EI_DATA]
            && program.e_ident[EI_CLASS] <= own.e_ident[EI_CLASS]
            && (program.e_type == ET_EXEC || program.e_type == ET_DYN));
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
    const QByteArray head = file.read(256);
    if (head.startsWith("#!"))
        return judgeScript(head);
    if (head.startsWith(ELFMAG) && fitsMachine(head))
        return QByteArray();
    return "is neither a program for this machine nor a script with #!, and is never started; replace it";
}

// Returns the name of a module's process; empty if there is no such file.
static QByteArray processName(const ModuleSettings &module)
{
    const QFileInfo file(module.path);
    return file.exists() ? QFile::encodeName(file.fileName().left(processNameLength)) : QByteArray();
}

// Returns a part of the names of what the start kills; empty for nothing.
static QByteArray victimPattern(const ModuleSettings &module)
{
    const QFileInfo file(module.path);
    const bool kills = module.start && file.exists();
    return kills ? QFile::encodeName(file.baseName().left(processNameLength)) : QByteArray();
}

// Faults what the start would kill, but for what is the module's own.
static void checkVictims(const QByteArray &place, const ModuleSettings &module, Check *check)
{
    const QByteArray program = QFile::encodeName(QFileInfo(module.path).absoluteFilePath());
    for (const Process &process : findNamed(victimPattern(module), check->processes)) {
        const bool isOwn = readFile(process.id, "cmdline").split('\0').contains(program);
        if (!process.runs() || kill(process.id, 0) != 0)
            continue;
        if (isOwn)
            check->note(place, describe(process) + " is left of an earlier run, and the start ends it");
        else
            check->fault(place, "its start kills " + describe(process) + "; end that, or rename it");
    }
}

static void checkModule(const QByteArray &place, const ModuleSettings &module, Check *check)
{
    const QByteArray name = processName(module), pattern = victimPattern(module);
    // For pgrep it is an expression or an option, and an empty one finds all.
    const bool isPlain
        = !pattern.isEmpty() && pattern[0] != '-' && !strpbrk(pattern.constData(), "^$[]|()*+?{}\\");
    if (name.isEmpty())
        return check->fault(
            place, "is no file, and is skipped; correct the path, to which ~ $ ' # and arguments belong");
    if (name.contains("keepwatch"))
        check->fault(place, "its name contains keepwatch, which does not start beside it; rename it");
    if (module.start)
        check->fault(place, judgeProgram(module.path));
    if (module.start && !isPlain)
        check->fault(place, "pgrep finds more than its name, and others are killed; use letters, digits, _");
    else if (module.start)
        checkVictims(place, module, check);
}

void checkModules(const QSettings &settings, Check *check)
{
    QMap<QByteArray, ModuleSettings> modules;
    for (const QString &name : moduleNames())
        modules[name.toUtf8()] = readModuleSettings(settings, name);
    for (const QByteArray &name : modules.keys()) {
        const ModuleSettings &module = modules[name];
        const QString &service = module.service;
        const QByteArray place = check->placeOf(name + "/path"), pattern = victimPattern(module);
        const QByteArray servicePlace = check->placeOf(name + "/service");
        if (!isServiceName(service) || service.contains(QLatin1Char('-')) || service.size() > serviceLength)
            check->fault(servicePlace, "is never connected; name one like com.qel.zarn5.gui, without dashes");
        checkModule(place, module, check);
        for (const QByteArray &other : modules.keys()) {
            if (other != name && !pattern.isEmpty() && processName(modules[other]).contains(pattern))
                check->fault(place, "its start kills " + other + ", whose name contains this; rename one");
            if (other < name && service == modules[other].service)
                check->fault(servicePlace, "is that of " + other + " too; give each its own");
        }
    }
}
