// Keeps the logs of earlier runs.
#ifndef OLDLOGS_H
#define OLDLOGS_H

/**
 * Renames the log file of the settings to LOG.1, LOG.1 to LOG.2, and so on up to LOG.9, because keepwatch
 * empties LOG when it starts. Then limits the space that they use. Call it while no keepwatch runs, because
 * a running one would continue to write to the renamed file. Says on standard error what fails.
 */
void moveOldLogs();

#endif
