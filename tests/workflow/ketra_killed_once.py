#!/usr/bin/python3
"""Stands in for ketra in the workflow test. It runs $KETRA_REAL, except the
first time it is called with "-o $KILL_RUN" and "-chunk $KILL_CHUNK": that run
goes on in steps of a millisecond until it is writing a record file, is frozen
there, the run's folder is noted in $KILL_NOTE, and the wrapper cancels its
own Slurm job, as an operator or a failing node would."""
import os
import re
import signal
import subprocess
import sys
import time

args, env = sys.argv[1:], os.environ
run, chunk = env["KILL_RUN"], env["KILL_CHUNK"].split()
words = " " + " ".join(args) + " "
if f" -o {run} " not in words or f" -chunk {' '.join(chunk)} " not in words:
    os.execv(env["KETRA_REAL"], [env["KETRA_REAL"]] + args)
try:
    os.mkdir(env["KILL_NOTE"] + ".lock")  # only the first try
except FileExistsError:
    os.execv(env["KETRA_REAL"], [env["KETRA_REAL"]] + args)

folder, index = os.path.dirname(run), f"{os.path.basename(run)}.chunk{chunk[0]}of{chunk[1]}.part"
record = re.compile(re.escape(f".{index}.") + r"\d+\.\w{6}$")  # a record file under its temporary name
ketra = subprocess.Popen([env["KETRA_REAL"]] + args)
os.kill(ketra.pid, signal.SIGSTOP)
while ketra.poll() is None and not any(record.match(name) for name in os.listdir(folder)):
    os.kill(ketra.pid, signal.SIGCONT)
    time.sleep(0.001)
    os.kill(ketra.pid, signal.SIGSTOP)
path = os.path.join(folder, index)
last = (open(path).read().splitlines() or [""])[-1] if os.path.exists(path) else "(no index)"
with open(env["KILL_NOTE"], "w") as f:
    f.write("\n".join(sorted(os.listdir(folder))) + f"\nindex ends: {last}\n")
subprocess.run(["scancel", env["SLURM_JOB_ID"]])
ketra.wait()
sys.exit(1)
