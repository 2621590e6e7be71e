// Checks the executables of the modules, their bus names, and what two modules must not have in common.
#include "check.h"
#include "modules.h"

#include <QFileInfo>

#include <csignal>
#include <cstring>
#include <elf.h>
#include <unistd.h>

QByteArray findMisreading(const QString &path)
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
    return QByteArray();
}

// Returns why a script is not started by that name; empty if it is.
static QByteArray judgeScript(const QByteArray &head)
{
    const QByteArray line = head.mid(2, head.indexOf('\n') - 2).replace('\t', ' ').trimmed();
    const QByteArray interpreter = line.split(' ').first();
    if (access(interpreter.constData(), X_OK) != 0)
        return "cannot be started by \"" + interpreter + "\" (" + systemError() + "); correct its first line";
    if (interpreter.endsWith("/env"))
        return "is started by env, so its process has another name, and an old one is not found; "
               "name the interpreter itself in its first line";
    return QByteArray();
}

// The fields in question have the same place in a header of 32 and of 64 bits.
static bool fitsMachine(const Elf32_Ehdr &program, const Elf32_Ehdr &own)
{
    const int second = own.e_machine == EM_X86_64 ? EM_386 : own.e_machine == EM_AARCH64 ? EM_ARM : EM_NONE;
    const unsigned char *const its = program.e_ident, *const ours = own.e_ident;
    return its[EI_DATA] == ours[EI_DATA] && its[EI_CLASS] <= ours[EI_CLASS]
        && (program.e_machine == own.e_machine || program.e_machine == second);
}

QByteArray judgeProgram(const QString &path)
{
    QFile file(path);
    if (!QFileInfo(path).isFile())
        return "is no file, and is never started; name a program";
    if (access(QFile::encodeName(path).constData(), X_OK) != 0)
        return "cannot be executed (" + systemError() + "), and is never started; see to its rights";
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray(); // it can be run, but not be looked into
    const QByteArray head = file.read(256), self = readFile(0, "exe");
    if (head.startsWith("#!"))
        return judgeScript(head);
    Elf32_Ehdr program = {}, own = {};
    memcpy(&program, head.constData(), qMin(sizeof program, size_t(head.size())));
    memcpy(&own, self.constData(), qMin(sizeof own, size_t(self.size())));
    if (head.startsWith(ELFMAG) && !fitsMachine(program, own))
        return "is made for another machine, and is never started; replace it";
    if (!head.startsWith(ELFMAG) || (program.e_type != ET_EXEC && program.e_type != ET_DYN))
        return "is neither a program nor a script with #!, and is never started; replace it";
    return QByteArray();
}

static QByteArray judgeService(const QString &service)
{
    if (!isServiceName(service))
        return "is no bus name and never comes; name one like com.qel.zarn5.gui";
    if (service.contains(QLatin1Char('-')) || service.size() > 255 - int(strlen(".adaptor")))
        return "makes no interface name, and is never connected; take out dashes, 247 characters at most";
    return QByteArray();
}

namespace {

struct Module
{
    QByteArray name, path; // absolute
    QByteArray place, servicePlace; // in the settings
    QString service;
    QByteArray processName; // empty if there is no such file
    QByteArray pattern; // of the names that the start kills; empty for none
};

}

// Faults what the start would kill, but for what is the module's own.
static void checkVictims(const Module &module, Check *check)
{
    for (const Process &process : findNamed(module.pattern, *check)) {
        if (!process.runs() || kill(process.id, 0) != 0)
            continue;
        if (readFile(process.id, "cmdline").split('\0').contains(module.path))
            check->note(module.place,
                        describe(process) + " is left of an earlier run, and the start ends it");
        else
            check->fault(module.place,
                         "its start kills " + describe(process) + "; end that, or give it another name");
    }
}

static Module checkModule(const QString &name, const ModuleSettings &settings, Check *check)
{
    const QFileInfo file(settings.path);
    const QByteArray section = name.toUtf8();
    Module module = { section,
                      QFile::encodeName(file.absoluteFilePath()),
                      check->placeOf(section + "/path"),
                      check->placeOf(section + "/service"),
                      settings.service,
                      QByteArray(),
                      QByteArray() };
    check->fault(module.servicePlace, judgeService(module.service));
    if (!file.exists()) {
        const QByteArray misreading = findMisreading(settings.path);
        check->fault(
            module.place,
            misreading.isEmpty()
                ? "there is no such file, and the module is left out; correct it or the working directory"
                : misreading);
        return module;
    }
    module.processName = QFile::encodeName(file.fileName().left(processNameLength));
    if (module.processName.contains("keepwatch"))
        check->fault(module.place, "its name contains keepwatch, which does not start beside it; rename it");
    if (!settings.start)
        return module;
    check->fault(module.place, judgeProgram(settings.path));
    module.pattern = QFile::encodeName(file.baseName().left(processNameLength));
    // For pgrep it is an expression or an option, and an empty one finds all.
    if (module.pattern.isEmpty() || strpbrk(module.pattern.constData(), "^$[]|()*+?{}\\")
        || module.pattern.startsWith('-'))
        check->fault(module.place,
                     "pgrep does not find just its name, and old processes stay or others are killed; use "
                     "letters, digits, _");
    else
        checkVictims(module, check);
    return module;
}

static void checkNames(const Module &killer, const Module &victim, Check *check)
{
    if (!killer.pattern.isEmpty() && victim.processName.contains(killer.pattern))
        check->fault(killer.place,
                     "its name is in that of " + victim.name + ", which the start kills with it; rename one");
}

void checkModules(const QSettings &settings, Check *check)
{
    QList<Module> modules;
    for (const QString &name : moduleNames()) {
        const Module module = checkModule(name, readModuleSettings(settings, name), check);
        for (const Module &other : modules) {
            if (module.service == other.service)
                check->fault(module.servicePlace,
                             "is that of " + other.name
                                 + " too, which alone is connected; give each its own");
            checkNames(module, other, check);
            checkNames(other, module, check);
        }
        modules.append(module);
    }
}
