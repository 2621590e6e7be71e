// What stands around a receiver of log lines on the bus, in bare libdbus.
//   bus sink             the least that a receiver can do: one write a line
//   bus send PID COUNT   publishes COUNT lines; prints µs of wall time and of PID's CPU a line, from the
//                        first sent until the last stands in the log
//   bus wait PID TEXT    waits until TEXT stands at the end of the log; prints µs of PID's CPU so far
// The log is the file "log" in the working folder.
#include <dbus/dbus.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <unistd.h>

static void fail(const char *reason)
{
    fprintf(stderr, "bus: %s\n", reason);
    exit(1);
}

static double now(clockid_t clock)
{
    timespec time;
    if (clock_gettime(clock, &time) != 0)
        fail("the receiver is gone");
    return time.tv_sec * 1e6 + time.tv_nsec / 1e3;
}

// The end is more than one line: the receiver may add lines of its own.
static bool logEndsWith(const std::string &text)
{
    char end[1024];
    const int log = open("log", O_RDONLY);
    lseek(log, -off_t(sizeof end), SEEK_END); // what is shorter is read from its start
    const ssize_t size = read(log, end, sizeof end);
    close(log);
    return size > 0 && memmem(end, size, text.data(), text.size());
}

static void await(const std::string &text)
{
    const double deadline = now(CLOCK_MONOTONIC) + 60e6;
    while (!logEndsWith(text)) {
        if (now(CLOCK_MONOTONIC) > deadline)
            fail("the last line has not come");
        usleep(200);
    }
}

static void publish(DBusConnection *bus, const char *text)
{
    timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    tm local;
    localtime_r(&time.tv_sec, &local);
    char buffer[128];
    const size_t size = strftime(buffer, sizeof buffer, "(%Y-%m-%d %H:%M:%S", &local);
    snprintf(buffer + size, sizeof buffer - size, ".%03ld) bench          : %s", time.tv_nsec / 1000000,
             text);

    const dbus_uint32_t level = 5;
    const char *line = buffer;
    DBusMessage *message = dbus_message_new_signal("/", "com.qel.zarn5.log", "log");
    dbus_message_append_args(message, DBUS_TYPE_UINT32, &level, DBUS_TYPE_STRING, &line, DBUS_TYPE_INVALID);
    dbus_connection_send(bus, message, 0);
    dbus_message_unref(message);
}

static void send(DBusConnection *bus, clockid_t cpu, int count)
{
    do { // nothing else tells when the receiver has subscribed
        publish(bus, "probe");
        dbus_connection_flush(bus);
        usleep(20000);
    } while (!logEndsWith("probe"));

    const double wallStart = now(CLOCK_MONOTONIC);
    const double cpuStart = now(cpu);
    char text[64];
    for (int i = 1; i <= count; ++i) { // 80 characters a line
        snprintf(text, sizeof text, "load %05d abcdefghijklmnopqrstuvwxyz", i);
        publish(bus, text);
    }
    dbus_connection_flush(bus);
    await(text);
    printf("wall %f\ncpu %f\n", (now(CLOCK_MONOTONIC) - wallStart) / count, (now(cpu) - cpuStart) / count);
}

static DBusHandlerResult onSignal(DBusConnection *, DBusMessage *message, void *log)
{
    dbus_uint32_t level;
    const char *text;
    if (!dbus_message_get_args(message, 0, DBUS_TYPE_UINT32, &level, DBUS_TYPE_STRING, &text,
                               DBUS_TYPE_INVALID))
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    char line[256];
    const int size = snprintf(line, sizeof line, "[%05i]    %s\n", 0, text);
    if (write(*static_cast<int *>(log), line, size) != size)
        fail("the log cannot be written");
    return DBUS_HANDLER_RESULT_HANDLED;
}

static void sink(DBusConnection *bus)
{
    signal(SIGINT, SIG_DFL); // a background process of the shell ignores it
    int log = open("log", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dbus_connection_add_filter(bus, onSignal, &log, 0);
    dbus_bus_add_match(bus, "type='signal',interface='com.qel.zarn5.log'", 0);
    while (dbus_connection_read_write_dispatch(bus, -1)) { }
}

int main(int argc, char **argv)
{
    const std::string work = argv[1];
    clockid_t cpu;
    if (argc > 2 && clock_getcpuclockid(atoi(argv[2]), &cpu) != 0)
        fail("no receiver");
    if (work == "wait") {
        await(argv[3]);
        printf("%f\n", now(cpu));
        return 0;
    }
    DBusConnection *bus = dbus_bus_get(DBUS_BUS_SESSION, 0);
    if (!bus)
        fail("no session bus");
    work == "sink" ? sink(bus) : send(bus, cpu, atoi(argv[3]));
    return 0;
}
