#include "signals.h"

#include "state.h"

#include <poll.h>

static const qint64 longestSleepMs = 3600000;

volatile sig_atomic_t isEnding = 0;

static void onSignal(int signal)
{
    isEnding = isEnding || signal == SIGTERM || signal == SIGINT;
}

void takeSignals()
{
    sigset_t taken;
    sigemptyset(&taken);
    for (int number : { SIGTERM, SIGINT, SIGCHLD, SIGCONT }) {
        signal(number, onSignal);
        sigaddset(&taken, number);
    }
    sigprocmask(SIG_SETMASK, &taken, 0); // the signal that interrupts Bus::open is not blocked
}

bool sleepUntil(qint64 due, int descriptor)
{
    static const sigset_t none = {};
    const qint64 ms = qBound(qint64(0), due - monotonicMs(), longestSleepMs);
    const struct timespec timeout = { time_t(ms / 1000), long(ms % 1000 * 1000000) };
    struct pollfd input = { descriptor, POLLIN, 0 };
    return ppoll(&input, 1, &timeout, &none) > 0;
}
