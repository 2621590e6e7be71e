// What keepwatch's log road costs within one process, or the floor under it (WHO: keepwatch or floor).
//   inside lines WHO LENGTH COUNT...  writes lines of LENGTH characters to the file "log"; at each COUNT,
//                                     in rising order, µs of CPU a line and MB of resident memory
//   inside dropped WHO CALLS          ns of CPU a dropped message
// Results go to file descriptor 3, since stdout belongs to the log.
#define main keepwatchMain
#include "main.cpp"
#undef main

#include <QDateTime>

#include <ctime>

static double cpuNs()
{
    timespec time;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return time.tv_sec * 1e9 + time.tv_nsec;
}

static double residentMb()
{
    QFile file("/proc/self/statm");
    file.open(QIODevice::ReadOnly);
    return file.readAll().split(' ').value(1).toDouble() * sysconf(_SC_PAGESIZE) / 1e6;
}

static void writeLine(int log, const QByteArray &line)
{
    static char buffer[1 << 16];
    const int size = snprintf(buffer, sizeof buffer, "[%05i]    %s\n", 0, line.constData());
    if (write(log, buffer, size) != size)
        abort();
}

// As in practice each line bears a recent stamp of its own. The clock stands while a batch is made.
static void lines(bool floor, int length, const QStringList &counts)
{
    const QScopedPointer<Logging> logging(floor ? 0 : new Logging);
    const int log = floor ? open("log", O_WRONLY | O_CREAT | O_TRUNC, 0644) : -1;
    QString texts[100];
    QByteArray bytes[100];
    double spent = 0;
    int done = 0;
    for (const QString &count : counts) {
        while (done < count.toInt()) {
            const QDateTime now = QDateTime::currentDateTime();
            for (int i = 0; i < 100; ++i) {
                const QString stamp = now.addMSecs(-i).toString("(yyyy-MM-dd hh:mm:ss.zzz)");
                texts[i] = (stamp + " bench          : load ").leftJustified(length, 'x');
                bytes[i] = texts[i].toLatin1();
            }
            const double start = cpuNs();
            for (int i = 0; i < 100; ++i)
                floor ? writeLine(log, bytes[i]) : logging->onMessage(5, texts[i]);
            spent += cpuNs() - start;
            done += 100;
        }
        dprintf(3, "cost-%dx%d %f\nmemory-%d %f\n", done, length, spent / done / 1e3, done, residentMb());
    }
}

static void __attribute__((noinline)) doNothing(QtMsgType, const char *text)
{
    asm volatile("" : : "r"(text));
}

static void dropped(bool floor, int calls)
{
    suppressDebug = true;
    void (*volatile drop)(QtMsgType, const char *) = floor ? doNothing : messageHandler;
    const double start = cpuNs();
    for (int i = 0; i < calls; ++i)
        drop(QtDebugMsg, "some.cpp            ,  147: nobody wants to know ");
    dprintf(3, "dropped %f\n", (cpuNs() - start) / calls);
}

int main(int argc, char **argv)
{
    QCoreApplication::setOrganizationName("zarn5");
    QCoreApplication::setApplicationName("keepwatch");
    installMessageHandler<messageHandler>();
    QCoreApplication application(argc, argv);
    const QStringList words = application.arguments();
    const bool floor = words.value(2) == "floor";
    const int number = words.value(3).toInt();
    words.value(1) == "lines" ? lines(floor, number, words.mid(4)) : dropped(floor, number);
    return 0;
}
