"""For mount.sh: the workloads, run in one directory, and the table and picture of what they gave.

run ROOT TARGET ROUND SERVER [WORKLOAD...] prints a line of JSON for each workload; table RESULTS prints the rest.
"""
import collections
import json
import os
import re
import shutil
import sqlite3
import statistics
import subprocess
import sys
import time

FILES = 10_000
ENTRIES = 50_000
LOCAL = "rvfsd_local_lock"  # measured where locks count, beside what keeps them in the kernel too
OURS = ("rvfsd", "rvfsd_io_uring")
MIB = 256
WORKLOADS = collections.OrderedDict()


def workload(unit, better="high"):
    def add(function):
        WORKLOADS[function.__name__] = (function, unit, better)
        return function
    return add


def seconds_of(action):
    begun = time.perf_counter()
    action()
    return time.perf_counter() - begun


def quietly(*words, **more):
    subprocess.run(words, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **more)


def fio(root, mode, block, jobs=1, keep=False, part=MIB):
    """The rate in MiB/s, and of calls a second. The pages that root's kernel side has of the file are dropped but for keep."""
    words = ["fio", "--name=x", f"--filename={root}/data", f"--rw={mode}", f"--bs={block}", f"--size={MIB}m", f"--io_size={part}m",
             "--ioengine=psync", f"--numjobs={jobs}", "--thread", "--group_reporting", f"--invalidate={int(not keep)}",
             "--output-format=json"]
    told = json.loads(subprocess.run(words, check=True, capture_output=True).stdout)["jobs"][0]["write" if "write" in mode else "read"]
    return told["bw_bytes"] / 2**20, told["iops"]


@workload("MiB/s")
def seq_rewrite(root):
    fio(root, "write", "1m")
    return fio(root, "write", "1m")[0]


@workload("MiB/s")
def seq_read_cold(root):
    return fio(root, "read", "1m")[0]


@workload("MiB/s")
def seq_read_again(root):
    fio(root, "read", "1m", keep=True)
    return fio(root, "read", "1m", keep=True)[0]


@workload("k/s")
def rand_read_1(root):
    return fio(root, "randread", "4k", part=128)[1] / 1000


@workload("k/s")
def rand_read_2(root):
    return fio(root, "randread", "4k", jobs=2, part=128)[1] / 1000


def each_file(root, action):
    names = [f"{root}/many/f{number}" for number in range(FILES)]
    return FILES / seconds_of(lambda: [action(name) for name in names]) / 1000


@workload("k/s")
def create_4k(root):
    os.mkdir(f"{root}/many")
    data = b"x" * 4096

    def make(name):
        file = os.open(name, os.O_CREAT | os.O_EXCL | os.O_WRONLY, 0o644)
        os.write(file, data)
        os.close(file)
    return each_file(root, make)


@workload("k/s")
def open_close(root):
    return each_file(root, lambda name: os.close(os.open(name, os.O_RDONLY)))


@workload("k/s")
def stat_cached(root):
    name = f"{root}/many/f1"
    os.stat(name)
    return 20 / seconds_of(lambda: [os.stat(name) for _ in range(20_000)])


@workload("k/s")
def stat_cold(root):
    time.sleep(1.1)  # what the kernel was told is old then
    return each_file(root, os.stat)


@workload("k/s")
def look_up_missing(root):
    return each_file(root, lambda name: os.path.lexists(name + "-"))


@workload("k/s")
def unlink(root):
    time.sleep(1.1)  # for one target names would still be known, for a slower one they would not
    return each_file(root, os.unlink)


def source_tree():
    """A repository of 3,000 files, and its tree in an archive, made once beside the targets."""
    base = os.environ["RVFSD_BENCH_SOURCE"]
    if not os.path.exists(f"{base}/tree.tar"):
        os.makedirs(f"{base}/repository")
        for number in range(3000):
            directory = f"{base}/repository/d{number % 60}"
            os.makedirs(directory, exist_ok=True)
            with open(f"{directory}/file{number}.c", "w") as file:
                file.write(f"line of {number}\n" * (50 + number % 300))
        for words in (["init", "-q"], ["add", "-A"], ["-c", "user.name=a", "-c", "user.email=a@b", "commit", "-q", "-m", "all"]):
            quietly("git", "-C", f"{base}/repository", *words)
        quietly("tar", "-C", f"{base}/repository", "--exclude=./.git", "-cf", f"{base}/tree.tar", ".")
    return base


@workload("s", "low")
def git_clone(root):
    base = source_tree()
    return seconds_of(lambda: quietly("git", "clone", "-q", "--no-hardlinks", f"{base}/repository", f"{root}/clone"))


@workload("s", "low")
def git_status(root):
    quietly("git", "-C", f"{root}/clone", "status")
    return statistics.median(seconds_of(lambda: quietly("git", "-C", f"{root}/clone", "status")) for _ in range(5))


@workload("s", "low")
def tar_out(root):
    base = source_tree()
    os.mkdir(f"{root}/tree")
    return seconds_of(lambda: quietly("tar", "-C", f"{root}/tree", "--no-same-owner", "--no-same-permissions", "-xf", f"{base}/tree.tar"))


@workload("s", "low")
def rm_r(root):
    return seconds_of(lambda: quietly("rm", "-r", f"{root}/tree"))


@workload("s", "low")
def sqlite(root):
    def fill():
        base = sqlite3.connect(f"{root}/base", isolation_level=None)
        base.execute("create table t (a, b)")
        for begin in range(1000):
            base.execute("begin")
            base.executemany("insert into t values (?, ?)", [(begin, "x" * 100)] * 100)
            base.execute("commit")
        base.close()
    return seconds_of(fill)


@workload("MB/s")
def dbench(root):
    os.mkdir(f"{root}/dbench")
    words = ["dbench", "-t", "10", "-c", "/usr/share/dbench/client.txt", "-D", f"{root}/dbench", "2"]
    told = subprocess.run(words, check=True, capture_output=True, text=True).stdout
    shutil.rmtree(f"{root}/dbench")
    return float(re.search(r"^Throughput ([\d.]+)", told, re.M).group(1))


@workload("k/s")
def list_names(root):  # the last two, for passthrough_ll has no descriptors left after them
    below = f"{os.path.dirname(root)}/plain/wide"  # made there: nobody has seen them
    os.mkdir(below)
    for number in range(ENTRIES):
        os.close(os.open(f"{below}/entry-{number:06}", os.O_CREAT, 0o644))
    time.sleep(1.1)
    return ENTRIES / seconds_of(lambda: os.listdir(f"{root}/wide")) / 1000


@workload("k/s")
def list_stat(root):
    time.sleep(1.1)
    names = lambda: [entry.stat(follow_symlinks=False) for entry in os.scandir(f"{root}/wide")]  # as they come, like ls -l
    return ENTRIES / seconds_of(names) / 1000


def ticks(process):
    with open(f"/proc/{process}/stat") as file:
        fields = file.read().rpartition(")")[2].split()
    return int(fields[11]) + int(fields[12])


def run(root, target, round_, server, *wanted):
    if unknown := set(wanted) - set(WORKLOADS):
        sys.exit(f"no such workload: {' '.join(sorted(unknown))}; there are {' '.join(WORKLOADS)}")
    os.environ.setdefault("RVFSD_BENCH_SOURCE", os.path.join(os.path.dirname(root), "source"))
    needs = lambda name: "fio" if name.startswith(("seq_", "rand_")) else "dbench" if name == "dbench" else "python3"
    for program in ("fio", "dbench"):
        if not shutil.which(program):
            print(f"NOT MEASURED: what {program} does", file=sys.stderr)
    for name, (function, unit, better) in WORKLOADS.items():
        if (wanted and name not in wanted) or not shutil.which(needs(name)) or (target == LOCAL and name != "sqlite"):
            continue
        before = ticks(server) if server != "0" else 0
        try:
            value = function(root)
        except (OSError, subprocess.CalledProcessError, sqlite3.Error) as error:
            print(f"FAILED: {name} on {target}: {error}", file=sys.stderr)
            continue
        used = ticks(server) - before if server != "0" else 0
        print(json.dumps({"workload": name, "unit": unit, "better": better, "target": target, "round": round_, "value": value,
                          "server_ticks": used}), flush=True)


def table(results):
    rows = [json.loads(line) for line in open(results)]
    values = {(row["workload"], row["target"], row["round"]): row["value"] for row in rows}
    targets = [target for target in dict.fromkeys(row["target"] for row in rows) if target != LOCAL]
    rounds = sorted({row["round"] for row in rows})
    others = [target for target in targets if target not in (*OURS, "directory")]
    pairs = [(own, other) for own in OURS if own in targets for other in others + ["directory"] * (own == "rvfsd")]

    def ratio(name, one, other):
        low = WORKLOADS[name][2] == "low"
        both = [(values.get((name, one, each)), values.get((name, other, each))) for each in rounds]
        every = [(b / a if low else a / b) for a, b in both if a and b]
        return statistics.median(every) if every else None

    shown = lambda figure, form="{:.2f}": "-" if figure is None else form.format(figure)
    print("| workload | unit | " + " | ".join(targets) + " | " + " | ".join(f"{own} / {other}" for own, other in pairs) + " |")
    print("|---|---|" + "---|" * (len(targets) + len(pairs)))
    names = [name for name in WORKLOADS if any(row["workload"] == name for row in rows)]
    for name in names:
        medians = [statistics.median([values[key] for key in values if key[:2] == (name, target)] or [0]) for target in targets]
        ratios = [ratio(name, own, other) for own, other in pairs]
        print(f"| {name} | {WORKLOADS[name][1]} | " + " | ".join(f"{each:,.3g}" if each < 1000 else f"{each:,.0f}" for each in medians) +
              " | " + " | ".join(map(shown, ratios)) + " |")
    base = next((each for each in ("passthrough_ll", "bindfs") if each in others), "directory")
    print(f"\nSpeed beside {base}, which is the bar of 20:\n")
    for name in names:
        figure = ratio(name, "rvfsd", base)
        print(f"    {name:<16} {'█' * min(60, round(20 * (figure or 0))):<60} {shown(figure)}")
    if local := ratio("sqlite", LOCAL, base):
        print(f"\nsqlite with its locks in the kernel too (local_lock=all), beside {base}: {shown(local)}")
    used = collections.defaultdict(int)
    for row in rows:
        used[row["target"], row["workload"]] += row["server_ticks"]
    if used["passthrough_ll", "rand_read_1"]:
        beside = [f"{own} {used[own, 'rand_read_1'] / used['passthrough_ll', 'rand_read_1']:.2f}" for own in OURS if own in targets]
        print(f"\nThe server's processor time for a random read, beside passthrough_ll: {', '.join(beside)}")


if __name__ == "__main__":
    {"run": run, "table": table}[sys.argv[1]](*sys.argv[2:])
