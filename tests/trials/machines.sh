#!/bin/bash
# What the trials share that boot Debian 12, with systemd as process 1, in a folder. A trial sources this file on its stage,
# after tests/lib.sh. A machine has the name of its folder, and no network.
declare -A machine=() # the process that each one ends with
groups=$(awk '$3 == "cgroup2" { print $2; exit }' /proc/mounts)
group=$groups/trial.${STAGE##*.}
if [ -z "$groups" ] || ! mkdir "$group"; then
    fail "systemd cannot boot here, because there is no writable cgroup2"
fi
leave() { # shows the journals after a failure, and removes the control groups after the last process has exited
    local name status=$?
    for name in "${!machine[@]}"; do
        [ $status = 0 ] || on "$name" "journalctl -q -n 20" || true
        cut_power "$name"
    done
    for _ in {1..100}; do
        find "$group" -depth -type d -exec rmdir {} + 2>/dev/null || [ -d "$group" ] || break
        sleep 0.1
    done
}
trap leave EXIT

make_root() { # folder, packages to download, because a machine has no network
    local mirror
    mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Codename: bookworm' 'Created-By: Packages' | head -n 1)
    [ -n "$mirror" ] || fail "apt has no source of Debian 12, bookworm"
    eval "$(apt-config shell http_proxy Acquire::http::Proxy)"
    export http_proxy
    unset TMPDIR # a folder that the machine does not have
    debootstrap --variant=minbase --include=systemd-sysv bookworm "$1" "$mirror" >apt.log 2>&1
    # shellcheck disable=SC2016
    chroot "$1" sh -ec 'apt-get update; apt-get install -y --no-install-recommends --download-only "$@"' sh "${@:2}" >apt.log 2>&1
}
first() { # becomes process 1; /proc/sys is read-only, because it is that of the real machine
    set -e
    mount --make-rprivate /
    cd "$1"
    mount -t proc proc proc
    mount --bind proc/sys proc/sys
    mount -o remount,bind,ro proc/sys
    mount -t sysfs -o ro sysfs sys
    mount -t cgroup2 cgroup2 sys/fs/cgroup
    mount -t tmpfs -o mode=755 dev dev
    for node in null zero full random urandom tty; do
        touch dev/$node
        mount --bind /dev/$node dev/$node
    done
    ln -s /proc/self/fd dev/fd
    pivot_root . mnt
    umount -l /mnt
    mount --make-rshared / # as systemd expects of a container; otherwise units get no credentials
    exec env -i container=trial /sbin/init
}
inside() { tr -d ' ' <"/proc/${machine[$1]}/task/${machine[$1]}/children"; } # the process ID, out here, of process 1
boot() { # machine
    mkdir -p "$group/$1"
    # shellcheck disable=SC2016
    bash -c 'echo $$ >"$1/cgroup.procs" && exec unshare --mount --pid --fork --kill-child --uts --ipc --net --cgroup \
        bash -c "$2; first \"\$0\"" "$3"' boot "$group/$1" "$(declare -f first)" "$PWD/$1" </dev/null >>boot.log 2>&1 &
    machine[$1]=$!
    await on "$1" "systemctl is-system-running"
}
cut_power() { { kill -KILL "${machine[$1]}" && wait "${machine[$1]}"; } 2>/dev/null || true; } # of a machine
on() { # machine, a line of shell for root; logind requires a process in its control group
    mkdir -p "$group/$1/terminal" # removed at each boot
    # shellcheck disable=SC2016
    sh -c 'echo $$ >"$0/cgroup.procs" && exec timeout -s KILL 300 nsenter -t "$1" -a env -i HOME=/root \
        PATH=/usr/local/sbin:/usr/sbin:/usr/bin:/sbin:/bin bash -ec "cd; $2"' "$group/$1/terminal" "$(inside "$1")" "$2"
}
seen() { # text, machine, a line of shell that has to succeed there within a minute
    await on "$2" "$3"
    echo "trial: $1"
}
