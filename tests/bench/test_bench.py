# tests/bench/test_bench.py: what scripts/bench relies on to judge a figure:
# a daemon's CPU time counts every thread (ended ones too) and every process
# below it, a program's CPU time reaches the side it ran on, and a figure
# settles only when its interquartile range lies within 3 % of the median.
import os
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "bench"))
import compare  # noqa: E402
import meter  # noqa: E402

# Burns CPU until the process's own CPU clock has advanced by SECONDS, in
# the way ARRANGEMENT says, then writes "done" and waits to be stopped.
BURNER = r"""
import os, sys, threading, time
seconds, arrangement = float(sys.argv[1]), sys.argv[2]
def burn(clock):
    start = time.clock_gettime(clock)
    while time.clock_gettime(clock) - start < seconds:
        pass
sys.stdin.readline()
if arrangement == "ended-thread":
    worker = threading.Thread(target=burn, args=(time.CLOCK_THREAD_CPUTIME_ID,))
    worker.start()
    worker.join()
elif arrangement == "child":
    pid = os.fork()
    if pid == 0:
        burn(time.CLOCK_PROCESS_CPUTIME_ID)
        print("done", flush=True)
        time.sleep(600)
        os._exit(0)
    sys.stdout.flush()
    time.sleep(600)
else:
    burn(time.CLOCK_PROCESS_CPUTIME_ID)
print("done", flush=True)
time.sleep(600)
"""


class DaemonCpu(unittest.TestCase):
    CASES = [
        ("main thread", "main"),
        ("a thread that has ended", "ended-thread"),
        ("a process the daemon started", "child"),
    ]

    def test_counts_work_done_anywhere_in_the_daemon(self):
        for name, arrangement in self.CASES:
            with self.subTest(name):
                with subprocess.Popen([sys.executable, "-c", BURNER, "0.3", arrangement],
                                      stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                      start_new_session=True) as daemon:
                    try:
                        before = meter.tree_cpu_ns(daemon.pid)
                        daemon.stdin.write("go\n")
                        daemon.stdin.flush()
                        self.assertEqual(daemon.stdout.readline(), "done\n")
                        used = (meter.tree_cpu_ns(daemon.pid) - before) / 1e9
                        self.assertGreaterEqual(used, 0.3)
                    finally:
                        os.killpg(daemon.pid, signal.SIGKILL)

    def test_a_gone_daemon_fails_the_bench(self):
        daemon = subprocess.Popen(["true"])
        daemon.wait()
        with self.assertRaisesRegex(meter.BenchError, "is gone"):
            meter.tree_cpu_ns(daemon.pid)


class ProgramCpu(unittest.TestCase):
    def test_each_program_is_charged_to_its_component(self):
        with tempfile.TemporaryDirectory() as work:
            burn = [sys.executable, "-c", BURNER.replace("sys.stdin.readline()", "")
                    .replace("time.sleep(600)", "pass"), "0.2", "main"]
            side = meter.Side([[meter.Command("one", burn)],
                               [meter.Command("two", burn), meter.Command("two", burn)]])
            sample = meter.measure(side, os.path.join(work, "errors"))
            self.assertEqual(sorted(sample.cpu), ["one", "two"])
            self.assertGreaterEqual(sample.cpu["one"], 0.2)
            self.assertGreaterEqual(sample.cpu["two"], 0.4)

    def test_a_failing_program_names_itself_and_its_errors(self):
        with tempfile.TemporaryDirectory() as work:
            side = meter.Side([[meter.Command("x", ["sh", "-c", "echo broken >&2; exit 3"])]])
            with self.assertRaisesRegex(meter.BenchError, "status 3; its errors: broken"):
                meter.measure(side, os.path.join(work, "errors"))


class Settling(unittest.TestCase):
    CASES = [
        ("five close ratios", [1.00, 1.01, 0.99, 1.02, 0.98], True),
        ("one outlier each way", [0.5, 1.00, 1.01, 0.99, 2.0], True),
        ("quartile 4 % above", [1.0, 1.0, 1.0, 1.04, 1.04, 1.04, 0.99], False),
        ("quartile 4 % below", [1.0, 1.0, 1.0, 0.96, 0.96, 0.96, 1.01], False),
        ("too few repetitions", [1.0, 1.0, 1.0, 1.0], False),
    ]

    def test_table(self):
        for name, ratios, expected in self.CASES:
            with self.subTest(name):
                self.assertEqual(compare.settled(ratios), expected)

    def test_an_unsettled_row_is_neither_met_nor_missed(self):
        row = compare.Row("k", "figure", [], [], target=(">=", 0.9))
        row.reps = [{"cpu": 1 / r, "wall": 1.0} for r in (0.5, 0.7, 0.9, 1.1, 1.3)]
        self.assertEqual(row.result(), "UNSETTLED")
        row.reps = [{"cpu": 1 / r, "wall": 1.0} for r in (0.85, 0.86, 0.86, 0.86, 0.87)]
        self.assertEqual(row.result(), "MISSED")


if __name__ == "__main__":
    unittest.main()
