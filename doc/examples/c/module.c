// The smallest module in C: logs the control calls of keepwatch, and exits when asked to. It takes its bus name from
// its file name: zarn5_gui owns com.qel.zarn5.gui.
#include <stdio.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

static sd_bus *bus;
static char name[64], service[96], adaptor[128];

static void publish(const char *text)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    char stamp[32], line[256];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", localtime(&now.tv_sec));
    snprintf(line, sizeof line, "(%s.%03d) %-15.15s: %s", stamp, (int)(now.tv_nsec / 1000000), name, text);
    sd_bus_emit_signal(bus, "/", "com.qel.zarn5.log", "log", "us", 5, line);
}

static int run(sd_bus_message *call, void *data, sd_bus_error *error)
{
    int value;
    char text[32];
    if (sd_bus_message_read(call, "i", &value) >= 0) {
        snprintf(text, sizeof text, "run %d", value);
        publish(text);
    }
    return sd_bus_reply_method_return(call, "");
}

static int updateKeepwatchInfo(sd_bus_message *call, void *data, sd_bus_error *error)
{
    publish("report");
    return sd_bus_reply_method_return(call, "");
}

static int quit(sd_bus_message *call, void *data, sd_bus_error *error)
{
    sd_bus_flush(bus); // sends the last log lines
    // Exit inside the call, because SIGKILL can follow the answer.
    _exit(0);
}

static const sd_bus_vtable methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("run", "i", "", run, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("updateKeepwatchInfo", "as", "", updateKeepwatchInfo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("quit", "", "", quit, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END
};

int main(int argc, char **argv)
{
    const char *file = strrchr(argv[0], '/') ? strrchr(argv[0], '/') + 1 : argv[0];
    sscanf(strncmp(file, "zarn5_", 6) ? file : file + 6, "%63[^.]", name);
    snprintf(service, sizeof service, "com.qel.zarn5.%s", name);
    snprintf(adaptor, sizeof adaptor, "%s.adaptor", service);
    // Export the object first and take the name last, because keepwatch calls as soon as it sees the name.
    if (sd_bus_open_user(&bus) < 0 || sd_bus_add_object_vtable(bus, NULL, "/", adaptor, methods, NULL) < 0
        || sd_bus_request_name(bus, service, 0) < 0) {
        fprintf(stderr, "cannot take the bus name %s\n", service);
        return 1;
    }
    for (;;) {
        const int done = sd_bus_process(bus, NULL);
        if (done < 0 || (done == 0 && sd_bus_wait(bus, UINT64_MAX) < 0))
            return 1; // the bus daemon has exited
    }
}
