// Checks the files that hold the settings, and how keepwatch reads each key.
#include "check.h"
#include "modules.h"
#include "qtversion.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <clocale>
#include <sys/stat.h>

static const int settingsBytes = 1000000; // taking a larger file to pieces could use all memory

void Check::note(const QByteArray &place, const QByteArray &text)
{
    lines.append("note: " + place + ": " + text);
}

void Check::fault(const QByteArray &place, const QByteArray &text)
{
    if (!text.isEmpty())
        faults.append("fault: " + place + ": " + text);
}

QByteArray Check::placeOf(const QByteArray &key) const
{
    for (const QSettings &file : files) {
        if (file.contains(QString::fromLatin1(key)))
            return key + " (" + file.fileName().toUtf8() + ")";
    }
    return key + " (default)";
}

static QByteArray quote(const QString &text)
{
    return '"' + text.toUtf8() + '"';
}

void actAsKeepwatch()
{
    setlocale(LC_CTYPE, "");
    keepLettersWithoutLocale();
    QCoreApplication::setOrganizationName(QLatin1String("zarn5"));
    QCoreApplication::setOrganizationDomain(QLatin1String("zarn5.qel.com"));
    QCoreApplication::setApplicationName(QLatin1String("keepwatch"));
}

// The files in which Qt looks up a key, in this order.
static QStringList settingsFiles()
{
    // Nothing has settings by this name.
    const QLatin1String none("zarn5ctl"), forUs("/zarn5/keepwatch.conf"), forAll("/zarn5.conf");
    const QString own = QFileInfo(QSettings(QSettings::UserScope, none).fileName()).path();
    QString listed = QFile::decodeName(qgetenv("XDG_CONFIG_DIRS"));
    if (listed.isEmpty())
        listed = QFileInfo(QSettings(QSettings::SystemScope, none).fileName()).path();
    QStringList found = QStringList() << own + forUs << own + forAll, rest;
    for (const QString &folder : listed.split(QLatin1Char(':'))) {
        found << folder + forUs;
        rest << folder + forAll;
    }
    return found + rest;
}

// Finds what Qt does not tell: lines that it passes over, and keys that it takes from another line.
static void checkLines(const QByteArray &file, QByteArray data, Check *check)
{
    QMap<QByteArray, int> seen; // section, or section and key: the last line that has it
    QByteArray section;
    bool goesOn = false;
    int number = 0;
    for (const QByteArray &whole : data.replace("\r\n", "\n").replace('\r', '\n').split('\n')) {
        const QByteArray place = file + ":" + QByteArray::number(++number), line = whole.trimmed();
        const bool heads = line.startsWith('['), isRest = goesOn, isComment = line.startsWith(';');
        const int size = int(line.indexOf(heads ? ']' : '=')) + heads;
        const QByteArray name = line.left(size).trimmed();
        goesOn = !isComment && ((line.count('"') - line.count("\\\"")) % 2 != 0 || line.endsWith('\\'));
        if (line.isEmpty() || isComment || isRest)
            continue;
        if (goesOn)
            check->fault(place, "continues on the next line; close its quotes, and end it with no \\");
        if (size < heads) {
            check->fault(place, "reads as neither [section] nor key=value; correct it or put ; in front");
            continue;
        }
        section = heads ? name : section;
        int &before = seen[heads ? section : section + '=' + name];
        const QByteArray again = " is in line " + QByteArray::number(before) + ", too, ";
        if (before && heads)
            check->note(place, name + again + "and the keys of both count");
        else if (before)
            check->fault(place, "key \"" + name + '"' + again + "which is ignored; take one out");
        before = number;
    }
}

// Returns false if no key is to be read, from any file.
static bool checkFile(const QString &path, Check *check)
{
    const QByteArray name = QFile::encodeName(path);
    struct stat status = {};
    if (stat(name.constData(), &status) != 0 && (errno == ENOENT || errno == ENOTDIR)
        && !QFileInfo(path).isSymLink())
        return true;
    QFile file(path);
    const bool isRegular = S_ISREG(status.st_mode) && status.st_size <= settingsBytes;
    const bool isRead = isRegular && file.open(QIODevice::ReadOnly);
    const QByteArray data = isRead ? file.readAll() : QByteArray();
    const bool isWide
        = data.startsWith("\xff\xfe") || data.startsWith("\xfe\xff") || data.left(2).count('\0') == 1;
    check->lines.append("settings: " + name);
    if (!isRead || isWide) {
        check->fault(name,
                     QByteArray(isWide ? "is UTF-16" : "is no readable file of at most 1 MB")
                         + ", and no key or module was looked at; replace it");
        return false;
    }
    checkLines(name, data.startsWith("\xef\xbb\xbf") ? data.mid(3) : data, check); // a mark of editors
    check->files.emplace_back(path, QSettings::NativeFormat);
    return true;
}

// Returns why a value does not say what it seems to; empty if it does.
static QByteArray judgeValue(const QVariant &value, bool isFlag)
{
    const QString text = value.toString(), meant = QString::fromUtf8(text.toLatin1());
    const QChar lost = QChar::ReplacementCharacter;
    if (value.userType() == QMetaType::QStringList)
        return "is a list and reads as nothing; put double quotes around it";
    bool isNumber;
    text.toInt(&isNumber);
    if (isFlag && !isNumber)
        return quote(text) + " reads as " + (value.toInt() ? "1" : "0") + "; write 0 or 1";
    const bool isLatin = QString::fromLatin1(text.toLatin1()) == text; // read byte by byte
    if (text.contains(QChar()) || text.contains(lost) || (isLatin && meant != text && !meant.contains(lost)))
        return "reads as " + quote(text) + "; write what is not ASCII as its code, like \\x00e4";
    return QByteArray();
}

// Shows a key with its value as keepwatch reads it.
static void show(const QByteArray &key, const QByteArray &value, bool isFlag, Check *check)
{
    const QString name = QString::fromLatin1(key);
    const QByteArray place = check->placeOf(key);
    check->known.insert(name);
    check->lines.append(QByteArray(place).insert(key.size(), " = " + value));
    check->fault(place, judgeValue(QSettings().value(name, isFlag ? QVariant(1) : QVariant()), isFlag));
}

static void showText(const QByteArray &key, const QString &text, Check *check)
{
    const bool isPath = !text.isEmpty() && (key.endsWith("path") || key.endsWith("file"));
    const bool isRelative = isPath && QFileInfo(text).isRelative();
    show(key, quote(text) + (isRelative ? " in " + QDir::currentPath().toUtf8() : ""), false, check);
}

static void showFlag(const QByteArray &key, bool on, const char *ifOff, const char *ifOn, Check *check)
{
    show(key, QByteArray(on ? "1, " : "0, ") + (on ? ifOn : ifOff), true, check);
}

static void showLogging(const LoggingSettings &logging, Check *check)
{
    showText("logging/logfile", logging.logFile, check);
    showText("logging/telegramfile", logging.telegramFile, check);
    showFlag("logging/debug", logging.suppressDebug, "debug messages pass", "no debug messages", check);
    showFlag("logging/trace", logging.suppressTrace, "trace messages pass", "no trace messages", check);
}

static void showModule(const QByteArray &name, const ModuleSettings &module, Check *check)
{
    showText(name + "/path", module.path, check);
    showFlag(name + "/start", module.start, "something else starts it", "keepwatch starts it", check);
    showFlag(name + "/wait", module.wait, "no release waits for it", "the release waits for it", check);
    showText(name + "/service", module.service, check);
}

static void findUnknown(const QSettings &file, Check *check)
{
    const QStringList sections = QStringList(moduleNames()) << QLatin1String("logging");
    QSet<QString> seen = check->known;
    for (const QString &key : file.allKeys()) {
        const QString section = key.section(QLatin1Char('/'), 0, 0);
        const bool isKey = section == key || sections.contains(section);
        const QString unknown = isKey ? key : section;
        if (seen.contains(unknown))
            continue;
        seen.insert(unknown);
        check->fault(file.fileName().toUtf8(),
                     (isKey ? "key " : "section ") + quote(unknown) + (section == key ? " in no section" : "")
                         + " is unknown and ignored; mind its case and section, or take it out");
    }
}

void checkSettings(Check *check)
{
    const QStringList files = settingsFiles();
    for (const QString &file : files) {
        if (!checkFile(file, check))
            return;
    }
    if (check->files.empty())
        check->lines.append("settings: none found, looked for " + files.join(QLatin1String(", ")).toUtf8());
    const QSettings settings;
    const LoggingSettings logging = readLoggingSettings(settings);
    const QString syslog = settings.value(QLatin1String("logging/syslog"), QLatin1String("false")).toString();
    showLogging(logging, check);
    showText("logging/syslog", syslog, check);
    if (logging.useSyslog && syslog != QLatin1String("true"))
        check->fault(check->placeOf("logging/syslog"), quote(syslog) + " means true; write true or false");
    for (const QString &name : moduleNames())
        showModule(name.toUtf8(), readModuleSettings(settings, name), check);
    for (const QSettings &file : check->files) {
        if (file.fileName().endsWith(QLatin1String("/keepwatch.conf"))) // others can have settings elsewhere
            findUnknown(file, check);
    }
    checkLogs(logging, check);
    checkModules(settings, check);
}
