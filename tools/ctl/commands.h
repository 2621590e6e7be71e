// The commands of zarn5ctl. Each returns the exit status.
#ifndef COMMANDS_H
#define COMMANDS_H

#include "verdict.h"

enum Form { Page, Rows, JsonLines, Metrics };

struct Options
{
    QByteArray log; ///< path, "-" for standard input; empty if none was given
    Form form;
    QByteArray file; ///< of --metrics=FILE
    int seconds; ///< of --limit or the argument of ping and check; 0 if none was given
    bool modules; ///< of ping
    int interval; ///< of watch and run, seconds; 0 if none was given
    bool bus, watch; ///< of run
    QList<QByteArray> program; ///< of run, with its arguments
};

int statusCommand(const Options &options);
int logCommand(const Options &options);
int plotCommand(const Options &options);
int pingCommand(const Options &options);
int checkCommand(const Options &options);
int watchCommand(const Options &options);
int runCommand(const Options &options);

/** Opens a log; -1 and what is wrong with it if it cannot be read. */
int openLog(const QByteArray &path, Finding *trouble);

/** The same, with the trouble on standard error. */
int openLog(const QByteArray &path);

/** Returns the metrics of a report in the text format of Prometheus. */
QByteArray metricsOf(const Report &report);

#endif
