"""What package, check-package and its test know in common: the project's version and commit, what the sources of
driver/ read and name, the identities of an image and a PDB. What cannot be used raises BadInput with one clear line."""
import collections
import datetime
import glob
import hashlib
import importlib.machinery
import importlib.util
import os
import re
import struct
import subprocess
import sys
import tomllib
import zipfile

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
PAGES = ["README.txt", "INSTALL.txt", "VALUES.txt", "MESSAGES.txt", "CRASH.txt", "LIMITS.txt"]
FILES = sorted(["RVFSD.inf", "RVFSD.pdb", "RVFSD.reg", "RVFSD.sys", "SHA256SUMS", *PAGES])


class BadInput(Exception):
    """Input that cannot be used at all: its text is the line for the user, the exit code is 2."""


def load_script(name):
    """Loads one of the Python programs beside this file as a module."""
    sys.dont_write_bytecode = True
    loader = importlib.machinery.SourceFileLoader(name.replace("-", "_"), os.path.join(HERE, name))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


CHECK_IMAGE = load_script("check-image")
project_version = CHECK_IMAGE.project_version


def folder_name():
    """The package's folder, and its zip's but for the ending."""
    return "RVFSD-" + project_version().removesuffix(".0")


def guarded(name, main):
    """Runs main and turns what it cannot use into one line and exit code 2."""
    try:
        return main()
    except BadInput as error:
        text = str(error)
    except OSError as error:
        text = f"{error.filename}: {error.strerror}" if error.filename else str(error)
    print(f"{name}: {text}", file=sys.stderr)
    return 2


# ---- The files of a package ----------------------------------------------------------------------------------------

LARGEST = 64 << 20  # bytes of one file: a zip may claim anything


def read_zip(path):
    """The entries of a zip and what each holds. What stops the reading, whichever decompressor it comes from, is told
    with the names of the zip and the entry."""
    with open(path, "rb") as file:
        where = path
        try:
            archive = zipfile.ZipFile(file)
            entries, data = archive.infolist(), []
            for entry in entries:
                where = f"{path}: {entry.filename!r}"
                if entry.file_size > LARGEST:
                    raise ValueError("too large")
                data.append(archive.read(entry))
        except Exception as error:
            raise BadInput(f"{where}: not a usable zip: {error or type(error).__name__}") from None
    return entries, data


def read_sums(files):
    """The sums in SHA256SUMS, by the names of the files."""
    lines = files["SHA256SUMS"].decode("ascii", "replace").splitlines()
    return dict(reversed(line.split("  ", 1)) for line in lines if "  " in line)


def wrong_sums(files):
    """Names of the files, but for SHA256SUMS itself, that have no sum there or another one."""
    sums = read_sums(files)
    return [name for name in sorted(set(files) - {"SHA256SUMS"})
            if sums.get(name) != hashlib.sha256(files[name]).hexdigest()]


# ---- The commit ----------------------------------------------------------------------------------------------------

Commit = collections.namedtuple("Commit", "name time")


def read_commit():
    """The commit of the tree, "with changes" when files differ from it, and its time, which is the package's."""
    def git(*words):
        # The tree may belong to another user than the one who builds.
        command = ["git", "-c", "safe.directory=*", "-C", ROOT, *words]
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.strip()

    try:
        name, seconds = git("log", "-1", "--format=%H %ct").split()
        if git("status", "--porcelain", "--untracked-files=no"):
            name += " with changes"
    except (OSError, subprocess.CalledProcessError):
        raise BadInput(f"{ROOT} is no git work tree: the package has no commit to be dated by") from None
    return Commit(name, datetime.datetime.fromtimestamp(int(seconds), datetime.timezone.utc))


# ---- The table beside this file ------------------------------------------------------------------------------------


def read_table():
    """values.toml: keys by name, the list of values, the list of categories."""
    path = os.path.join(HERE, "values.toml")
    with open(path, "rb") as file:
        try:
            return tomllib.load(file)
        except tomllib.TOMLDecodeError as error:
            raise BadInput(f"{path}: {error}") from None


# ---- What the driver reads -----------------------------------------------------------------------------------------

# Every read of the registry goes through one of these functions; the number of places that call the last two is known,
# so that a read that comes in by another way is noticed.
SWITCH_CALL = re.compile(r'NtFsdReadSwitch\(\s*WTEXT\("([^"]+)"\)\s*,\s*([^()]*?)\s*\)')
SWITCH_USE = re.compile(r"\bNtFsdReadSwitch\(")
SWITCH_DEFINITION = re.compile(r"^inline ULONG NtFsdReadSwitch\(PCWSTR", re.M)
SERVICE_READ = re.compile(r"\bNtFsdReadServiceValue\(")
QUERY = re.compile(r"\bZwQueryValueKey\(")
NAMED_TEXT = r'\b{}\s*=\s*ConstantString\(\s*WTEXT\("([^"]+)"\)\s*\)'

DriverValue = collections.namedtuple("DriverValue", "key name default")
DriverNames = collections.namedtuple("DriverNames", "service_key device log_file debug_component categories unloads "
                                     "always_printed takes_text")
ALWAYS_PRINT = re.compile(r'\bNtFsdAlwaysPrint\(\s*((?:"(?:[^"\\]|\\.)*"\s*)+)')


class Sources:
    """The sources of driver/ but for its kernel headers, by path relative to the root."""

    def __init__(self, root=ROOT):
        self.text = {}
        for path in sorted(glob.glob(os.path.join(root, "driver", "**", "*"), recursive=True)):
            name = os.path.relpath(path, root)
            if path.endswith((".cpp", ".h")) and not name.startswith("driver/kernel/"):
                with open(path, encoding="utf-8") as file:
                    self.text[name] = file.read()
        if not self.text:
            raise BadInput(f"{root}/driver: no sources")

    def find(self, file, pattern, what):
        found = re.search(pattern, self.text.get(file, ""))
        if not found:
            raise BadInput(f"{file}: {what} is not where this check looks for it")
        return found[1]

    def constant(self, file, name):
        """The value of a UNICODE_STRING constant."""
        return self.find(file, NAMED_TEXT.format(name), name).replace("\\\\", "\\")

    def count(self, pattern):
        """Number of matches by file."""
        return {name: n for name, text in self.text.items() if (n := len(pattern.findall(text)))}


def registry_path(kernel_path):
    """HKEY_LOCAL_MACHINE\\... of \\REGISTRY\\Machine\\..."""
    prefix = "\\registry\\machine\\"
    if not kernel_path.lower().startswith(prefix):
        raise BadInput(f"{kernel_path} does not lie below \\REGISTRY\\Machine")
    return "HKEY_LOCAL_MACHINE\\" + kernel_path[len(prefix) :].rstrip("\\")


def service_values(sources):
    """The values of the service key with the defaults that the driver has for them."""
    # Its own definition and declaration, and the one call, in NtFsdReadSwitch.
    expected = {"driver/frame/configuration.cpp": 1, "driver/frame/configuration.h": 2}
    if (seen := sources.count(SERVICE_READ)) != expected:
        raise BadInput(f"NtFsdReadServiceValue is called where this check does not look: {seen}")
    key = registry_path(sources.constant("driver/frame/configuration.cpp", "SERVICE_KEY"))
    sources.find("driver/frame/configuration.h", r"(ULONG Value = Default;)", "the default of switches")
    values = []
    for file, text in sources.text.items():
        calls = SWITCH_CALL.findall(text)
        if len(calls) != len(SWITCH_USE.findall(text)) - len(SWITCH_DEFINITION.findall(text)):
            raise BadInput(f"{file}: a call of NtFsdReadSwitch that this check cannot read")
        for name, second in calls:
            values.append(DriverValue(key, name, int(second, 0)))
    return values


def driver_values(sources):
    """Every registry value that the driver reads."""
    # The policy of linked connections is no value of a package: it would stand above the system's own.
    expected = {"driver/frame/configuration.cpp": 1, "driver/dir/search.cpp": 1, "driver/mapping/session_links.cpp": 1}
    if (seen := sources.count(QUERY)) != expected:
        raise BadInput(f"ZwQueryValueKey is called where this check does not look: {seen}")
    search = "driver/dir/search.cpp"
    default = sources.find(search, r"\bBOOLEAN g_bLazyClose = (TRUE|FALSE);", "the default of g_bLazyClose")
    lazy_close = DriverValue(registry_path(sources.constant(search, "PARAMETERS_KEY")),
                             sources.constant(search, "LAZY_CLOSE_VALUE"), int(default == "TRUE"))
    return service_values(sources) + [lazy_close]


def driver_names(sources):
    """Names and numbers of the driver that the INF and the pages speak of."""
    masks = re.findall(r"\bTRACE_[A-Z_]+ = (0x[0-9A-Fa-f]+|\d+),", sources.text["driver/frame/diagnostics.h"])
    # 0 is no category, and the highest bit only marks what comes from outside.
    categories = {int(mask, 0) for mask in masks} - {0, 0x80000000}
    component = sources.find("driver/frame/diagnostics.cpp", r"\bDEBUG_COMPONENT = (\d+);", "DEBUG_COMPONENT")
    log_file = sources.constant("driver/frame/log_writer.cpp", "LOG_FILE_NAME").removeprefix("\\??\\")
    entry = "driver/frame/driver_entry.cpp"
    sources.find(entry, r"(FsRtlRegisterUncProviderEx)\(", "the registration as UNC provider")
    unloads = sources.find(entry, r"DriverUnload = (\w+);", "DriverUnload") != "nullptr"
    # The pages say that the prefixes of a line are addresses, whatever their labels promise.
    for label, call in (("TID", "KeGetCurrentThread"), ("PID", "IoGetCurrentProcess")):
        sources.find("driver/frame/diagnostics.cpp",
                     rf'(\[{label} - 0x%I64X\] ",\s+reinterpret_cast<ULONG64>\({call}\(\)\))', f"the prefix {label}")
    return DriverNames(registry_path(sources.constant("driver/frame/configuration.cpp", "SERVICE_KEY")),
                       sources.constant("driver/frame/driver.h", "DEVICE_NAME"), log_file, int(component), categories, unloads,
                       always_printed(sources), takes_text(sources))


def takes_text(sources):
    """Whether anything hands the driver text of other parts of the client: a call beyond declaration and definition."""
    uses = sources.count(re.compile(r"\bNtFsdExternalPrint\("))
    return uses != {"driver/frame/diagnostics.cpp": 1, "driver/frame/diagnostics.h": 1}


def always_printed(sources):
    """The formats of the lines that are printed whatever the values say."""
    formats = []
    for _, text in sorted(sources.text.items()):
        for literals in ALWAYS_PRINT.findall(text):
            parts = re.findall(r'"((?:[^"\\]|\\.)*)"', literals)
            formats.append("".join(parts).removesuffix("\\n").replace('\\"', '"'))
    return formats


# ---- Image and PDB -------------------------------------------------------------------------------------------------

MACHINES = {0x14C: "32-bit x86", 0x1C4: "32-bit ARM", 0xAA64: "ARM64", 0x200: "Itanium"}
SUBSYSTEMS = {2: "a Windows program", 3: "a console program", 10: "an EFI program", 1: "native"}


def read_image(path):
    """The kernel image at path, or BadInput when it is none for x64 Windows."""
    try:
        image = CHECK_IMAGE.Image(path)
        modules = sorted({module.lower() for module, _ in image.imports()} - set(CHECK_IMAGE.MODULES))
    except ValueError as error:
        raise BadInput(f"{path}: {error}") from None
    except struct.error:
        raise BadInput(f"{path}: the image is cut short") from None
    if image.machine != CHECK_IMAGE.MACHINE_AMD64:
        raise BadInput(f"{path}: made for {MACHINES.get(image.machine, hex(image.machine))}, not for x64")
    if image.characteristics & CHECK_IMAGE.FILE_DLL:
        raise BadInput(f"{path}: a DLL, not a driver")
    if image.subsystem != CHECK_IMAGE.SUBSYSTEM_NATIVE:
        raise BadInput(f"{path}: {SUBSYSTEMS.get(image.subsystem, 'subsystem ' + str(image.subsystem))}, not a driver")
    if modules:
        raise BadInput(f"{path}: imports from {', '.join(modules)}, which no kernel loads for a driver")
    return image


def guid_text(raw, age):
    first, second, third = struct.unpack_from("<IHH", raw)
    return f"{first:08X}{second:04X}{third:04X}{raw[8:16].hex().upper()}{age:X}"


def image_identity(path, image):
    """Name of the image's PDB and its identity, as debuggers write it: the GUID's digits and the age."""
    try:
        name, guid, age = image.pdb_identity()
    except (ValueError, struct.error):
        name = None
    if name is None:
        raise BadInput(f"{path}: names no PDB")
    return name, guid_text(guid, age)


def pdb_identity(path):
    """The identity that a PDB has of itself: GUID of its information stream, age of its debug stream."""
    with open(path, "rb") as file:
        data = file.read()
    if not data.startswith(b"Microsoft C/C++ MSF 7.00\r\n\x1aDS\0\0\0"):
        raise BadInput(f"{path}: not a PDB")
    try:
        block, _, _, directory_bytes, _, map_block = struct.unpack_from("<6I", data, 32)
        if block not in (512, 1024, 2048, 4096) or directory_bytes > len(data):
            raise ValueError
        pages = struct.unpack_from(f"<{-(-directory_bytes // block)}I", data, map_block * block)
        directory = b"".join(data[p * block : (p + 1) * block] for p in pages)[:directory_bytes]
        count = struct.unpack_from("<I", directory)[0]
        sizes = [0 if n == 0xFFFFFFFF else n for n in struct.unpack_from(f"<{count}I", directory, 4)]
        at, starts = 4 + 4 * count, []
        for size in sizes[:4]:
            starts.append(struct.unpack_from("<I", directory, at)[0] * block if size else None)
            at += 4 * -(-size // block)
        guid = struct.unpack_from("<16s", data, starts[1] + 12)[0]
        age = struct.unpack_from("<I", data, starts[3] + 8)[0]
    except (struct.error, ValueError, IndexError, TypeError):
        raise BadInput(f"{path}: a broken PDB") from None
    return guid_text(guid, age)


def require_pair(image_path, pdb_path):
    """The identity that an image and its PDB share; BadInput when they are of two builds. Returns (image, identity)."""
    image = read_image(image_path)
    name, wanted = image_identity(image_path, image)
    found = pdb_identity(pdb_path)
    if found != wanted:
        raise BadInput(f"{pdb_path}: the PDB of another build ({found}), {image_path} wants {wanted}")
    return image, name, wanted
