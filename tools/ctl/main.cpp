// zarn5ctl: what keepwatch does, from outside. Only "run" starts other programs and renames logs, and only
// "watch" ends what hangs.
#include "commands.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

static const char usage[]
    = "usage: zarn5ctl [status] [LOG|-] [--json|--metrics[=FILE.prom]] [--limit SECONDS]\n"
      "       zarn5ctl log LOG|- [--tsv|--json]\n"
      "       zarn5ctl plot LOG|- >FILE.svg\n"
      "       zarn5ctl ping [--modules] [SECONDS]\n"
      "       zarn5ctl check [SECONDS]\n"
      "       zarn5ctl run [--bus] [--watch] [--interval SECONDS] [--limit SECONDS] [--] PROGRAM "
      "[ARGUMENT]...\n"
      "       zarn5ctl watch [--interval SECONDS] [--limit SECONDS]\n"
      "       zarn5ctl --help | --version\n";
static const char help[]
    = "\n"
      "status  finds keepwatch, asks it and its modules, reads its log, and says whether all is well;\n"
      "        of a LOG, what that says\n"
      "log     prints a row per line of the log: arrival, delay, level, module, text\n"
      "plot    draws when the modules were not released, which of them exited, and the delay of the lines\n"
      "ping    says whether keepwatch answers within SECONDS\n"
      "check   says whether keepwatch will start with the settings, the environment, and the bus of its "
      "caller\n"
      "run     keeps the older logs, checks the start, and runs the PROGRAM; --bus: on a private bus;\n"
      "        --watch: with what watch does\n"
      "watch   logs which module blocks keepwatch, and ends a keepwatch or a bus daemon that hangs\n"
      "\n"
      "Exit status: 0 all is well, 1 something is not, 2 cannot tell or usage error; of ping, 3: a module is "
      "silent;\n"
      "of run, that of the PROGRAM.\n";

static const struct Command
{
    const char *name;
    int (*run)(const Options &options);
    const char *options; // that it takes
    bool takesLog, needsLog;
} commands[] = {
    { "status", statusCommand, "--json --metrics --limit ", true, false },
    { "log", logCommand, "--tsv --json ", true, true },
    { "plot", plotCommand, "", true, true },
    { "ping", pingCommand, "--modules ", false, false },
    { "check", checkCommand, "", false, false },
    { "watch", watchCommand, "--interval --limit ", false, false },
    { "run", runCommand, "--bus --watch --interval --limit ", false, false },
};

static bool parseSeconds(const QByteArray &text, int *seconds)
{
    *seconds = text.toInt();
    return *seconds > 0 && *seconds < 100000 && QByteArray::number(*seconds) == text;
}

static bool parseOption(const Command &command, const QByteArray &word, Options *options)
{
    const int equals = int(word.indexOf('='));
    const QByteArray name = word.left(equals < 0 ? word.size() : equals),
                     value = equals < 0 ? "" : word.mid(equals + 1);
    if (!QByteArray(command.options).contains(name + " "))
        return false;
    if (name == "--limit" || name == "--interval")
        return parseSeconds(value, name == "--limit" ? &options->seconds : &options->interval);
    if (name == "--modules")
        options->modules = true;
    else if (name == "--bus")
        options->bus = true;
    else if (name == "--watch")
        options->watch = true;
    else if (options->form != Page) // one is enough
        return false;
    else
        options->form = name == "--json" ? JsonLines : name == "--tsv" ? Rows : Metrics;
    options->file = value;
    return equals < 0
        || (name == "--metrics" && value.endsWith(".prom")); // no collector reads any other file
}

static bool parseWord(const Command &command, const QByteArray &word, Options *options)
{
    if (word.startsWith("-") && word != "-")
        return parseOption(command, word, options);
    if (!command.takesLog)
        return command.run != watchCommand && options->seconds == 0 && parseSeconds(word, &options->seconds);
    const bool isFirst = options->log.isEmpty();
    options->log = word;
    return isFirst && !word.isEmpty();
}

static int run(const Command &command, const QList<QByteArray> &words)
{
    const bool needsProgram = command.run == runCommand;
    Options options = Options();
    for (int i = 0; i < words.size(); ++i) {
        if (needsProgram && (words[i] == "--" || !words[i].startsWith("-"))) {
            options.program = words.mid(words[i] == "--" ? i + 1 : i);
            break;
        }
        QByteArray word = words[i];
        if ((word == "--limit" || word == "--interval") && i + 1 < words.size())
            word += "=" + words[++i];
        if (!parseWord(command, word, &options)) {
            fprintf(stderr, "zarn5ctl: cannot take \"%s\" here\n%s", escape(word).constData(), usage);
            return 2;
        }
    }
    if (command.needsLog ? !options.log.isEmpty() : !needsProgram || !options.program.isEmpty())
        return command.run(options);
    fputs(usage, stderr);
    return 2;
}

// Started without them, a file would take the place of standard output.
static void openStandardStreams()
{
    int descriptor;
    do
        descriptor = open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    close(descriptor);
}

int main(int argc, char **argv)
{
    openStandardStreams();
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_DFL);
    sigset_t none; // a parent may have blocked the signal that interrupts a call
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, 0);
    QList<QByteArray> words;
    for (int i = 1; i < argc; ++i)
        words.append(argv[i]);
    const QByteArray first = words.value(0);
    if (first == "--help" || first == "--version") {
        print(first == "--help" ? QByteArray(usage) + help : QByteArray("zarn5ctl " VERSION "\n"));
        return finishOutput() ? 0 : 2;
    }
    for (const Command &command : commands) {
        if (first == command.name)
            return run(command, words.mid(1));
    }
    return run(commands[0], words);
}
