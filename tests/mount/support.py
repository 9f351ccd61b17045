"""For the scripts in Python: the mount that a test runs on, and how a test says what it expects."""
import contextlib
import errno
import os
import stat
import subprocess
import sys
import time

WORK = sys.argv[1]
FILES = os.path.join(WORK, "files")
MOUNT = os.path.join(WORK, "mnt")
LONG = bool(os.environ.get("RVFSD_LONG"))
PROGRAM = os.environ["RVFSD_PROGRAM"]


def path(name):
    return os.path.join(MOUNT, name)


def start(options="", *given, foreground=False):
    words = [os.path.join(WORK, "mount"), options + "," * bool(options) + "foreground" * foreground, *given]
    return await_mount(words) if foreground else subprocess.run(words, check=True)


def await_mount(words):
    server = subprocess.Popen(words)
    while not os.path.ismount(MOUNT) and server.poll() is None:
        time.sleep(0.01)
    assert os.path.ismount(MOUNT), f"not mounted: the server ended with {server.wait()}"
    return server


def stop(tries=1):
    """Unmounts; with more tries again every tenth of a second."""
    for last in range(tries - 1, -1, -1):
        if subprocess.run(["fusermount3", "-u", MOUNT], check=last == 0).returncode == 0:
            return
        time.sleep(0.1)


@contextlib.contextmanager
def serving(*words):
    """The exit code of the server is 0: nothing was left behind."""
    server = await_mount(words)
    try:
        yield server
    finally:
        if os.path.ismount(MOUNT):
            stop()
        code = server.wait(30)
    assert code == 0, f"the server ended with {code}"


def mounted(options="", *given):
    return serving(os.path.join(WORK, "mount"), options + "," * bool(options) + "foreground", *given)


@contextlib.contextmanager
def refused(*numbers):
    try:
        yield
    except OSError as error:
        assert error.errno in numbers, f"{errno.errorcode[error.errno]} instead of {[errno.errorcode[n] for n in numbers]}"
    else:
        raise AssertionError(f"accepted instead of {[errno.errorcode[n] for n in numbers]}")


def write(name, data=b"x", mode="wb"):
    with open(path(name), mode) as file:
        file.write(data)


def read(name):
    with open(path(name), "rb") as file:
        return file.read()


@contextlib.contextmanager
def device_for_everyone():
    """/dev/fuse as udev makes it; where nothing did, only root may open it."""
    now = os.stat("/dev/fuse")
    if now.st_mode & 0o666 == 0o666:
        yield
        return
    node = os.path.join(WORK, "fuse")
    os.mknod(node, stat.S_IFCHR | 0o600, now.st_rdev)
    os.chmod(node, 0o666)
    subprocess.run(["mount", "--bind", node, "/dev/fuse"], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", "--lazy", "/dev/fuse"], check=True)  # the server may still be ending
        os.unlink(node)


def run_all(tests):
    """Each test in a directory that it leaves empty."""
    failed = 0
    for test in tests:
        begun = time.time()
        try:
            test()
            subprocess.run(["rm", "-rf", *(path(name) for name in os.listdir(MOUNT))], check=True)
            until = time.time() + 2  # what was closed last, the server is told a moment later
            while (left := os.listdir(FILES)) and time.time() < until:
                time.sleep(0.01)
            assert not left, f"left at the server: {left}"
            print(f"ok {test.__name__} ({time.time() - begun:.2f} s)", flush=True)
        except Exception as error:  # the others are still worth running
            import traceback

            traceback.print_exc()
            print(f"NOT OK {test.__name__}: {error}", flush=True)
            failed += 1
            subprocess.run(f"rm -rf {MOUNT}/* {FILES}/*", shell=True)
    return failed
