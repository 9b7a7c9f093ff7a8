# bench/meter.py: runs the commands of one side of a comparison and takes
# their cost from the kernel's accounting: wall time, and CPU time per
# process on the path. Commands the bench starts are its children; their CPU
# time (user + system, their reaped children included) comes from wait4.
# Daemons that serve them (quelt-refd, clamd, rspamd) run throughout; their
# CPU time is read before and after each side from each process's CPU clock
# (every thread, ended ones included) plus the children it reaped
# (/proc/PID/stat), summed over the daemon's whole process tree.
import ctypes
import os
import shutil
import time
from dataclasses import dataclass, field

_libc = ctypes.CDLL(None, use_errno=True)
_TICKS = os.sysconf("SC_CLK_TCK")


class BenchError(Exception):
    """A failure that ends the bench; the message says what and why."""


def _proc_stat(pid):
    """Fields of /proc/PID/stat after the command name: [0] is the state."""
    with open(f"/proc/{pid}/stat", "rb") as stat:
        text = stat.read()
    return text[text.rindex(b")") + 2:].split()


def _process_tree(root):
    """root and every process below it."""
    parents = {}
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                parents[int(name)] = int(_proc_stat(name)[1])
            except (OSError, ValueError):
                continue  # ended while listed
    tree, todo = [], [root]
    while todo:
        pid = todo.pop()
        tree.append(pid)
        todo.extend(child for child, parent in parents.items() if parent == pid)
    return tree


def process_cpu_ns(pid):
    """CPU time of one process so far, in nanoseconds: all its threads
    through its CPU clock, plus user and system time of children it reaped."""
    clock = ctypes.c_int()
    error = _libc.clock_getcpuclockid(pid, ctypes.byref(clock))
    if error != 0:
        raise BenchError(f"clock_getcpuclockid {pid}:{os.strerror(error)}")
    own = time.clock_gettime_ns(clock.value)
    fields = _proc_stat(pid)
    reaped = int(fields[13]) + int(fields[14])  # cutime, cstime
    return own + reaped * 1_000_000_000 // _TICKS


def tree_cpu_ns(root):
    total = 0
    for pid in _process_tree(root):
        try:
            total += process_cpu_ns(pid)
        except (OSError, BenchError):
            if pid == root:
                raise BenchError(f"daemon {root} is gone")
    return total


@dataclass
class Command:
    """One program run: its component name (what the CPU time is charged
    to), argument vector, standard input and output files, environment."""
    component: str
    argv: list
    stdin: str = "/dev/null"
    stdout: str = "/dev/null"
    env: dict = None


@dataclass
class Side:
    """One side of a comparison: steps run one after the other, the commands
    of one step at the same time; the daemons whose CPU time it is charged;
    an untimed preparation before each run and a check of its output."""
    steps: list
    daemons: dict = field(default_factory=dict)  # component -> pid
    prepare: object = None
    check: object = None


@dataclass
class Sample:
    wall: float  # seconds
    cpu: dict  # component -> seconds

    @property
    def cpu_total(self):
        return sum(self.cpu.values())


def _spawn(command, stderr_path):
    path = command.argv[0]
    if os.sep not in path:
        found = shutil.which(path)
        if found is None:
            raise BenchError(f"{path}: not found")
        path = found
    actions = [
        (os.POSIX_SPAWN_OPEN, 0, command.stdin, os.O_RDONLY, 0),
        (os.POSIX_SPAWN_OPEN, 1, command.stdout, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644),
        (os.POSIX_SPAWN_OPEN, 2, stderr_path, os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o644),
    ]
    env = dict(os.environ) if command.env is None else command.env
    return os.posix_spawn(path, command.argv, env, file_actions=actions)


def measure(side, stderr_path):
    """Runs side once; its preparation first, outside the timing."""
    if side.prepare is not None:
        side.prepare()
    before = {name: tree_cpu_ns(pid) for name, pid in side.daemons.items()}
    cpu = {}
    start = time.perf_counter()
    for step in side.steps:
        running = [(_spawn(command, stderr_path), command) for command in step]
        for pid, command in running:
            _, status, usage = os.wait4(pid, 0)
            code = os.waitstatus_to_exitcode(status)
            if code != 0:
                raise BenchError(f"{' '.join(command.argv)} ended with status {code}; "
                                 f"its errors: {_tail(stderr_path)}")
            cpu[command.component] = (cpu.get(command.component, 0.0)
                                      + usage.ru_utime + usage.ru_stime)
    wall = time.perf_counter() - start
    for name, pid in side.daemons.items():
        cpu[name] = (tree_cpu_ns(pid) - before[name]) / 1e9
    return Sample(wall, cpu)


def _tail(path, lines=3):
    try:
        with open(path, errors="replace") as text:
            return " | ".join(text.read().splitlines()[-lines:])
    except OSError:
        return "(none)"
