"""For gdb: the driver's image inside the embedded kernel, by function, file and line.

    gdb -x windows/gdb/rvfsd.py --args build/debug/app/rvfsd --image build/image/windows/RVFSD.sys VERB...

Whenever the program maps an image, the symbols of NAME.debug beside NAME.sys are loaded for where it lies, and taken
away when it is unmapped. A breakpoint by name may be set before the program runs: it stops in the driver that runs, the
image or the one linked in. Backtraces go through the image's frames by its own unwind tables, since the image has no
other ones.
"""
import bisect
import os
import struct

import gdb
import gdb.unwinder

HOOK, BASE, FILE = "EmbeddedImageChanged", "EmbeddedImageBase", "EmbeddedImageFile"
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
DIR_EXCEPTION, DIR_DEBUG, DEBUG_CODEVIEW = 3, 6, 2
REGISTERS = ["rax", "rcx", "rdx", "rbx", "rsp", "rbp", "rsi", "rdi"] + [f"r{i}" for i in range(8, 16)]
KEPT = ("rip", "rsp", "rbx", "rbp", "rsi", "rdi", "r12", "r13", "r14", "r15")
# By operation: how many further 16-bit places an unwind code takes.
FURTHER = {0: 0, 1: 1, 2: 0, 3: 0, 4: 1, 5: 2, 8: 1, 9: 2, 10: 0}
CHAINED = 4


class Twin:
    """NAME.debug: what of its headers and tables is needed here."""

    def __init__(self, path):
        self.path = path
        with open(path, "rb") as file:
            self.data = file.read()
        pe = self.word("<I", 0x3C)
        optional = pe + 24
        self.linked_base = self.word("<Q", optional + 24)
        self.directories = [struct.unpack_from("<II", self.data, optional + 112 + 8 * i) for i in range(16)]
        table = optional + self.word("<H", pe + 20)
        self.sections = [struct.unpack_from("<4I", self.data, table + 40 * i + 8)
                         for i in range(self.word("<H", pe + 6))]
        rva, size = self.directories[DIR_EXCEPTION]
        self.functions = sorted(struct.unpack_from("<3I", self.data, self.offset(rva) + 12 * i)
                                for i in range(size // 12))
        self.starts = [function[0] for function in self.functions]
        self.size = max(rva + size for size, rva, _, _ in self.sections)

    def word(self, form, at):
        return struct.unpack_from(form, self.data, at)[0]

    def offset(self, rva):
        for size, start, raw_size, raw_at in self.sections:
            if start <= rva < start + max(size, raw_size):
                return rva - start + raw_at
        raise ValueError(f"{self.path}: address {rva:#x} lies in no section")

    def build(self):
        """Where the identifier of the build lies in memory, and its bytes."""
        rva, size = self.directories[DIR_DEBUG]
        at = self.offset(rva)
        for i in range(size // 28):
            kind, length, place = struct.unpack_from("<3I", self.data, at + 28 * i + 12)
            if kind == DEBUG_CODEVIEW:
                return place, self.data[self.offset(place) : self.offset(place) + length]
        return None

    def function(self, rva):
        index = bisect.bisect_right(self.starts, rva) - 1
        return self.functions[index] if index >= 0 and rva < self.functions[index][1] else None


class Image:
    """An image that is mapped now."""

    def __init__(self, base, twin):
        self.base, self.twin = base, twin

    def contains(self, address):
        return self.base <= address < self.base + self.twin.size


mapped = None


def say(text):
    gdb.write(f"rvfsd.py: {text}\n")


def memory(address, length):
    return bytes(gdb.selected_inferior().read_memory(address, length))


def forget():
    global mapped
    if mapped is not None:
        gone, mapped = mapped, None
        try:
            gdb.execute(f"remove-symbol-file -a {gone.base + gone.twin.functions[0][0]:#x}", to_string=True)
        except gdb.error as error:
            say(f"the symbols of {gone.twin.path} stay: {error}")


def look():
    """Brings the symbols in line with what the program has mapped."""
    global mapped
    forget()
    base = int(gdb.parse_and_eval(f"(unsigned long){BASE}"))
    if base == 0:
        return
    file = gdb.parse_and_eval(FILE).string()
    path = os.path.splitext(file)[0] + ".debug"
    try:
        twin = Twin(path)
        place, build = twin.build()
        if memory(base + place, len(build)) != build:
            say(f"{path} is of another build than {file}: no symbols")
            return
        gdb.execute(f"add-symbol-file {path} -o {base - twin.linked_base:#x}", to_string=True)
    except (OSError, ValueError, TypeError, IndexError, struct.error, gdb.error) as error:
        say(f"no symbols for {file}: {error}")
        return
    mapped = Image(base, twin)
    say(f"{file} at {base:#x}, symbols from {os.path.basename(path)}")


class Hook(gdb.Breakpoint):
    """Goes on at once; never shown."""

    def __init__(self):
        super().__init__(HOOK, internal=True)
        self.silent = True

    def stop(self):
        look()
        return False


class FrameId:
    def __init__(self, sp, pc):
        self.sp, self.pc = sp, pc


class ImageUnwinder(gdb.unwinder.Unwinder):
    """From a frame of the image to its caller."""

    def __init__(self):
        super().__init__("rvfsd-image")

    def __call__(self, pending):
        pc = int(pending.read_register("rip")) & (2**64 - 1)
        if mapped is None or not mapped.contains(pc):
            return None
        registers = {name: int(pending.read_register(name)) & (2**64 - 1) for name in KEPT}
        function = mapped.twin.function(pc - mapped.base)
        start = mapped.base + function[0] if function else pc
        try:
            if function and not leave(registers, pc):
                undo(registers, function, pc - mapped.base)
            caller = pop(registers)
        except (gdb.MemoryError, ValueError, KeyError, struct.error):
            return None
        registers["rip"] = caller
        kind = pending.read_register("rip").type
        info = pending.create_unwind_info(FrameId(*(gdb.Value(n).cast(kind) for n in (registers["rsp"], start))))
        for name in KEPT:
            info.add_saved_register(name, gdb.Value(registers[name]).cast(pending.read_register(name).type))
        return info


def pop(registers):
    value = struct.unpack("<Q", memory(registers["rsp"], 8))[0]
    registers["rsp"] += 8
    return value


def leave(registers, pc):
    """Goes through the end of a function if pc lies in it: add or lea to rsp, pops, ret or a jump away."""
    code = memory(pc, 24)
    ahead = dict(registers)
    at = 0
    if code[0:3] == b"\x48\x83\xc4":
        ahead["rsp"] += struct.unpack_from("<b", code, 3)[0]
        at = 4
    elif code[0:3] == b"\x48\x81\xc4":
        ahead["rsp"] += struct.unpack_from("<i", code, 3)[0]
        at = 7
    elif code[0:3] == b"\x48\x8d\x65":
        ahead["rsp"] = ahead["rbp"] + struct.unpack_from("<b", code, 3)[0]
        at = 4
    while True:
        prefix = 8 if code[at] == 0x41 else 0
        opcode = code[at + (1 if prefix else 0)]
        if opcode & 0xF8 != 0x58:
            break
        ahead[REGISTERS[prefix + (opcode & 7)]] = pop(ahead)
        at += 2 if prefix else 1
    # A jump counts only behind a change of the stack: inside a function there are others.
    if code[at] == 0xC3 or (at > 0 and code[at] in (0xE9, 0xEB)):
        registers.update(ahead)
        return True
    return False


def undo(registers, function, rva):
    """Takes back what the function's prologue had done where rva stands."""
    twin = mapped.twin
    begin, info = function[0], function[2]
    for _ in range(32):
        at = twin.offset(info)
        flags, _, count, frame = struct.unpack_from("<4B", twin.data, at)
        codes = struct.unpack_from(f"<{count}H", twin.data, at + 4)
        frame_base = registers[REGISTERS[frame & 15]] - (frame >> 4) * 16 if frame & 15 else registers["rsp"]
        index = 0
        while index < count:
            done, operation, operand = codes[index] & 255, codes[index] >> 8 & 15, codes[index] >> 12
            further = FURTHER[operation] + (operation == 1 and operand == 1)
            if done <= rva - begin:
                undo_one(registers, operation, operand, codes[index + 1 : index + 1 + further], frame_base)
            index += 1 + further
        if not flags >> 3 & CHAINED:
            return
        begin, _, info = struct.unpack_from("<3I", twin.data, at + 4 + (count + 1) // 2 * 4)
        rva = begin + 0xFF  # of the function that this is a part of, the prologue is over
    raise ValueError("chained without end")


def undo_one(registers, operation, operand, places, frame_base):
    wide = places[0] | places[1] << 16 if len(places) > 1 else 0
    if operation == 0:
        registers[REGISTERS[operand]] = pop(registers)
    elif operation == 1:
        registers["rsp"] += wide if operand else places[0] * 8
    elif operation == 2:
        registers["rsp"] += operand * 8 + 8
    elif operation == 3:
        registers["rsp"] = frame_base
    elif operation in (4, 5):
        offset = wide if operation == 5 else places[0] * 8
        registers[REGISTERS[operand]] = struct.unpack("<Q", memory(frame_base + offset, 8))[0]
    elif operation == 10:
        raise ValueError("an interrupt's frame")


gdb.execute("set breakpoint pending on")
gdb.execute(f"directory {ROOT}")
gdb.unwinder.register_unwinder(None, ImageUnwinder(), replace=True)
gdb.events.exited.connect(lambda event: forget())
Hook()
