# bench/figures.py: the figures of the table, in groups that each start the
# daemons they need and stop them again. Every figure is a compare.Row: what
# runs on our side, what on the baseline's, which daemons' CPU time each is
# charged, the target and the ratio that decides it.
import filecmp
import os
import shutil
import subprocess
import threading
import time

import compare
from compare import Row, say
from fixtures import (BODY_LINE, PASS_REPLY, SECRET, Daemons, expect_replies, make_small_spools,
                      make_spool, message_part, prepare_entries, start_clamd, start_refd,
                      spool_head, start_rspamd, wait_for_socket, write_lines)
from meter import BenchError, Command, Side

GROUPS = ["messages", "router", "content", "hash", "clamd", "rspamd"]
FARM_REVIVE = 2


def router_stage_command(bench, spool):
    """The command the router stage runs for one message, as
    examples/process.cf.snippet runs it: the adapter's --file, which starts
    the filter with the site's options and the secret in its environment.
    (argument vector, environment or None for the bench's own)."""
    conf = os.path.join(bench.work, "router.conf")
    secret = os.path.join(bench.work, "router-secret")
    if not os.path.exists(conf):
        # The options file has no quoting: the filter runs as nobody.
        write_lines(conf, ["--user", "nobody", "--level", "info", "--log-filename",
                           os.path.join(bench.work, "zmailer.log"), "--basedir", bench.base])
        write_lines(secret, [SECRET])
    return [bench.tool("vorex-zmailer-filter"), "--config", conf, "--filter", bench.filter,
            "--secret-file", secret, "--file", spool], None


def expect_lines(path, wanted, count, complaint):
    """Raises BenchError (complaint formatted with got and want) unless
    count lines of the file at path are wanted."""
    with open(path) as text:
        got = sum(1 for line in text if wanted(line))
    if got != count:
        raise BenchError(complaint.format(got=got, want=count))


class Bench:
    def __init__(self, top, build, work, options):
        self.top, self.build, self.work, self.options = top, build, work, options
        self.daemons = Daemons()
        self.rows, self.singles, self.notes = [], [], []
        self.filter = os.path.join(build, "vorex-zmailer")
        self.refd = os.path.join(build, "quelt-refd")
        self.base = os.path.join(work, "base") + "/"
        self.out = os.path.join(work, "out")
        self.errors = os.path.join(work, "errors")
        for directory in (self.base, self.out):
            os.makedirs(directory)
        self.filter_args = ["--user", "", "--level", "info", "--log-filename",
                            os.path.join(work, "zmailer.log"), "--basedir", self.base]
        self.messages = options.messages
        self.adapter_messages = min(options.messages, 1000)

    def tool(self, name):
        return os.path.join(self.build, name)

    def output(self, name):
        return os.path.join(self.out, name)

    def figure(self, row):
        row.bound = self.options.row_seconds
        with open("/proc/loadavg") as text:
            row.load = text.read().strip()
        compare.run(row, self.errors)
        self.rows.append(row)

    def run_all(self):
        chosen = [g for g in self.options.only.split(",") if g] or GROUPS
        unknown = set(chosen) - set(GROUPS)
        if unknown:
            raise BenchError(f"unknown groups {sorted(unknown)}; known: {GROUPS}")
        for group in GROUPS:
            if group in chosen:
                getattr(self, "group_" + group)()

    # ------------------------------------------------------------------
    def filter_over(self, paths_file, output, base=None, component="filter"):
        """One filter process over every path in paths_file, as smtpserver's
        content filter without the adapter (--interface 1)."""
        args = list(self.filter_args)
        args[-1] = base or self.base
        return Command(component, [self.filter, "--interface", "1", *args],
                       stdin=paths_file, stdout=self.output(output))

    def sliced(self, name, items, make):
        """One Side per slice of items (--slices consecutive parts): make(tag,
        part, list_file) with a tag for output names and the part's items,
        one a line, in list_file."""
        size = -(-len(items) // min(self.options.slices, len(items)))
        sides = []
        for k in range(0, len(items), size):
            part = items[k:k + size]
            tag = f"{name}.{k // size}"
            list_file = os.path.join(self.work, tag + ".list")
            write_lines(list_file, part)
            sides.append(make(tag, part, list_file))
        return sides

    def filter_sides(self, name, spools, daemons, reply, base=None):
        """One filter process per slice over its spool files."""
        return self.sliced(name, spools, lambda tag, part, listed: Side(
            [[self.filter_over(listed, tag, base)]], dict(daemons),
            check=self.replies(tag, reply, len(part), base)))

    def entry_sides(self, name, entries, daemons):
        """bench-roundtrip asking the daemon about prepared entries, one
        request at a time; each must be answered "1 clean"."""
        def make(tag, part, listed):
            def check():
                with open(self.output(tag)) as text:
                    got = sum(1 for line in text if line == "1 clean\n")
                if got != len(part):
                    raise BenchError(f"quelt-refd answered '1 clean' for {got} of "
                                     f"{len(part)} entries")
            return Side([[Command("bench-roundtrip", [self.tool("bench-roundtrip"), "--entries",
                                                      self.base],
                                  stdin=listed, stdout=self.output(tag))]], dict(daemons),
                        check=check)
        return self.sliced(name, entries, make)

    def list_of(self, tag, items):
        list_file = os.path.join(self.work, tag + ".items")
        write_lines(list_file, items)
        return list_file

    def replies(self, output, prefix, count, base=None):
        return lambda: expect_replies(self.output(output), prefix, count, base or self.base)

    def small_spools(self):
        spools = make_small_spools(os.path.join(self.work, "spool"), self.messages)
        paths = os.path.join(self.work, "paths")
        write_lines(paths, spools)
        return spools, paths

    def adapter_sides(self, daemons, reply):
        """smtpserver's side of a content filter (bench-roundtrip
        --smtpserver, a job line only after "#hungry"), over the first
        adapter_messages paths. Ours: the adapter with the site's options in
        its file and the secret in its own; baseline: the filter as the
        adapter starts it. Both run the filter as nobody: the adapter's file
        has no quoting for an empty --user."""
        if any(c.isspace() for c in self.work):
            raise BenchError(f"the adapter's configuration can not hold the path {self.work}")
        site = ["--user", "nobody", "--level", "info", "--log-filename",
                os.path.join(self.work, "zmailer.log"), "--basedir", self.base]
        conf, secret = os.path.join(self.work, "adapter.conf"), os.path.join(self.work, "secret")
        write_lines(conf, site)
        write_lines(secret, [SECRET])
        log = os.path.join(self.work, "adapter.log")
        driver = self.tool("bench-roundtrip")
        with open(os.path.join(self.work, "paths")) as paths:
            jobs = paths.read().splitlines()[:self.adapter_messages]

        def adapter(tag, part, listed):
            def check():
                expect_replies(self.output(tag), reply, len(part), self.base)
                if os.path.exists(log) and os.path.getsize(log) > 0:
                    with open(log) as text:
                        raise BenchError(f"the adapter logged: {text.read()[:300]}")
            return Side([[Command("driver+adapter+filter", [
                driver, "--smtpserver", self.tool("vorex-zmailer-filter"), "--config", conf,
                "--filter", self.filter, "--secret-file", secret, "--log-file", log],
                stdin=listed, stdout=self.output(tag))]], dict(daemons), check=check)

        def direct(tag, part, listed):
            return Side([[Command("driver+filter", [driver, "--smtpserver", self.filter, *site,
                                                    "--hash", SECRET, "--interface", "1"],
                                  stdin=listed, stdout=self.output(tag))]], dict(daemons),
                        check=self.replies(tag, reply, len(part)))
        return self.sliced("adapter", jobs, adapter), self.sliced("direct", jobs, direct)

    # ------------------------------------------------------------------
    def group_messages(self):
        """Per-message cost: one content-filter process over all the 4 KiB
        spool files, against the floor and the round trip alone."""
        spools, paths = self.small_spools()
        say(f"== per-message cost: {self.messages} spool files of "
            f"{os.path.getsize(spools[0])} bytes")
        refd = start_refd(self.daemons, self.refd, self.base, "--test-engine", "--verdict", "1")
        daemons = {"quelt-refd": refd.pid}
        filter_side = self.filter_sides("filter", spools, daemons, PASS_REPLY)
        floor = self.sliced("floor", spools, lambda tag, part, listed: Side(
            [[Command("bench-floor", [self.tool("bench-floor"), self.base], stdin=listed,
                      stdout=self.output(tag))]], daemons,
            check=self.replies(tag, PASS_REPLY, len(part))))
        roundtrip = self.sliced("roundtrip", spools, lambda tag, part, listed: Side(
            [[Command("bench-roundtrip", [self.tool("bench-roundtrip"), self.base], stdin=listed,
                      stdout=self.output(tag))]], daemons,
            check=self.replies(tag, "1", len(part))))
        self.figure(Row("per_message", "content filter, 4 KiB messages (baseline: floor)",
                        filter_side, floor, count=self.messages, target=(">=", 0.8)))
        self.figure(Row("per_message_roundtrip",
                        "content filter, 4 KiB messages (baseline: round trip alone)",
                        filter_side, roundtrip, count=self.messages))
        ours, direct = self.adapter_sides(daemons, PASS_REPLY)
        self.figure(Row("adapter_bare",
                        "adapter + filter, fixed verdict, 4 KiB (baseline: the filter alone)",
                        ours, direct, count=self.adapter_messages))
        self.daemons.stop(refd)
        shutil.rmtree(os.path.join(self.work, "spool"))

    def group_router(self):
        """Router stage: a fresh filter process per message, against a
        program that does nothing but links the filter's libraries."""
        starts = self.options.starts
        spool = os.path.join(self.work, "router.spool")
        with open(spool, "w") as out:
            out.write(spool_head(1) + BODY_LINE * 43)
        null = self.tool("bench-null")
        if self.loaded_libraries(null) != self.loaded_libraries(self.filter):
            raise BenchError("bench-null does not load the same libraries as the filter")
        say(f"== router stage: {starts} processes on one 4 KiB file")
        refd = start_refd(self.daemons, self.refd, self.base, "--test-engine", "--verdict", "1")
        argv, env = router_stage_command(self, spool)
        runs = [str(k) for k in range(starts)]
        ours = self.sliced("router", runs, lambda tag, part, listed: Side(
            [[Command("filter", argv, stdout=self.output(tag), env=env)]] * len(part),
            {"quelt-refd": refd.pid}, check=self.replies(tag, PASS_REPLY, 1)))
        baseline = self.sliced("null", runs, lambda tag, part, listed: Side(
            [[Command("bench-null", [null])]] * len(part)))
        self.figure(Row("router_startup",
                        "router stage, one process per 4 KiB message (baseline: bench-null, "
                        "the filter's libraries)", ours, baseline, count=starts,
                        unit="process", throughput=False, target=("<=", 3.0)))
        self.daemons.stop(refd)
        os.unlink(spool)

    @staticmethod
    def loaded_libraries(program):
        listing = subprocess.run(["ldd", program], check=True, capture_output=True,
                                 text=True).stdout
        return sorted(line.split()[0] for line in listing.splitlines() if line.strip())

    def group_content(self):
        """Content changed: the daemon answers 0x201 and leaves .msg alone,
        so the filter copies the message part out and the whole of it back,
        then fsyncs. Baseline: the same bytes copied to a new file, copied
        back over a spool file, and that file fsynced."""
        refd = start_refd(self.daemons, self.refd, self.base, "--test-engine", "--verdict", "513")
        directory = os.path.join(self.work, "content")
        os.makedirs(directory)
        spool = os.path.join(directory, "changed.spool")
        original = os.path.join(directory, "changed.orig")
        part = os.path.join(directory, "part")
        copy = os.path.join(directory, "part.msg")
        target = os.path.join(directory, "baseline.spool")
        peak = {}
        for mib in sorted({1, 16, 32, self.options.large_mib}):
            say(f"== content changed: {mib} MiB message")
            make_spool(spool, "changed", mib * 1024 * 1024)
            shutil.copyfile(spool, original)
            with open(part, "w") as out:
                out.write(message_part(spool))

            def unchanged():
                expect_replies(self.output("changed"), PASS_REPLY, 1, self.base)
                if not filecmp.cmp(spool, original, shallow=False):
                    raise BenchError("the rewritten spool file differs")
            argv, env = router_stage_command(self, spool)
            # Small sizes run several times per repetition, in turns, as
            # the slices of the per-message figures do.
            turns = max(1, min(self.options.slices, 64 // mib))
            ours = [Side([[Command("filter", argv, stdout=self.output("changed"), env=env)]],
                         {"quelt-refd": refd.pid}, check=unchanged)] * turns
            baseline = [Side([[Command("cp", ["cp", part, copy])],
                              [Command("cp", ["cp", copy, target])],
                              [Command("fsync", ["sync", target])]])] * turns
            row = Row(f"content_changed_{mib}mib",
                      f"content changed, {mib} MiB (baseline: two cp and one fsync)",
                      ours, baseline, count=turns, unit="run", throughput=False, judge="wall",
                      target=("<=", 1.3) if mib >= 16 else None)
            self.figure(row)
            peak[mib] = self.peak_rss(argv, env)
            for name in (spool, original, part, copy, target):
                os.unlink(name)
        self.daemons.stop(refd)
        large = self.options.large_mib
        self.single("peak_rss_ratio",
                    f"peak RSS, content changed, {large} MiB (baseline: 1 MiB)",
                    peak[large], peak[1], ("<=", 1.1))
        self.single("peak_rss_large",
                    f"peak RSS, content changed, {large} MiB (baseline: 16 MiB)",
                    peak[large], 16384, ("<", 1))

    def peak_rss(self, argv, env):
        """The filter's peak resident set in KiB, from /usr/bin/time: a
        program this bench starts itself would report the bench's own peak,
        which the kernel carries over the exec."""
        report = os.path.join(self.work, "rss")
        subprocess.run(["/usr/bin/time", "-f", "%M", "-o", report, *argv], check=True,
                       stdout=subprocess.DEVNULL, env=env)
        with open(report) as text:
            return int(text.read().split()[-1])

    def single(self, key, figure, ours, baseline, target):
        ratio = ours / baseline
        op, value = target
        met = ratio <= value if op == "<=" else ratio < value
        self.singles.append({"key": key, "figure": figure, "ours": ours, "baseline": baseline,
                             "ratio": ratio, "target": target,
                             "result": "met" if met else "MISSED"})
        say(f"== {figure}: {ours} KiB against {baseline} KiB ({ratio:.2f})")

    def group_hash(self):
        """Hash-header removal: the rest of the file moves up over the header
        line. The spool file is made again before each run, untimed."""
        large = self.options.large_mib
        say(f"== hash-header removal: {large} MiB spool file")
        refd = start_refd(self.daemons, self.refd, self.base, "--test-engine", "--verdict", "1")
        directory = os.path.join(self.work, "hash")
        os.makedirs(directory)
        original = os.path.join(directory, "hash.orig")
        spool = os.path.join(directory, "hash.spool")
        hash_line = f"X-Vorex-Hash: {SECRET}"
        make_spool(original, "hash", large * 1024 * 1024, hash_line)

        def cut():
            expect_replies(self.output("hash"), PASS_REPLY, 1, self.base)
            if os.path.getsize(original) - os.path.getsize(spool) != len(hash_line) + 1:
                raise BenchError("the hash header line was not cut out")
        argv, env = router_stage_command(self, spool)
        ours = [Side([[Command("filter", argv, stdout=self.output("hash"), env=env)]],
                     {"quelt-refd": refd.pid},
                     prepare=lambda: shutil.copyfile(original, spool), check=cut)]
        baseline = [Side([[Command("cp", ["cp", original, os.path.join(directory, "copy")])]])]
        self.figure(Row("hash_removal_large",
                        f"hash-header removal, {large} MiB (baseline: one cp)", ours, baseline,
                        unit="run", throughput=False, judge="wall", target=("<=", 1.5)))
        self.daemons.stop(refd)
        shutil.rmtree(directory)

    # ------------------------------------------------------------------
    def group_clamd(self):
        """quelt-refd with a private clamd: the daemon's own cost against
        clamdscan --fdpass on the same clamd (the engine alone), the whole
        path against the sum of its parts, the adapter, a pool, metrics, a
        farm with one member restarted, and four filters in parallel."""
        engines = os.path.join(self.work, "engines")
        clamd, clamd_conf, clamd_socket = start_clamd(self.daemons, engines)
        spools, paths = self.small_spools()
        say(f"== engine figures: {self.messages} spool files of about 4 KiB")
        refd = start_refd(self.daemons, self.refd, self.base, "--clamd", clamd_socket)
        n = self.messages
        clean = PASS_REPLY + " clean"

        def clamdscan(files, output):
            return Command("clamdscan", ["clamdscan", f"--config-file={clamd_conf}", "--fdpass",
                                         "--no-summary", *files], stdout=self.output(output))

        def all_ok(output, count):
            return lambda: expect_lines(self.output(output), lambda line: line.endswith(": OK\n"),
                                        count, "clamdscan found {got} of {want} files clean")

        def scans(name, files):
            return self.sliced(name, files, lambda tag, part, listed: Side(
                [[clamdscan(part, tag)]], {"clamd": clamd.pid}, check=all_ok(tag, len(part))))
        with_refd = {"quelt-refd": refd.pid, "clamd": clamd.pid}
        filter_clamd = self.filter_sides("filter", spools, with_refd, clean)
        scan = scans("clamdscan", spools)
        self.figure(Row("clamd_overhead",
                        "filter + quelt-refd + clamd, 4 KiB (baseline: clamdscan --fdpass)",
                        filter_clamd, scan, count=n, target=(">=", 0.9)))

        # The daemon's own cost: bench-roundtrip asks it about entries made
        # once beforehand, as the filter makes them, one request at a time.
        entries = prepare_entries(self.base, "bench", spools, lambda line: True)
        refd_entries = self.entry_sides("entries", entries, with_refd)
        scan_msgs = scans("clamdscan-msgs", [e + "/.msg" for e in entries])
        self.figure(Row("refd_cost", "bench-roundtrip + quelt-refd + clamd, prepared entries "
                        "(baseline: clamdscan --fdpass)", refd_entries, scan_msgs, count=n,
                        target=(">=", 0.9)))
        for entry in entries:
            shutil.rmtree(entry)

        # The whole path against the sum of its parts: the filter with a
        # daemon that answers a fixed verdict, then clamdscan alone.
        fixed_base = os.path.join(self.work, "fixed") + "/"
        fixed = start_refd(self.daemons, self.refd, fixed_base, "--test-engine", "--verdict", "1")
        parts = self.sliced("parts", spools, lambda tag, part, listed: Side(
            [[self.filter_over(listed, tag, fixed_base)], [clamdscan(part, tag + ".scan")]],
            {"quelt-refd": fixed.pid, "clamd": clamd.pid},
            check=self.replies(tag, PASS_REPLY, len(part), fixed_base)))
        self.figure(Row("whole_path", "filter + quelt-refd + clamd (baseline: filter with a "
                        "fixed verdict + clamdscan)", filter_clamd, parts, count=n,
                        target=(">=", 0.95)))
        self.daemons.stop(fixed)

        ours, direct = self.adapter_sides(with_refd, clean)
        self.figure(Row("adapter_clamd", "adapter + filter + quelt-refd + clamd, 4 KiB "
                        "(baseline: without the adapter)", ours, direct,
                        count=self.adapter_messages, target=(">=", 0.95)))

        # A pool of two upstreams, both this clamd, against one: what
        # choosing and marking add per message.
        pool_base = os.path.join(self.work, "pool") + "/"
        pool = start_refd(self.daemons, self.refd, pool_base, "--clamd", clamd_socket,
                          "--clamd", clamd_socket)
        pool_side = self.filter_sides("pool", spools, {"quelt-refd": pool.pid,
                                                       "clamd": clamd.pid}, clean, pool_base)
        self.figure(Row("clamd_pool", "filter + quelt-refd + clamd, pool of two upstreams on "
                        "one clamd (baseline: one upstream)", pool_side, filter_clamd, count=n,
                        target=(">=", 0.97)))
        self.daemons.stop(pool)

        # Metrics on (port 0: any free one) against off.
        metrics_base = os.path.join(self.work, "metrics") + "/"
        metrics = start_refd(self.daemons, self.refd, metrics_base, "--clamd", clamd_socket,
                             "--metrics", "127.0.0.1:0")
        metrics_side = self.filter_sides("metrics", spools, {"quelt-refd": metrics.pid,
                                                             "clamd": clamd.pid}, clean,
                                         metrics_base)
        self.figure(Row("metrics_on", "filter + quelt-refd + clamd, metrics on (baseline: "
                        "metrics off)", metrics_side, filter_clamd, count=n,
                        target=(">=", 0.98)))
        self.daemons.stop(metrics)

        self.farm_revival(engines, clamd_conf, clamd_socket, spools)
        self.daemons.stop(refd)
        self.daemons.stop(clamd)
        self.four_filters(paths)
        shutil.rmtree(os.path.join(self.work, "spool"))
        shutil.rmtree(engines)

    def four_filters(self, paths):
        """Four filters in parallel, each over a quarter of the files, beside
        one over all of them, engines off. A figure of parallelism: judged on
        wall time, since CPU time does not see it."""
        refd = start_refd(self.daemons, self.refd, self.base, "--test-engine", "--verdict", "1")
        with open(paths) as text:
            lines = text.read().splitlines()
        quarters = []
        for q in range(4):
            name = os.path.join(self.work, f"quarter.{q}")
            write_lines(name, lines[q::4])
            quarters.append(self.filter_over(name, f"quarter.{q}"))

        def all_passed():
            for q in range(4):
                expect_replies(self.output(f"quarter.{q}"), PASS_REPLY, len(lines[q::4]),
                               self.base)
        daemons = {"quelt-refd": refd.pid}
        self.figure(Row("four_filters", "four filters in parallel, engines off (baseline: one "
                        "filter)", [Side([quarters], daemons, check=all_passed)],
                        [Side([[self.filter_over(paths, "filter")]], daemons,
                              check=self.replies("filter", PASS_REPLY, self.messages))],
                        count=self.messages, judge="wall", target=(">=", 1.7)))
        self.daemons.stop(refd)

    def farm_revival(self, engines, clamd_conf, clamd_socket, spools):
        """A farm of two clamd, one stopped while messages flow and started
        again: the time from its restart to the first message it answers,
        from the daemon's own lines ("... via ADDR"), each stamped as it
        arrives. Messages come one every 10 ms, so the figure is good to
        about that."""
        say(f"== a farm of two clamd, one restarted (--revive-seconds {FARM_REVIVE})")
        b_dir = os.path.join(engines, "b")
        os.makedirs(b_dir)
        b_socket = os.path.join(b_dir, "clamd.sock")
        b_conf = os.path.join(b_dir, "clamd.conf")
        with open(clamd_conf) as text, open(b_conf, "w") as out:
            out.writelines(f"LocalSocket {b_socket}\n" if line.startswith("LocalSocket ")
                           else line for line in text)
        clamd_b = self.daemons.start(["clamd", "-c", b_conf])
        wait_for_socket(b_socket, "the second clamd")
        lines = []
        farm_base = os.path.join(self.work, "farm") + "/"
        farm = start_refd(self.daemons, self.refd, farm_base, "--clamd", clamd_socket,
                          "--clamd", b_socket, "--revive-seconds", str(FARM_REVIVE),
                          on_line=lambda stamp, line: lines.append((stamp, line)))
        self.daemons.stop(clamd_b)
        if os.path.exists(b_socket):  # clamd usually removes it itself
            os.unlink(b_socket)
        args = list(self.filter_args)
        args[-1] = farm_base
        feeder = subprocess.Popen([self.filter, "--interface", "1", *args],
                                  stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL, text=True)
        stop = threading.Event()

        def feed():
            k = 0
            while not stop.is_set():
                feeder.stdin.write(spools[k % len(spools)] + "\n")
                feeder.stdin.flush()
                k += 1
                time.sleep(0.01)
        thread = threading.Thread(target=feed, daemon=True)
        thread.start()
        try:
            down = f"clamd {b_socket} down"
            self.wait_until(lambda: any(down in line for _, line in lines), 10,
                            f"the farm never marked {b_socket} down")
            time.sleep(0.5)
            restart = time.monotonic()
            clamd_b = self.daemons.start(["clamd", "-c", b_conf])
            wait_for_socket(b_socket, "the restarted clamd")
            ready = time.monotonic()

            def first(text):
                return next((stamp for stamp, line in list(lines)
                             if stamp > restart and text in line), None)
            self.wait_until(lambda: first(f" via {b_socket}") is not None, FARM_REVIVE + 10,
                            f"the restarted clamd got no message within {FARM_REVIVE + 10} s")
            served = first(f" via {b_socket}")
            up = first(f"clamd {b_socket} up again") or served
        finally:
            stop.set()
            thread.join()
            feeder.stdin.close()
            feeder.wait()
        self.daemons.stop(farm)
        self.daemons.stop(clamd_b)
        note = (f"farm of two clamd, --revive-seconds {FARM_REVIVE}: the stopped one restarted, "
                f"its socket after {(ready - restart) * 1e3:.0f} ms, \"up again\" after "
                f"{(up - restart) * 1e3:.0f} ms, its first message after "
                f"{(served - restart) * 1e3:.0f} ms (limit: revive time + 1 s = "
                f"{(FARM_REVIVE + 1) * 1000} ms)")
        self.notes.append(note)
        say("   " + note)

    @staticmethod
    def wait_until(condition, seconds, failure):
        deadline = time.monotonic() + seconds
        while not condition():
            if time.monotonic() > deadline:
                raise BenchError(failure)
            time.sleep(0.05)

    # ------------------------------------------------------------------
    def group_rspamd(self):
        """quelt-refd with a private rspamd: (1) the daemon asked about
        prepared entries against rspamc posting the same message parts one at
        a time (rspamd alone); (2) the whole path against the filter with a
        fixed-verdict daemon plus rspamc."""
        rspamd, socket = start_rspamd(self.daemons, self.top, os.path.join(self.work, "rspamd"))
        spools, paths = self.small_spools()
        n = self.messages
        say(f"== rspamd figures: {n} spool files of about 4 KiB")
        eml_dir = os.path.join(self.work, "msg")
        os.makedirs(eml_dir)
        emls = []
        for number, spool in enumerate(spools, 1):
            eml = os.path.join(eml_dir, f"{number}.eml")
            with open(eml, "w") as out:
                out.write(message_part(spool))
            emls.append(eml)
        refd = start_refd(self.daemons, self.refd, self.base, "--rspamd", socket)
        entries = prepare_entries(self.base, "rspamd", spools,
                                  lambda line: line.startswith(("from ", "to ")))
        with_refd = {"quelt-refd": refd.pid, "rspamd": rspamd.pid}

        def rspamc(tag, part):
            return Command("rspamc", ["rspamc", "-h", socket, "-n", "1", *part],
                           stdout=self.output(tag))

        def no_action(tag, count):
            return lambda: expect_lines(
                self.output(tag), lambda line: line.startswith("Action: no action"), count,
                "rspamc answered 'no action' {got} times, want {want}")
        alone = self.sliced("rspamc", emls, lambda tag, part, listed: Side(
            [[rspamc(tag, part)]], {"rspamd": rspamd.pid}, check=no_action(tag, len(part))))
        refd_entries = self.entry_sides("rspamd-entries", entries, with_refd)
        self.figure(Row("rspamd_overhead", "bench-roundtrip + quelt-refd + rspamd, prepared "
                        "entries (baseline: rspamc, one at a time)", refd_entries, alone,
                        count=n, target=(">=", 0.9)))
        for entry in entries:
            shutil.rmtree(entry)
        fixed_base = os.path.join(self.work, "fixed-rspamd") + "/"
        fixed = start_refd(self.daemons, self.refd, fixed_base, "--test-engine", "--verdict", "1")
        whole = self.filter_sides("rspamd", spools, with_refd, PASS_REPLY + " clean")
        # A slice of numbers: spool file k and its message part k.
        numbers = [str(k) for k in range(len(spools))]
        parts = self.sliced("parts-rspamd", numbers, lambda tag, part, listed: Side(
            [[self.filter_over(self.list_of(tag, [spools[int(k)] for k in part]), tag,
                               fixed_base)],
             [rspamc(tag + ".rspamc", [emls[int(k)] for k in part])]],
            {"quelt-refd": fixed.pid, "rspamd": rspamd.pid},
            check=self.replies(tag, PASS_REPLY, len(part), fixed_base)))
        self.figure(Row("rspamd_parts", "filter + quelt-refd + rspamd, 4 KiB (baseline: "
                        "fixed-verdict filter + rspamc)", whole, parts, count=n,
                        target=(">=", 0.95)))
        self.daemons.stop(fixed)
        self.daemons.stop(refd)
        self.daemons.stop(rspamd)
        shutil.rmtree(os.path.join(self.work, "spool"))
        shutil.rmtree(eml_dir)
