# bench/compare.py: one figure of the table. A comparison runs ours and the
# baseline in turns (ours first in even repetitions, the baseline in odd
# ones) until the interquartile range of the judged ratio lies within
# +-SETTLE of its median, or the row's time bound has passed; a row that did
# not settle is reported as such, never as met or missed. Ratios are per
# repetition (the two runs of one repetition follow each other, so other
# load on the machine weighs on both alike) and the figure is their median.
import statistics
import sys
import time
from dataclasses import dataclass, field

from meter import Sample, measure

SETTLE = 0.03
MIN_REPS = 5


def say(text):
    print(text, file=sys.stderr, flush=True)


def quartiles(values):
    """(first quartile, median, third quartile)."""
    if len(values) == 1:
        return values[0], values[0], values[0]
    q1, q2, q3 = statistics.quantiles(values, n=4, method="inclusive")
    return q1, q2, q3


def spread(values):
    """The interquartile range as fractions of the median: (below, above)."""
    q1, median, q3 = quartiles(values)
    return q1 / median - 1, q3 / median - 1


def settled(values):
    below, above = spread(values)
    return len(values) >= MIN_REPS and max(-below, above) <= SETTLE


@dataclass
class Row:
    """A figure. Times are compared as ours / baseline; a throughput row
    shows baseline / ours, so that higher is better there and the target
    reads that way. count is how many of unit (message, process, run) one
    run of a side handles. judge says which ratio decides the target: "cpu"
    (all processes on the path) or "wall"."""
    key: str
    figure: str
    ours: list  # meter.Side per slice of the work
    baseline: list
    count: int = 1
    unit: str = "message"
    throughput: bool = True
    judge: str = "cpu"
    target: tuple = None  # (operator, value) on the shown ratio
    bound: float = 60.0  # seconds of repetitions before giving up settling
    reps: list = field(default_factory=list)
    load: str = ""

    def shown(self, ratio):
        return 1 / ratio if self.throughput else ratio

    def ratios(self, kind):
        return [self.shown(rep[kind]) for rep in self.reps]

    def median_ratio(self, kind):
        return statistics.median(self.ratios(kind))

    def is_settled(self):
        return settled(self.ratios(self.judge))

    def result(self):
        if self.target is None:
            return "context"
        if not self.is_settled():
            return "UNSETTLED"
        op, value = self.target
        ratio = self.median_ratio(self.judge)
        met = {">=": ratio >= value, "<=": ratio <= value, "<": ratio < value}[op]
        return "met" if met else "MISSED"

    def component_costs(self, side):
        """Median CPU seconds per unit of each process."""
        names = sorted({name for rep in self.reps for name in rep[side].cpu})
        return {name: statistics.median(rep[side].cpu.get(name, 0.0) for rep in self.reps)
                / self.count for name in names}


def _per_unit(seconds, count):
    each = seconds / count
    return f"{each * 1e6:.0f} us" if each < 0.01 else f"{each * 1e3:.2f} ms"


def _merge(samples):
    cpu = {}
    for sample in samples:
        for name, seconds in sample.cpu.items():
            cpu[name] = cpu.get(name, 0.0) + seconds
    return Sample(sum(s.wall for s in samples), cpu)


def _check(sides):
    for side in sides:
        if side.check is not None:
            side.check()


def run(row, stderr_path):
    """Warms the first slice of both sides (checking its output; every
    slice's is checked after the last repetition), then repeats. One repetition runs the slices of ours and the baseline in
    pairs, alternating which goes first, so that other work on the machine
    weighs on both alike; its ratio is the median of the pairs' ratios, so
    that a burst that hit one pair does not move it."""
    warm = [row.ours[0], row.baseline[0]]
    for side in warm:
        measure(side, stderr_path)
    _check(warm)
    say(f"== {row.figure}")
    start = time.monotonic()
    while True:
        r = len(row.reps)
        taken = {"ours": [], "baseline": []}
        for k, pair in enumerate(zip(row.ours, row.baseline)):
            order = (0, 1) if (r + k) % 2 == 0 else (1, 0)
            for which in order:
                name = ("ours", "baseline")[which]
                taken[name].append(measure(pair[which], stderr_path))
        ours, baseline = _merge(taken["ours"]), _merge(taken["baseline"])
        pairs = list(zip(taken["ours"], taken["baseline"]))
        row.reps.append({"ours": ours, "baseline": baseline, "slices": pairs,
                         "cpu": statistics.median(o.cpu_total / b.cpu_total for o, b in pairs),
                         "wall": statistics.median(o.wall / b.wall for o, b in pairs)})
        say(f"   rep {r + 1}: cpu {_per_unit(ours.cpu_total, row.count)} vs "
            f"{_per_unit(baseline.cpu_total, row.count)} ({row.shown(row.reps[-1]['cpu']):.3f}),"
            f" wall {_per_unit(ours.wall, row.count)} vs {_per_unit(baseline.wall, row.count)}"
            f" ({row.shown(row.reps[-1]['wall']):.3f})")
        if row.is_settled() or (len(row.reps) >= MIN_REPS and time.monotonic() - start > row.bound):
            break
    _check(row.ours + row.baseline)
    say("   " + summary(row))


def describe_spread(values):
    below, above = spread(values)
    return f"{below * 100:+.1f}/{above * 100:+.1f} %"


def summary(row):
    parts = []
    for kind in ("cpu", "wall"):
        mark = "*" if kind == row.judge else ""
        parts.append(f"{kind}{mark} {row.median_ratio(kind):.3f} "
                     f"(IQR {describe_spread(row.ratios(kind))})")
    costs = []
    for side in ("ours", "baseline"):
        each = ", ".join(f"{name} {_per_unit(value * row.count, row.count)}"
                         for name, value in row.component_costs(side).items())
        costs.append(f"{side}: {each}")
    unit = f"per {row.unit}"
    return (f"{'; '.join(parts)}; {len(row.reps)} repetitions; {row.result()}\n"
            f"   cpu {unit}: {' | '.join(costs)}")
