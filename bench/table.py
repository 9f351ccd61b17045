#!/usr/bin/env python3
"""Makes the table of README.md from the JSON of several benchmark runs.

Each row is the median over the rounds of a ratio of medians taken inside one round.
"""
import collections
import json
import re
import statistics
import sys

BEGIN, END = "<!-- table -->", "<!-- end of table -->"
COUNTERS = ("first", "further", "scans", "opens", "per_open", "per_volume", "per_name", "known_descriptors")


class Round:
    """The medians of one round: nanoseconds by name, and the counters of the rows that count."""

    def __init__(self):
        self.samples = collections.defaultdict(list)
        self.rates = collections.defaultdict(list)
        self.counters = {}

    def add(self, path):
        for row in json.load(open(path))["benchmarks"]:
            if row["run_type"] != "iteration":
                continue
            name = re.sub(r"/(iterations|real_time|manual_time|repeats):?\w*", "", row["run_name"])
            # Processor time where one thread works alone: the machine is shared.
            by_clock = "/manual_time" in row["run_name"]
            self.samples[name].append(row["real_time" if by_clock else "cpu_time"])
            if "items_per_second" in row:
                self.rates[name].append(row["items_per_second"])
            self.counters.update({f"{name}.{key}": row[key] for key in COUNTERS if key in row})

    def time(self, name):
        return statistics.median(self.samples[name])

    def ratio(self, one, other):
        return self.time(one) / self.time(other)

    def speed_up(self, name):
        rate = lambda threads: statistics.median(self.rates[f"{name}/threads:{threads}"])
        return rate(2) / rate(1)


def against(one, other):
    return lambda r: r.ratio(one, other)


def share(name):
    """The driver's part of a listing that the Provider alone takes the rest of."""
    return lambda r: 1 - r.ratio(f"{name}/direct", f"{name}/driver")


def rate(name):
    return lambda r: statistics.median(r.rates[name])


def scaling(one, other):
    return lambda r: r.speed_up(one) / r.speed_up(other)


CLASSES = ("basic", "standard", "internal", "ea", "name", "position", "all", "alternate_name", "network_open",
           "attribute_tag")


def queries():
    """A query of each class beside the Provider calls that it costs."""
    under = "information/directory/"
    for name in CLASSES:
        direct = "direct_with_identifier" if name in ("internal", "all") else "direct"
        yield ("", f"query {name.replace('_', ' ')}, directory: request / its Provider calls",
               against(under + name, under + direct), AT_MOST, None, "")
    for provider in ("directory", "stub"):
        yield ("", f"query volume size, {provider}: request / its Provider calls",
               against(f"information/{provider}/volume_size", f"information/{provider}/volume_size_direct"), AT_MOST,
               None, "")
    yield ("", "query basic, stub: request, in shared_mutex pairs",
           against("information/stub/basic", PAIR), AT_MOST, None, "")


def counter(name):
    return lambda r: r.counters[name]


def names():
    """What a name costs at the directory Provider beside the same natively."""
    yield ("13", "all Provider calls of an open of a known name / native open + close",
           against("open/directory/direct", "open/native"), AT_MOST, 2.5, "")
    for name, what, limit in (("known", "a known name", None), ("other_case", "a name in another case", None),
                              ("missing", "a missing name", None), ("large", "a known name in a large directory", None)):
        yield ("13", f"open of {what} alone / native", against(f"names/{name}/directory", f"names/{name}/native"),
               AT_MOST, limit, "")
    for way in ("handle", "path"):
        yield ("", f"the necessary system calls of those, by {way} / native",
               against(f"open/necessary/by_{way}", "open/native"), AT_MOST, None, "")
    yield ("13", "directories read for known names of a large directory", counter("names/large/directory.scans"),
           AT_MOST, 0, " reads")
    for beside in ("collision", "dangling_link"):
        yield ("13", f"create + delete in a large directory: beside a {beside.replace('_', ' ')} / alone",
               against(f"names/create_and_delete/{beside}", "names/create_and_delete/alone"), AT_MOST, 1.2, "")
    yield ("13", "two threads, opens in different directories: speed-up / native",
           scaling("threads/names/directory", "threads/names/native"), AT_LEAST, 0.9, "")
    yield ("6", "listing with all facts: native readdir + statx + getxattr / directory Provider",
           against("listing/native/facts", "listing/directory/direct"), AT_LEAST, 0.9, "")
    yield ("6", "first listing of a directory, nothing of it known: the same",
           against("listing/native/facts", "listing/directory/first"), AT_LEAST, 0.9, "")
    for key, what, limit, unit in (("opens", "distinct files open at once, of 100,000", 100000, ""),
                                   ("per_open", "descriptors of an idle open", 1, ""),
                                   ("per_volume", "descriptors of an idle volume", 0, ""),
                                   ("known_descriptors", "descriptors of a directory that is known, with its export", None, ""),
                                   ("per_name", "memory of a known name", 256, " B")):
        yield ("", what, counter(f"pool/names.{key}"), AT_LEAST if key == "opens" else AT_MOST, limit, unit)


PAIR = "yardstick/shared_mutex_pair"
AT_MOST, AT_LEAST = "≤", "≥"
IMAGE_LIMIT = 1.05

# (goal, what, figure, direction, limit or None, unit)
ROWS = [
    ("1", "read 4 KiB, stub: request, in shared_mutex pairs", against("read/stub/request", PAIR), AT_MOST, 20, ""),
    ("1", "read 4 KiB, stub: NtReadFile, in shared_mutex pairs", against("read/stub/service", PAIR), AT_MOST, 20, ""),
    ("1", "read 4 KiB, directory: request / direct call", against("read/directory/request", "read/directory/direct"),
     AT_MOST, 1.20, ""),
    ("1", "read 4 KiB, directory: NtReadFile / direct call", against("read/directory/service", "read/directory/direct"),
     AT_MOST, 1.20, ""),
    ("", "read 4 KiB, stub, after a native read: (both - native) / alone",
     lambda r: (r.time("read/stub/service_after_native") - r.time("read/native")) / r.time("read/stub/service"),
     AT_MOST, None, ""),
    ("", "write 4 KiB, stub: request, in shared_mutex pairs", against("write/stub/request", PAIR), AT_MOST, None, ""),
    ("", "write 4 KiB, directory: NtWriteFile / direct call",
     against("write/directory/service", "write/directory/direct"), AT_MOST, None, ""),
    ("2", "open + cleanup + close, directory: driver / its Provider calls",
     against("open/directory/driver", "open/directory/direct"), AT_MOST, 1.5, ""),
    ("2", "open + cleanup + close, stub / native open + close", against("open/stub/driver", "open/native"),
     AT_MOST, 0.7, ""),
    ("3", "look-up hit, random names: 1,000,000 / 1,000", against("table/hit/1000000", "table/hit/1000"),
     AT_MOST, 9, ""),
    ("3", "look-up hit, 1,000 hot names: among 1,000,000 / 1,000", against("table/hot/1000000", "table/hot/1000"),
     AT_MOST, 1.5, ""),
    ("3", "look-up miss / hit at 1,000", against("table/miss/1000", "table/hit/1000"), AT_MOST, 2, ""),
    ("3", "look-up miss / hit at 1,000,000", against("table/miss/1000000", "table/hit/1000000"), AT_MOST, 2, ""),
    ("3", "open + close: at 1,000,000 / 1,000", against("table/open/1000000", "table/open/1000"), AT_MOST, 2, ""),
    ("", "rename there and back, random names: among 1,000,000 / 1,000",
     against("table/rename_there_and_back/1000000", "table/rename_there_and_back/1000"), AT_MOST, None, ""),
    ("", "rename of a directory with nothing open below: among 1,000,000 / 1,000",
     against("table/rename_directory/1000000", "table/rename_directory/1000"), AT_MOST, None, ""),
    *queries(),
    ("4", "trace off / built out, stub read", against("trace/off", "trace/built_out"), AT_MOST, 1.08, ""),
    ("4", "trace on, no mask matching / built out", against("trace/no_match", "trace/built_out"), AT_MOST, 1.35, ""),
    ("5", "two threads, different files: speed-up / that of pread",
     scaling("threads/read/different", "threads/pread/different"), AT_LEAST, 0.93, ""),
    ("5", "two threads, same file: speed-up / that of pread", scaling("threads/read/same", "threads/pread/same"),
     AT_LEAST, 0.85, ""),
    ("5", "two threads, opens of different files: speed-up / native",
     scaling("threads/open/different", "threads/open/native"), AT_LEAST, 0.7, ""),
    ("", "list 100,000 entries, scripted Provider: the driver's share", share("listing/scripted"), AT_MOST, 0.5, ""),
    ("", "list 100,000 entries, batches ready-made (stub): the driver's share", share("listing/stub"), AT_MOST, 0.5, ""),
    ("", "list 100,000 entries, directory: the driver's share", share("listing/directory"), AT_MOST, None, ""),
    ("", "entries listed through the driver, directory", rate("listing/directory/driver"), AT_LEAST, None, " /s"),
    ("", "entries listed by the Provider alone, directory", rate("listing/directory/direct"), AT_LEAST, None, " /s"),
    ("", "map + unmap: the 26th letter / the only one",
     against("mapping/map_and_unmap/1_of_26", "mapping/map_and_unmap/1_of_1"), AT_MOST, None, ""),
    ("", "map + unmap: with 1,000 sessions' mappings / alone",
     against("mapping/map_and_unmap/1000_sessions", "mapping/map_and_unmap/1_of_1"), AT_MOST, None, ""),
    ("", "query: the last of 26 letters / the only one", against("mapping/query/1_of_26", "mapping/query/1_of_1"),
     AT_MOST, None, ""),
    ("", "query: the last of 1,000 sessions' / alone", against("mapping/query/1000_sessions", "mapping/query/1_of_1"),
     AT_MOST, None, ""),
    ("", "open + close, stub: through G:\\ / by the UNC name", against("mapping/open/letter", "mapping/open/unc"),
     AT_MOST, None, ""),
    ("", "posted read / (to another thread and back + the read directly)",
     lambda r: r.time("queue/posted_read") / (r.time("queue/hand_off") + r.time("queue/direct_read")), AT_MOST, 1.3, ""),
    ("", "read that need not wait, EnableAsyncIo on / off", against("queue/direct_read", "read/stub/request"), AT_MOST,
     None, ""),
    ("", "100,000 queued reads drained by nine workers", rate("queue/drain"), AT_LEAST, None, " /s"),
    ("", "lock that conflicts: among 100,000 locks / 1,000", against("locks/conflict/100000", "locks/conflict/1000"),
     AT_MOST, None, ""),
    ("", "lock and unlock: among 100,000 locks / 1,000",
     against("locks/lock_and_unlock/100000", "locks/lock_and_unlock/1000"), AT_MOST, None, ""),
    *names(),
    ("10", "pool of the first open of a 70-character path", lambda r: r.counters["pool/open.first"], AT_MOST, 1536,
     " B"),
    ("10", "pool of a further open", lambda r: r.counters["pool/open.further"], AT_MOST, 600, " B"),
]


def shown(value, unit):
    return f"{value:,.0f}{unit}" if unit else f"{value:.3g}"


IMAGE = "image/"


def image_table(rounds):
    """Every row that was measured with the image too, beside the same with the driver linked in."""
    names = sorted(name for name in rounds[0].samples if name.startswith(IMAGE))
    if not names:
        return []
    lines = ["The image beside the driver linked in, each row a ratio inside one run (the aim is at most "
             f"{IMAGE_LIMIT:.2f}):", "", "| benchmark | linked in, ns | image, ns | image / linked in | "
             "rounds from - to | held |", "|---|---|---|---|---|---|"]
    for name in names:
        own = name.removeprefix(IMAGE)
        values = [r.ratio(name, own) for r in rounds]
        middle = statistics.median(values)
        lines.append(f"| {own} | {nanoseconds(rounds, own)} | {nanoseconds(rounds, name)} | {middle:.3f} | "
                     f"{min(values):.3f} - {max(values):.3f} | {'yes' if middle <= IMAGE_LIMIT else '**no**'} |")
    return [*lines, ""]


def nanoseconds(rounds, name):
    middle = statistics.median(r.time(name) for r in rounds)
    return f"{middle:,.0f}" if middle >= 100 else f"{middle:.2f}"


def table(rounds):
    lines = ["| goal | figure | limit | measured | rounds from - to | held |", "|---|---|---|---|---|---|"]
    for goal, what, figure, direction, limit, unit in ROWS:
        values = [figure(r) for r in rounds]
        middle = statistics.median(values)
        held = "" if limit is None else "yes" if (middle <= limit) == (direction == AT_MOST) else "**no**"
        bound = "" if limit is None else f"{direction} {shown(limit, unit)}"
        lines.append(f"| {goal} | {what} | {bound} | {shown(middle, unit)} | "
                     f"{shown(min(values), unit)} - {shown(max(values), unit)} | {held} |")
    lines += ["", *image_table(rounds), "Absolute times of the same runs, in ns (medians; they hold for that machine in that hour only):", "",
              "| benchmark | ns |", "|---|---|"]
    for name in sorted(rounds[0].samples):
        if not name.startswith(("threads/", "pool/", IMAGE)):
            lines.append(f"| {name} | {nanoseconds(rounds, name)} |")
    return "\n".join(lines)


def main():
    readme, *paths = sys.argv[1:]
    rounds = collections.defaultdict(Round)
    for path in paths:
        rounds[path.split(".")[-2]].add(path)
    text = open(readme).read()
    head, rest = text.split(BEGIN)
    tail = rest.split(END)[1]
    made = table(list(rounds.values()))
    open(readme, "w").write(f"{head}{BEGIN}\n{made}\n{END}{tail}")
    print(made)


if __name__ == "__main__":
    main()
