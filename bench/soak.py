#!/usr/bin/python3
# The part of bench/soak that runs on a stage. Usage: soak.py DAEMON PUBLISHER SECONDS SEED
import contextlib, datetime, os, random, re, shutil, signal, subprocess, sys, tempfile, time
import dbus, dbus.lowlevel

executable, publisher, seconds, seed = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
names = "gui", "uartinterface"
bus_pid = int(os.environ["BUS_PID"])
bus = dbus.SessionBus()
bus.set_exit_on_disconnect(False)
bus_runs = True
published = 0
ended = {}  # process IDs of the modules that a step caused to exit, with the name of the module
publishers = []  # processes that flood the bus
full = []  # for each time that the disk was full: the last line logged before, the last line published before its end


class Fault(Exception):
    pass


def emit(interface, member, signature, *arguments):
    message = dbus.lowlevel.SignalMessage("/", interface, member)
    message.append(signature=signature, *arguments)
    bus.send_message(message)  # does not block


def log(text):
    stamp = datetime.datetime.now().isoformat(" ", "milliseconds")
    emit("com.qel.zarn5.log", "log", "us", 5, f"({stamp}) soak           : {text}")


def publish(count):
    global published
    for published in range(published + 1, published + count + 1):
        log(f"line {published}")


def live(seconds, done=lambda: False, count=1):
    """Publishes `count` lines every 5 ms until `done` returns true. Returns false if it does not within `seconds`."""
    end = time.monotonic() + seconds
    while not done():
        if daemon.poll() is not None:
            raise Fault(f"keepwatch exited with status {daemon.returncode}")
        if time.monotonic() > end:
            return False
        publish(count)
        if bus_runs:
            bus.flush()  # because libdbus alone sends only 2 kB at a time
        time.sleep(0.005)
    return True


def expect(what, done, count=1):
    if not live(180, done, count):
        raise Fault(what + " within 180 s, although nothing prevents it")


def read(path, start=0):
    with open(path, "rb") as file:
        file.seek(start)
        return file.read()


def children():
    return [int(pid) for pid in read(f"/proc/{daemon.pid}/task/{daemon.pid}/children").split()]


def process_of(name):
    """Returns the process ID of the module, or None before its executable runs and after a step caused its exit."""
    for pid in set(children()) - set(ended):
        with contextlib.suppress(OSError):
            if read(f"/proc/{pid}/comm").strip().decode() == f"zarn5_{name}"[:15]:
                return pid
    return None


def tail(size=1000000):
    return read("disk/log", max(0, os.stat("disk/log").st_size - size))


def numbers(text):
    return [int(number) for number in re.findall(rb"^\[.* soak           : line (\d+)$", text, re.M)]


# The steps.
def end(name, number):
    pid = process_of(name)
    if pid:
        os.kill(pid, number)
        ended[pid] = name


def end_newborn(name, delay):
    live(1, lambda: process_of(name))
    time.sleep(delay)
    end(name, signal.SIGKILL)


def end_both(first, second, delay):
    end(first, signal.SIGKILL)
    time.sleep(delay)
    end(second, signal.SIGKILL)


def stop(name, stopped):
    stopped[:] = [process_of(name)]
    if stopped[0]:
        os.kill(stopped[0], signal.SIGSTOP)


def resume(stopped):
    if stopped[0]:
        with contextlib.suppress(ProcessLookupError):
            os.kill(stopped[0], signal.SIGCONT)


def stop_bus():
    global bus_runs
    bus_runs = False
    os.kill(bus_pid, signal.SIGSTOP)


def resume_bus():
    global bus_runs
    os.kill(bus_pid, signal.SIGCONT)
    bus_runs = True


def resize(size):
    # Ignore the present mount options, because a user namespace is not allowed to set all of them.
    return subprocess.call(["mount", "--options-mode=ignore", "-o", f"remount,size={size}", "soak",
                            os.path.abspath("disk")], stderr=subprocess.DEVNULL) == 0


def fill():
    full.append([max(numbers(tail(30000000)), default=0), None])  # floods can fill the end of the log
    for _ in range(100):  # the log can grow in the meantime
        disk = os.statvfs("disk")
        if resize((disk.f_blocks - disk.f_bfree) * disk.f_frsize):
            return
    raise Fault("cannot fill the disk")


def make_room():
    resize("50%")
    for window in full:
        window[1] = window[1] or published


def send_wrong():
    values = [("", ()), ("u", (5,)), ("s", ("wrong",)), ("su", ("wrong", 5)), ("d", (1.0,)), ("ad", ([1.0],)),
              ("aus", ([5], "wrong")), ("(u)s", ((5,), "wrong")), ("ua{sv}", (5, {"wrong": 1})),
              ("aas", ([["wrong"]],)), ("v", (5,)), ("ay", (b"\0\xff",)), ("o", ("/wrong",)),
              ("uss", (5, "wrong", "wrong")), ("us", (5, "")), ("us", (2, "%s%n \t\r\x01\x7f\u00e9\U0001f600"))]
    for signature, arguments in values:
        emit("com.qel.zarn5.log", "log", signature, *arguments)
        emit("com.qel.zarn5.busmon", "busmon", signature, *arguments)
    emit("com.qel.zarn5.log", "log", "us", 6, "x" * 70000000)  # is received but not written: the level is invalid


def talk(name, size):
    with open("text", "wb") as text:
        text.write(b"x" * size)
    pid = process_of(name)
    if pid:
        os.kill(pid, signal.SIGWINCH)


def flood(lines, length):
    """Starts a process that publishes lines as fast as the bus daemon accepts them."""
    publishers.append(subprocess.Popen([publisher, "post", str(lines), str(length)]))


def draw_steps():
    """Returns a list of (seconds from the start, step, arguments). Each round has all kinds, in random order."""
    draw = random.Random(seed)
    steps = []
    now = 0
    while now < seconds:
        kinds = ["end", "newborns", "both", "leave", "stop", "bus", "full", "burst", "wrong", "talk"]
        for kind in draw.sample(kinds, len(kinds)):
            now += draw.uniform(0, 6)
            later = now + draw.uniform(0.1, 6)
            name, other = draw.sample(names, 2)
            if kind in ("end", "newborns", "both", "leave", "stop"):
                lines, length = draw.choice([(30000, 80), (300, 20000)])
                steps.append((max(0, now - draw.uniform(0, 0.5)), flood, draw.randint(1, lines), length))
            if kind == "end":
                steps.append((now, end, name, draw.choice([signal.SIGKILL, signal.SIGTERM])))
            elif kind == "newborns":
                steps.append((now, end, name, signal.SIGKILL))
                steps += [(now, end_newborn, name, draw.uniform(0, 0.1)) for _ in range(draw.randint(1, 3))]
            elif kind == "both":
                steps.append((now, end_both, name, other, draw.uniform(0, 0.005)))
            elif kind == "leave":
                steps.append((now, end, name, signal.SIGUSR1))
            elif kind == "stop":
                stopped = [None]
                steps += [(now, stop, name, stopped), (later, resume, stopped)]
            elif kind == "bus":
                steps += [(now, stop_bus), (later, resume_bus)]
            elif kind == "full":
                steps += [(now, fill), (later, make_room)]
            elif kind == "burst":
                steps.append((now, publish, draw.randint(1000, 20000)))
            elif kind == "wrong":
                steps.append((now, send_wrong))
            else:
                steps.append((now, talk, name, draw.randint(1, 150000)))
    return sorted(steps, key=lambda step: step[0])


# The counts.
def count(text):
    return [text.count(words) for words in (b"ended unexpectedly", b": restarted ", b"reestablished: run!")]


def measure():
    memory = re.search(rb"VmRSS:\s*(\d+)", read(f"/proc/{daemon.pid}/status"))
    return round(int(memory[1]) * 1.024e-3, 1), len(os.listdir(f"/proc/{daemon.pid}/fd")), len(children())


def settled(start, ends):
    """Returns whether both modules run, and the log after `start` has at least `ends` exits and then a release."""
    text = read("disk/log", start)
    return (all(process_of(name) for name in names) and text.count(b"ended unexpectedly") >= ends
            and max(text.rfind(b"unexpectedly"), text.rfind(b"pausing")) < text.rfind(b": run!"))


def report_minute(minute):
    counts = "{} logged, {} restarts, {} releases".format(*count(read("out")))
    print("minute {}: {} exits, {}; {} lines published; {} MB, {} descriptors, {} children".format(
        minute, len(ended), counts, published, *measure()), flush=True)


def run():
    global daemon
    print("seed", seed, flush=True)
    os.mkdir("disk")
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=50%", "soak", "disk"], check=True)
    os.mkdir("zarn5")
    with open("zarn5/keepwatch.conf", "w") as conf:
        conf.write("[logging]\nlogfile=disk/log\ntelegramfile=disk/telegrams\n")
    for name in names:
        os.symlink(os.path.dirname(os.path.realpath(__file__)) + "/soak-module", "zarn5_" + name)
    with open("out", "wb") as out, open("err", "wb") as err:
        daemon = subprocess.Popen([executable], stdout=out, stderr=err)
    expect("there was no log", lambda: os.path.exists("disk/log"), 0)
    expect("there was no first release", lambda: settled(0, 0), 0)
    live(2)  # until the calls of the release have returned
    before = measure()

    start = time.monotonic()
    minutes = 1
    for when, step, *arguments in draw_steps():
        while True:
            now = time.monotonic() - start
            live(max(0, min(when, minutes * 60) - now))
            if when < minutes * 60:
                break
            report_minute(minutes)
            minutes += 1
        log(f"step {step.__name__} {arguments}")
        step(*arguments)

    for process in publishers:
        expect("a flood did not end", lambda: process.poll() is not None)
    # Wait for normal operation. Then kill both modules once more, so that keepwatch reads their output again, too.
    expect("a module did not run", lambda: all(process_of(name) for name in names))
    position = os.stat("disk/log").st_size
    end_both(*names, 0)
    expect("there was no last release", lambda: settled(position, 2))
    live(2)
    expect("the last line was not logged", lambda: numbers(tail())[-1:] == [published], 0)
    after = measure()
    crashes = sum(int(read(f"/proc/{process_of(name)}/cmdline").split(b"\0")[-2]) for name in names)
    daemon.send_signal(signal.SIGINT)
    status = daemon.wait(60)
    return before, after, crashes, status


def judge(before, after, crashes, status):
    """Prints the results and returns the list of faults."""
    output, logged = numbers(read("out")), numbers(read("disk/log"))
    ends, (counted, relaunches, releases) = len(ended), count(read("out"))
    missing = set(range(1, published + 1)) - set(logged)
    no_room = {line for line in missing & set(output) if any(first < line <= last for first, last in full)}
    lost = len(missing - no_room) + published - len(set(output))
    disorder = sum(a >= b for lines in (output, logged) for a, b in zip(lines, lines[1:]))
    print(f"""
| soak of {seconds} s, seed {seed} | |
|---|---|
| exits that a step caused; logged, counted, restarted by keepwatch | {ends}; {counted}, {crashes}, {relaunches} |
| releases after them | {releases} |
| floods of up to 30,000 lines, or of 300 lines of 20 kB | {len(publishers)} |
| numbered lines published; logged | {published}; {len(logged)} |
| lines that did not fit on the full disk; lost; out of order | {len(no_room)}; {lost}; {disorder} |""")
    for what, index in ("memory, MB", 0), ("descriptors", 1), ("children", 2):
        print(f"| {what}: at the start; at the end | {before[index]}; {after[index]} |")
    errors = read("err").decode(errors="replace")
    faults = {"exits, counts, and restarts differ": not ends == counted == crashes == relaunches,
              "lines were lost or out of order": lost or disorder,
              "memory, descriptors, or children grew": (after[0] > before[0] + 50 or after[1] > before[1]
                                                        or after[2] != before[2]),
              f"keepwatch exited with status {status}: {errors}": status or errors}
    return [fault for fault, seen in faults.items() if seen]


os.chdir(os.environ["XDG_CONFIG_HOME"])
try:
    faults = judge(*run())
except (Fault, subprocess.TimeoutExpired) as fault:
    faults = [str(fault)]
for fault in faults:
    print("FAIL:", fault)
if faults:
    kept = tempfile.mkdtemp(prefix=f"soak-{seed}.")
    for file in "out", "err", "disk/log":
        if os.path.exists(file):
            shutil.copy(file, kept)
    print("the log was saved in", kept)
    sys.exit(1)
