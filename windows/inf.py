"""Reads an INF file and the rules that a primitive driver's must hold."""
import re

# What may stand in each section, by lower-case names; None: lines of any form. A directive that is not here is refused:
# primitive drivers may not delete files, touch other keys or run installers.
DIRECTIVES = {
    "version": {"signature", "class", "classguid", "provider", "driverver", "catalogfile", "pnplockdown"},
    "sourcedisksnames": None,
    "sourcedisksfiles": None,
    "destinationdirs": None,
    "strings": None,
    "defaultinstall.ntamd64": {"optiondesc", "copyfiles"},
    "defaultinstall.ntamd64.services": {"addservice"},
    "defaultuninstall.ntamd64": {"legacyuninstall"},
    "defaultuninstall.ntamd64.services": {"delservice"},
}
SERVICE_DIRECTIVES = {"displayname", "description", "servicetype", "starttype", "errorcontrol", "servicebinary",
                      "loadordergroup", "dependencies", "addreg"}
CLASSES = {"system": "{4d36e97d-e325-11ce-bfc1-08002be10318}"}
# What makes a driver that registers with the multiple UNC provider start like one.
SERVICE = {"servicetype": "2", "starttype": "1", "errorcontrol": "1", "servicebinary": "%13%\\RVFSD.sys",
           "loadordergroup": "Network", "dependencies": "Mup"}
FLAGS_DWORD_KEEP = 0x00010003
KEEP_START_TYPE = "0x00000010"


def split(text, separator):
    """Parts of text between separators that stand outside quotes, blanks around them removed."""
    parts, quoted = [""], False
    for character in text:
        quoted ^= character == '"'
        if character == separator and not quoted:
            parts.append("")
        else:
            parts[-1] += character
    return [part.strip() for part in parts]


def unquoted(text):
    return text[1:-1].replace('""', '"') if len(text) >= 2 and text[0] == text[-1] == '"' else text


class Inf:
    """Sections by lower-case name: lists of (key or None, [fields]), strings not yet put in."""

    def __init__(self, text, report):
        self.report, self.sections, self.strings, self.used = report, {}, {}, set()
        section = None
        for line in re.sub(r"\\\r?\n", "", text).splitlines():
            line = split(line, ";")[0]
            if header := re.fullmatch(r"\[(.+)\]", line):
                name = header[1].lower()
                if name in self.sections:
                    report.fault(f"INF: section [{name}] stands there twice")
                section = self.sections.setdefault(name, [])
            elif line and section is None:
                report.fault(f"INF: a line before the first section: {line}")
            elif line:
                parts = split(line, "=")
                key = parts[0].lower() if len(parts) > 1 else None
                section.append((key, split("=".join(parts[1:] if key is not None else parts), ",")))
        for key, fields in self.sections.get("strings", []):
            self.strings[key] = unquoted(fields[0])

    def text(self, field):
        """A field without quotes, its %string% put in; %number% is a folder and stays."""
        def put(found):
            name = found[1].lower()
            if name.isdigit():
                return found[0]
            self.used.add(name)
            if name not in self.strings:
                self.report.fault(f"INF: %{found[1]}% is not in [Strings]")
            return self.strings.get(name, "")

        return re.sub(r"%([^%]+)%", put, unquoted(field))

    def all(self, section, key):
        """Every field of every line with that key."""
        return [self.text(f) for k, fields in self.sections.get(section, []) if k == key for f in fields]

    def one(self, section, key):
        """The one value of a key, commas and all; None with a fault when it is not there once."""
        found = [fields for k, fields in self.sections.get(section, []) if k == key]
        if len(found) != 1:
            self.report.fault(f"INF: {key} stands {len(found)} times in [{section}]")
            return None
        return ",".join(self.text(field) for field in found[0])

    def expect(self, section, wanted):
        for key, value in wanted.items():
            found = self.one(section, key)
            if found is not None and found.lower() != value.lower():
                self.report.fault(f"INF: {key} in [{section}] is {found}, wanted {value}")


def check_inf(text, version, date, names, values, files, report):
    """Compares an INF with the rules, the project's version, the commit's date (mm/dd/yyyy), the driver's names and its
    values of the service key ({name: default}), and the files of the package."""
    faults = report.faults
    inf = Inf(text, report)
    service = names.service_key.split("\\")[-1]
    check_version(inf, version, date)
    copies = check_files(inf, files)
    section = check_install(inf, service)
    registry = check_service(inf, section, values)
    check_uninstall(inf, service, names.unloads)
    check_sections(inf, {section: SERVICE_DIRECTIVES, **{name: None for name in copies + registry}})
    for name in sorted(set(inf.strings) - inf.used):
        report.fault(f"INF: the string {name} is not used")
    if report.faults == faults:
        report.say(f"INF: file system driver {service}, system start, group Network, {len(values)} values")


def check_version(inf, version, date):
    inf.expect("version", {"signature": "$WINDOWS NT$", "driverver": f"{date},{version}", "catalogfile": "RVFSD.cat",
                           "pnplockdown": "1"})
    name, guid = inf.one("version", "class"), inf.one("version", "classguid")
    if CLASSES.get((name or "").lower()) != (guid or "").lower():
        inf.report.fault(f"INF: class {name} with {guid} is not one for this driver")
    provider = inf.one("version", "provider")
    if not provider or "microsoft" in provider.lower():
        inf.report.fault(f"INF: provider {provider}")


def check_files(inf, files):
    """Everything that is copied lies in the package, is listed as a source and goes to the driver store. Returns the
    sections of files."""
    copies = [name.lower() for name in inf.all("defaultinstall.ntamd64", "copyfiles")]
    copied = {inf.text(fields[0]) for name in copies for _, fields in inf.sections.get(name, [])}
    sources = {inf.text(key or fields[0]) for key, fields in inf.sections.get("sourcedisksfiles", [])}
    if copied != {"RVFSD.sys"} or {name.lower() for name in sources} != {"rvfsd.sys"}:
        inf.report.fault(f"INF: copies {sorted(copied)} from sources {sorted(sources)}; wanted RVFSD.sys alone")
    for name in copied - set(files):
        inf.report.fault(f"INF: copies {name}, which is not in the package")
    for name in ["defaultdestdir", *copies]:
        inf.expect("destinationdirs", {name: "13"})
    for _, fields in inf.sections.get("sourcedisksnames", []):
        inf.text(fields[0])
    return copies


def check_install(inf, service):
    """The services section adds the driver's service, which is named after its key. Returns the service's section."""
    if not inf.one("defaultinstall.ntamd64", "optiondesc"):
        inf.report.fault("INF: no description of the installation")
    added = inf.all("defaultinstall.ntamd64.services", "addservice")
    if len(added) != 3 or added[0] != service:
        inf.report.fault(f"INF: AddService = {','.join(added)}; the driver reads the key of the service {service}")
    elif added[1] != KEEP_START_TYPE:
        inf.report.fault(f"INF: AddService = {','.join(added)}; flags other than {KEEP_START_TYPE}: an update would "
                         "not keep the start type")
    return added[2].lower() if len(added) == 3 else ""


def check_service(inf, section, values):
    """Returns the registry sections of the service, which hold the driver's values and nothing else."""
    inf.expect(section, SERVICE)
    for key in ("displayname", "description"):
        if not inf.one(section, key):
            inf.report.fault(f"INF: the service has no {key}")
    registry = [name.lower() for name in inf.all(section, "addreg")]
    written = {}
    for key, fields in (line for name in registry for line in inf.sections.get(name, [])):
        fields = [inf.text(field) for field in fields]
        if key is not None or len(fields) != 5 or fields[0] != "HKR" or fields[1]:
            inf.report.fault(f"INF: a registry line that is not of the service key: {','.join(fields)}")
            continue
        try:
            flags, written[fields[2]] = int(fields[3], 0), int(fields[4], 0)
        except ValueError:
            flags = -1
        if flags != FLAGS_DWORD_KEEP:
            inf.report.fault(f"INF: flags of {fields[2]} are {fields[3]}, wanted {FLAGS_DWORD_KEEP:#x}")
    for name in sorted(set(written) - set(values)):
        inf.report.fault(f"INF: writes {name}, which the driver does not read")
    for name, default in values.items():
        if name not in written:
            inf.report.fault(f"INF: does not write {name}, which the driver reads")
        elif written[name] != default:
            inf.report.fault(f"INF: writes {name} = {written[name]}, the driver's default is {default}")
    return registry


def check_uninstall(inf, service, unloads):
    inf.expect("defaultuninstall.ntamd64", {"legacyuninstall": "1"})
    removed = inf.all("defaultuninstall.ntamd64.services", "delservice")
    # 0x200 stops a service before it is deleted: one that cannot be stopped would not be deleted.
    wanted = [service, "0x200"] if unloads else [service]
    if removed != wanted:
        inf.report.fault(f"INF: DelService = {','.join(removed)}, wanted {','.join(wanted)}")


def check_sections(inf, referenced):
    """Every section is known or referred to, and holds known directives."""
    known = {**DIRECTIVES, **referenced}
    for name in sorted(set(known) - set(inf.sections)):
        inf.report.fault(f"INF: there is no section [{name}]")
    for name, lines in inf.sections.items():
        if name not in known:
            inf.report.fault(f"INF: section [{name}] is not one of a primitive x64 driver's, or nothing refers to it")
        elif known[name] is not None:
            for key in sorted({str(key) for key, _ in lines} - known[name]):
                inf.report.fault(f"INF: {key} may not stand in [{name}]")
