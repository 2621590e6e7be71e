#include "place.h"

#include "processes.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

static const int fileLimit = 32;

// What a process has opened for writing, beside its standard streams. What it has inherited is not closed on
// exec.
static bool isWritten(int process, const QByteArray &descriptor)
{
    const QByteArray info = readFile(process, ("fdinfo/" + descriptor).constData());
    const int at = int(info.indexOf("flags:")) + int(strlen("flags:"));
    const long flags = strtol(info.constData() + at, 0, 8);
    return (flags & O_ACCMODE) != O_RDONLY && (flags & O_CLOEXEC || descriptor.toInt() <= STDERR_FILENO);
}

QList<WrittenFile> openWrittenFiles(int process)
{
    QList<WrittenFile> files;
    for (const QByteArray &descriptor : namesIn(folderOf(process) + "fd")) {
        const QByteArray path = folderOf(process) + "fd/" + descriptor;
        struct stat status;
        if (files.size() == fileLimit || stat(path.constData(), &status) != 0 || !S_ISREG(status.st_mode)
            || !isWritten(process, descriptor))
            continue;
        const int file = open(path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        files.append(WrittenFile { descriptor.toInt(), file, status.st_dev, status.st_ino,
                                   readLink(process, "fd/" + descriptor) });
    }
    return files;
}

// Enters a namespace of the process unless it is ours already.
static bool enterNamespace(int process, const char *name, int type)
{
    if (readLink(process, name) == readLink(0, name))
        return true;
    const int space = open((folderOf(process) + name).constData(), O_RDONLY | O_CLOEXEC);
    const bool entered = space >= 0 && setns(space, type) == 0;
    close(space);
    return entered;
}

// All ids, so that nothing is left of those of this process.
static bool takeUser(uid_t user, gid_t group, const std::vector<gid_t> &groups)
{
    if (user == geteuid() && user == getuid())
        return true;
    return setgroups(groups.size(), groups.data()) == 0 && setresgid(group, group, group) == 0
        && setresuid(user, user, user) == 0;
}

static void takeEnvironment(const QByteArray &environment, const QByteArray &prefix)
{
    clearenv();
    for (const QByteArray &variable : environment.split('\0')) {
        const int equals = int(variable.indexOf('='));
        if (equals > 0)
            setenv(variable.left(equals).constData(), variable.constData() + equals + 1, 1);
    }
    if (prefix.isEmpty())
        return;
    const QByteArray settings = qgetenv("XDG_CONFIG_HOME");
    const QByteArray home = settings.isEmpty() ? qgetenv("HOME") + "/.config" : settings;
    setenv("XDG_CONFIG_HOME", (prefix + home).constData(), 1);
}

bool takePlace(int process, QByteArray *prefix, QByteArray *advice)
{
    const uid_t user = uid_t(userOf(process));
    const gid_t group = gid_t(readStatus(process, "Gid:").value(0).toUInt());
    std::vector<gid_t> groups;
    for (const QByteArray &number : readStatus(process, "Groups:"))
        groups.push_back(number.toUInt());
    const QByteArray environment = readFile(process, "environ");
    const int root = open((folderOf(process) + "root").constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int directory = open((folderOf(process) + "cwd").constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root < 0 || directory < 0) {
        *advice = user == geteuid() ? "it has more capabilities than you; ask as root"
                                    : "ask as " + userName(int(user)) + " or as root";
        return false;
    }
    enterNamespace(process, "ns/net", CLONE_NEWNET); // otherwise, only an abstract socket is not found
    const bool isOurs = readLink(process, "ns/mnt") == readLink(0, "ns/mnt")
        && readLink(process, "root") == readLink(0, "root");
    if (!isOurs && (!enterNamespace(process, "ns/mnt", CLONE_NEWNS) || fchdir(root) != 0 || chroot(".") != 0))
        *prefix = folderOf(process) + "root"; // the way that is open to the same user
    if (fchdir(directory) != 0 || !takeUser(user, group, groups)) {
        *advice = "ask as " + userName(int(user))
            + ", since its place cannot be taken: " + QByteArray(strerror(errno));
        return false;
    }
    close(root);
    close(directory);
    takeEnvironment(environment, *prefix);
    return true;
}
