// Measures the log writer of keepwatch, without the bus, or the minimum that such work costs, the floor.
// WHO is "keepwatch" or "floor".
//   inside lines WHO COUNT    writes lines of 80 characters to the file "log"; prints the µs of CPU time per
//                             line, and the MB of resident memory after the last line
//   inside dropped WHO COUNT  drops messages; prints the ns of CPU time per message
// Prints to file descriptor 3, because keepwatch writes the log to stdout.
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
    char buffer[128];
    const int size = snprintf(buffer, sizeof buffer, "[%05i]    %s\n", 0, line.constData());
    if (write(log, buffer, size) != size)
        abort();
}

// Each line has its own recent timestamp, as in practice. The time to create the lines is not measured.
static void lines(bool floor, int count)
{
    const QScopedPointer<Logging> logging(floor ? 0 : new Logging);
    const int log = floor ? open("log", O_WRONLY | O_CREAT | O_TRUNC, 0644) : -1;
    QString texts[100];
    QByteArray bytes[100];
    double spent = 0;
    for (int done = 0; done < count; done += 100) {
        const QDateTime now = QDateTime::currentDateTime();
        for (int i = 0; i < 100; ++i) {
            const QString stamp = now.addMSecs(-i).toString("(yyyy-MM-dd hh:mm:ss.zzz)");
            texts[i] = (stamp + " bench          : load ").leftJustified(80, 'x');
            bytes[i] = texts[i].toLatin1();
        }
        const double start = cpuNs();
        for (int i = 0; i < 100; ++i)
            floor ? writeLine(log, bytes[i]) : logging->onMessage(5, texts[i]);
        spent += cpuNs() - start;
    }
    dprintf(3, "cost %f\nmemory %f\n", spent / count / 1e3, residentMb());
}

static void __attribute__((noinline)) doNothing(QtMsgType, const char *text)
{
    asm volatile("" : : "r"(text));
}

static void dropped(bool floor, int count)
{
    suppressDebug = true;
    void (*volatile drop)(QtMsgType, const char *) = floor ? doNothing : messageHandler;
    const double start = cpuNs();
    for (int i = 0; i < count; ++i)
        drop(QtDebugMsg, "some.cpp            ,  147: nobody wants to know ");
    dprintf(3, "dropped %f\n", (cpuNs() - start) / count);
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
    if (words.value(1) == "lines")
        lines(floor, number);
    else
        dropped(floor, number);
    return 0;
}
