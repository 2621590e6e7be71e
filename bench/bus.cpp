// Measures a receiver of log lines from the outside. Uses only libdbus.
//   bus sink                   receives log lines and does the minimum: one write per line
//   bus post COUNT LENGTH      publishes COUNT lines of LENGTH characters
//   bus send PID COUNT LENGTH  the same; waits until the last line is in the log; prints, per line, the µs
//                              of wall time and the µs of CPU time of the process PID
//   bus wait PID TEXT          waits until TEXT is at the end of the log; prints the total µs of CPU time of
//                              the process PID
// The log is the file "log" in the working directory. Each wait times out after 60 s, with exit status 1.
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
        fail("the receiver has exited");
    return time.tv_sec * 1e6 + time.tv_nsec / 1e3;
}

// Searches more than the last line, because the receiver can add its own lines.
static bool logEndsWith(const std::string &text)
{
    char end[1024];
    const int log = open("log", O_RDONLY);
    lseek(log, -off_t(sizeof end), SEEK_END); // fails for a shorter file, which is read from its start
    const ssize_t size = read(log, end, sizeof end);
    close(log);
    return size > 0 && memmem(end, size, text.data(), text.size());
}

static void await(const std::string &text)
{
    const double deadline = now(CLOCK_MONOTONIC) + 60e6;
    while (!logEndsWith(text)) {
        if (now(CLOCK_MONOTONIC) > deadline)
            fail("the last line did not arrive within 60 s");
        usleep(200);
    }
}

// Publishes a line of `length` characters with its number at both ends. Returns its end.
static std::string publish(DBusConnection *bus, int number, size_t length)
{
    timespec time;
    clock_gettime(CLOCK_REALTIME, &time);
    tm local;
    localtime_r(&time.tv_sec, &local);
    char head[128], tail[16];
    const size_t size = strftime(head, sizeof head, "(%Y-%m-%d %H:%M:%S", &local);
    snprintf(head + size, sizeof head - size, ".%03ld) bench          : load %06d ", time.tv_nsec / 1000000,
             number);
    snprintf(tail, sizeof tail, " %06d", number);
    std::string text = head;
    text.resize(length - strlen(tail), 'x');
    text += tail;

    const dbus_uint32_t level = 5;
    const char *line = text.c_str();
    DBusMessage *message = dbus_message_new_signal("/", "com.qel.zarn5.log", "log");
    dbus_message_append_args(message, DBUS_TYPE_UINT32, &level, DBUS_TYPE_STRING, &line, DBUS_TYPE_INVALID);
    dbus_connection_send(bus, message, 0);
    dbus_message_unref(message);
    // Otherwise libdbus would store everything that the bus daemon does not accept immediately.
    if (dbus_connection_get_outgoing_size(bus) > 100000)
        dbus_connection_flush(bus);
    return tail;
}

static std::string post(DBusConnection *bus, int count, size_t length)
{
    std::string end;
    for (int i = 1; i <= count; ++i)
        end = publish(bus, i, length);
    dbus_connection_flush(bus);
    return end;
}

static void send(DBusConnection *bus, clockid_t cpu, int count, size_t length)
{
    std::string end;
    do { // until the receiver has subscribed
        end = publish(bus, 0, 80);
        dbus_connection_flush(bus);
        usleep(20000);
    } while (!logEndsWith(end));

    const double wallStart = now(CLOCK_MONOTONIC);
    const double cpuStart = now(cpu);
    await(post(bus, count, length));
    printf("wall %f\ncpu %f\n", (now(CLOCK_MONOTONIC) - wallStart) / count, (now(cpu) - cpuStart) / count);
}

static DBusHandlerResult onSignal(DBusConnection *, DBusMessage *message, void *log)
{
    dbus_uint32_t level;
    const char *text;
    if (!dbus_message_get_args(message, 0, DBUS_TYPE_UINT32, &level, DBUS_TYPE_STRING, &text,
                               DBUS_TYPE_INVALID))
        return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    static char line[1 << 18];
    const int size = snprintf(line, sizeof line, "[%05i]    %s\n", 0, text);
    if (write(*static_cast<int *>(log), line, size) != size)
        fail("cannot write to the log");
    return DBUS_HANDLER_RESULT_HANDLED;
}

static void sink(DBusConnection *bus)
{
    signal(SIGINT, SIG_DFL); // because a background process of a shell ignores SIGINT
    int log = open("log", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dbus_connection_add_filter(bus, onSignal, &log, 0);
    dbus_bus_add_match(bus, "type='signal',interface='com.qel.zarn5.log'", 0);
    while (dbus_connection_read_write_dispatch(bus, -1)) { }
}

int main(int, char **argv)
{
    const std::string work = argv[1];
    clockid_t cpu;
    if ((work == "send" || work == "wait") && clock_getcpuclockid(atoi(argv[2]), &cpu) != 0)
        fail("there is no process with the PID of the receiver");
    if (work == "wait") {
        await(argv[3]);
        printf("%f\n", now(cpu));
        return 0;
    }
    DBusConnection *bus = dbus_bus_get(DBUS_BUS_SESSION, 0);
    if (!bus)
        fail("cannot connect to the session bus");
    if (work == "sink")
        sink(bus);
    else if (work == "send")
        send(bus, cpu, atoi(argv[3]), atoi(argv[4]));
    else
        post(bus, atoi(argv[2]), atoi(argv[3]));
    return 0;
}
