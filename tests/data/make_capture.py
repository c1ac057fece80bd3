#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes records.capture beside itself: raw records as the kernel's programs write them, ordinary and
odd, each behind its length in 4 bytes. The same on every run. A changed capture wants new golden files:
run dump_golden_test with TESUBPF_UPDATE_GOLDEN=1 and read what changed.

Process ids are above every kernel's limit, so that nothing of them is found in /proc.
"""
import pathlib
import random
import struct

INIT, RSS, CREATE, EXIT, DMABUF, CGROUP, FD = range(7)
PROCESS, THREAD = 1, 2
FIRST_PID = 5_000_000
SECOND = 1_000_000_000
INT32_MIN, INT32_MAX = -(2**31), 2**31 - 1
INT64_MIN, INT64_MAX = -(2**63), 2**63 - 1
# Seconds since the epoch, of no test's time.
THEN = 1_600_000_000

records = []


def record(kind, time, layout, *fields):
    records.append(struct.pack("<IIq" + layout, kind, 0, time, *fields))


def init(time, pid, ppid, uid, threads, comm, sizes, start):
    record(INIT, time, "iiii16sqqqqq", pid, ppid, uid, threads, comm, *sizes, start)


def rss(time, pid, member, size):
    record(RSS, time, "iiq", pid, member, size)


def create(time, ppid, pid, uid, comm, kind=PROCESS):
    record(CREATE, time, "iii16si", ppid, pid, uid, comm, kind)


def end(time, pid, comm, kind=PROCESS):
    record(EXIT, time, "i16si", pid, comm, kind)


def ordinary_life(rng):
    """What a device does: a boot's processes, their memory, threads, forks and exits."""
    alive = list(range(FIRST_PID, FIRST_PID + 40))
    time = 60 * SECOND
    for pid in alive:
        sizes = [rng.randrange(0, 1 << 28) for _ in range(4)]
        init(time, pid, FIRST_PID, 10_000 + pid % 100, rng.randrange(1, 60), b"app.%d" % pid,
             sizes, THEN + pid % 1000)
    for step in range(600):
        time += rng.randrange(1, SECOND // 10)
        pid = rng.choice(alive)
        kind = rng.random()
        if kind < 0.7:
            rss(time, pid, rng.randrange(4), rng.randrange(0, 1 << 29) & ~4095)
        elif kind < 0.85:
            create(time, pid, pid, 1000, b"worker", THREAD)
        elif kind < 0.95:
            child = FIRST_PID + 1000 + step
            create(time, pid, child, 1000, b"child.%d" % child)
            alive.append(child)
        elif len(alive) > 10:
            alive.remove(pid)
            end(time, pid, b"app.%d" % pid)
    return time


def odd_values(time):
    """What no table should stumble over."""
    pid = FIRST_PID + 100_000
    init(-5, pid, -1, -1, -1, b"negative", (-1, -1024, -1025, INT64_MIN), -1)
    init(0, pid + 1, 0, 0, INT32_MIN, b"", (0, 0, 0, 0), 0)
    init(time, pid + 2, pid, 0, INT32_MAX, b"sixteen-letters!",
         (INT64_MAX, INT64_MAX, INT64_MAX, INT64_MAX), INT64_MAX)
    init(time, pid + 3, 2, 0, 1, b"percent %s %n \\ ", (1023, 1024, 1025, 2047), INT64_MIN)
    init(time, -7, 1, 0, 1, b"\xc3\xa4\xff high bits", (1, 0, 0, 0), THEN)
    init(time, INT32_MAX, INT32_MIN, INT32_MIN, 1, b"end of ids", (1 << 40, 1 << 41, 0, 0), THEN)
    # Totals that wrap, around others that do not.
    for i in range(6):
        init(time, pid + 10 + i, 1, 0, 1, b"wraps.%d" % i,
             ((INT64_MAX // 6) * i if i % 2 else i, 1 << 62, 0, 0), THEN + i)
    # An overwritten task, and one that is made while it is there.
    init(time, pid + 3, 1, 1, 2, b"again", (4096, 0, 0, 0), THEN)
    create(time, 1, pid + 3, 5, b"is there already")
    # Names that are looked up in /proc again, where they are not.
    create(time, 0, pid + 20, 0, b"no parent")
    create(time, pid, pid + 21, 0, b"main")
    create(time, pid, pid + 22, 0, b"re-initialized>")
    for member in (0, 1, 2, 3, 4, -1, INT32_MIN, INT32_MAX):
        for size in (0, 1, 4096, -1, INT64_MIN, INT64_MAX):
            rss(time + 4 * SECOND, pid + 21, member, size)
            rss(time + 4 * SECOND, pid + 22, member, size)
    rss(INT64_MAX, pid + 2, 1, 0)
    rss(INT64_MIN, pid + 2, 1, 1 << 50)
    rss(time, pid + 999, 0, 4096)  # nobody
    for kind in (0, 3, -1, INT32_MAX):
        create(time, 1, pid + 30, 0, b"no such kind", kind)
        end(time, pid + 3, b"no such kind", kind)
    end(time, pid + 998, b"nobody")
    for _ in range(30):
        create(time + 5 * SECOND, pid + 20, pid + 20, 0, b"thread", THREAD)
    for _ in range(45):
        end(time + 6 * SECOND, pid + 20, b"thread", THREAD)
    # Types without a handler.
    record(DMABUF, time, "iiq", pid, 0, 1 << 33)
    record(CGROUP, time, "iiiiQ16s64s", pid, 1, 2, 0, 2**64 - 1, b"moved", b"/" * 64)
    record(FD, time, "iiqq16s", pid, 0, 64, 8, b"files")


def odd_lengths(time):
    """Short records, whose rest counts as 0, and long ones."""
    pid = FIRST_PID + 200_000
    whole = []
    mark = len(records)
    init(time, pid, 1, 2, 3, b"cut short", (4096, 8192, 12288, 16384), THEN)
    rss(time + 9 * SECOND, pid, 1, 1 << 30)
    create(time, 1, pid + 1, 0, b"short fork")
    end(time, pid + 2, b"short exit")
    whole = records[mark:]
    del records[mark:]
    for data in whole:
        for length in range(4, len(data), 5):
            records.append(data[:length])
        records.append(data)
        records.append(data + b"\xee" * 12)


ordinary_end = ordinary_life(random.Random(4))
odd_values(ordinary_end)
odd_lengths(ordinary_end)
output = pathlib.Path(__file__).parent / "records.capture"
output.write_bytes(b"".join(struct.pack("<I", len(data)) + data for data in records))
print(f"{len(records)} records, {output.stat().st_size} bytes")
