// Takes the place of a process: its file systems, network, working directory, user, and environment.
#ifndef PLACE_H
#define PLACE_H

#include <QByteArray>
#include <QList>

#include <sys/types.h>

/** A regular file that a process has opened for writing, or has as a standard stream. */
struct WrittenFile
{
    int descriptor; ///< of the process
    int file; ///< ours, open for reading; -1 if this user is not allowed to
    dev_t device;
    ino_t inode;
    QByteArray path; ///< as the kernel has it; " (deleted)" follows if the file has none any more
};

/** Opens the files that `process` writes, which stay open until this process exits. */
QList<WrittenFile> openWrittenFiles(int process);

/**
 * Sees from now on settings, files, and sockets as `process` does, which cannot be undone. Call it before Qt
 * and libdbus look at any of them, in a process of its own. `*prefix`: belongs in front of each absolute
 * path; usually empty. Returns false and what to do if this user is not allowed to.
 */
bool takePlace(int process, QByteArray *prefix, QByteArray *advice);

#endif
