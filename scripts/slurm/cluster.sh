#!/usr/bin/env bash
# A one-node Slurm cluster on this machine, for the workflow tests: Debian's
# munged, slurmctld and slurmd, started as root from scripts/slurm/slurm.conf.in.
#
#   scripts/slurm/cluster.sh start [STATE]   start, wait until the node is idle, print SLURM_CONF
#   scripts/slurm/cluster.sh stop [STATE]    cancel every job, stop the daemons, remove STATE
#                                            (status 3 when a process of it had to be killed)
#   scripts/slurm/cluster.sh status [STATE]  the node's state (status 1 when not running)
#
# STATE is the folder for the configuration, sockets, state and logs
# (default: one per checkout under /tmp). Clients and jobs find the cluster
# through SLURM_CONF=STATE/slurm.conf. Starting again stops what an earlier
# start left behind in STATE first, and takes ports nobody listens on.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
action=${1:-}
state=${2:-/tmp/ketra-slurm-$(printf '%s' "$root" | cksum | cut -d' ' -f1)}
state=$(realpath -m "$state")
export SLURM_CONF=$state/slurm.conf

say() { echo "slurm: $*"; }

# The process of a pid file, if it is still the daemon this state folder started:
# its command line names the folder (a recycled pid does not).
live_pid() {
    local pid
    pid=$(cat "$1" 2>/dev/null) || return 1
    [[ $pid =~ ^[0-9]+$ ]] || return 1
    tr '\0' ' ' 2> /dev/null < "/proc/$pid/cmdline" | grep -qF -- "$state/" || return 1
    echo "$pid"
}

stop_daemon() {  # pid file, name
    local pid
    pid=$(live_pid "$1") || return 0
    kill -TERM "$pid" 2>/dev/null || return 0
    for _ in $(seq 50); do
        kill -0 "$pid" 2>/dev/null || return 0
        sleep 0.1
    done
    say "$2 ($pid) did not stop; killing it"
    kill -KILL "$pid" 2>/dev/null || true
}

# What is still running of this cluster: processes of its jobs (they carry a
# SLURM_JOB_ID) and its daemons, found by the SLURM_CONF in their environment.
leftovers() {
    local p
    for p in $(grep -lsaF "SLURM_CONF=$SLURM_CONF" /proc/[0-9]*/environ | cut -d/ -f3); do
        [ "$p" = $$ ] && continue
        { tr '\0' '\n' 2> /dev/null < "/proc/$p/environ" | grep -q '^SLURM_JOB_ID='; } ||
            grep -qxE 'munged|slurmctld|slurmd|slurmstepd' "/proc/$p/comm" 2> /dev/null ||
            { tr '\0' ' ' 2> /dev/null < "/proc/$p/cmdline" | grep -qF " slurmd -D -f $SLURM_CONF"; } ||
            continue
        echo "$p"
    done
}

# Status 3 when something had to be killed that stopping the daemons did not end.
stop() {
    # Jobs first, while the daemons can still end them.
    if live_pid "$state/slurmctld.pid" > /dev/null; then
        scancel --quiet --full --user=root 2>/dev/null || true
        for _ in $(seq 50); do
            [ -z "$(squeue -h -o %i 2>/dev/null)" ] && break
            sleep 0.2
        done
    fi
    stop_daemon "$state/slurmd.pid" slurmd
    stop_daemon "$state/slurmctld.pid" slurmctld
    stop_daemon "$state/munge/munged.pid" munged
    rm -rf "$state"
    local left
    left=$(leftovers | paste -sd,)
    [ -z "$left" ] && return 0
    say "killing what the cluster left running: $(ps -o pid=,args= -p "$left" | cut -c1-100 | paste -sd';')"
    # shellcheck disable=SC2086
    kill -KILL ${left//,/ } 2> /dev/null || true
    # A killed process is gone only once the kernel has run it again: wait for
    # that (a zombie counts as gone), so that nothing of the cluster outlives stop.
    local p
    for p in ${left//,/ }; do
        for _ in $(seq 100); do
            [[ $(ps -o stat= -p "$p") =~ ^Z?$ ]] && break
            sleep 0.05
        done
    done
    return 3
}

# The first port from $1 up that no socket on this machine is bound to.
free_port() {
    /usr/bin/python3 - "$1" <<'EOF'
import socket, sys
for port in range(int(sys.argv[1]), 65000):
    with socket.socket() as s:
        try:
            s.bind(("", port))
        except OSError:
            continue
    print(port)
    break
EOF
}

show_logs() {
    for log in "$state"/log/*.log "$state/munge/munged.log"; do
        [ -f "$log" ] && { echo "--- $log"; tail -n 20 "$log"; }
    done
}

start() {
    [ "$(id -u)" = 0 ] || { say "must run as root (it starts munged as the munge user, and slurmd)"; exit 1; }
    for tool in munged mungekey slurmctld slurmd sinfo squeue scancel runuser; do
        command -v "$tool" > /dev/null ||
            { say "$tool not found; scripts/setup.sh installs munge, slurmctld, slurmd and slurm-client"; exit 1; }
    done
    id munge > /dev/null 2>&1 || { say "no munge user; reinstall Debian's munge package"; exit 1; }
    stop || true
    mkdir -p "$state"/{ctld,spool,log,munge}
    chmod 755 "$state"
    # munged refuses a key or socket folder that others can write to, and one
    # that clients cannot reach the socket through.
    chown munge:munge "$state/munge"
    chmod 711 "$state/munge"
    mungekey --create --keyfile="$state/munge/munge.key" 2> /dev/null
    chown munge:munge "$state/munge/munge.key"

    local host node ctld_port slurmd_port
    host=$(hostname -s)
    # The node as slurmd sees the hardware, so that it registers without a mismatch.
    node=$(slurmd -C | head -n 1)
    ctld_port=$(free_port 6817)
    slurmd_port=$(free_port $((ctld_port + 1)))
    sed -e "s#@STATE@#$state#g" -e "s#@HOST@#$host#g" -e "s#@CTLD_PORT@#$ctld_port#g" \
        -e "s#@SLURMD_PORT@#$slurmd_port#g" -e "s#@NODE@#$node#g" "$here/slurm.conf.in" > "$SLURM_CONF"

    runuser -u munge -- munged --socket="$state/munge/munge.socket" --key-file="$state/munge/munge.key" \
        --pid-file="$state/munge/munged.pid" --log-file="$state/munge/munged.log" \
        --seed-file="$state/munge/munged.seed" ||
        { say "munged did not start"; show_logs; stop; exit 1; }
    slurmctld -f "$SLURM_CONF" || { say "slurmctld did not start"; show_logs; stop; exit 1; }
    # slurmd runs under a process that adopts and reaps what its jobs leave
    # orphaned (srun does): a job ends only when its process group is gone,
    # and an init that reaps late would hold every job back by seconds.
    setsid /usr/bin/python3 - slurmd -D -f "$SLURM_CONF" > "$state/log/reaper.log" 2>&1 < /dev/null <<'EOF' &
import ctypes, os, sys
ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER
if os.fork() == 0:
    os.execvp(sys.argv[1], sys.argv[1:])
while True:
    try:
        os.wait()
    except ChildProcessError:
        break
EOF

    for _ in $(seq 300); do
        if [ "$(sinfo -h -o %T 2>/dev/null)" = idle ]; then
            say "node $host idle (controller port $ctld_port, state in $state)"
            echo "export SLURM_CONF=$SLURM_CONF"
            return 0
        fi
        sleep 0.1
    done
    say "the node did not become idle within 30 s: $(sinfo -h -o '%T %E' 2>&1)"
    show_logs
    stop
    exit 1
}

case $action in
start) start ;;
stop) stop ;;
status)
    live_pid "$state/slurmctld.pid" > /dev/null || { say "not running (state folder $state)"; exit 1; }
    sinfo -N -o '%N %T %C %m'
    ;;
*)
    sed -n '2,13s/^# \{0,1\}//p' "$0"
    exit 2
    ;;
esac
