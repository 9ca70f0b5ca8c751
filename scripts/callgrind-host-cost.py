#!/usr/bin/env python3
"""Splits a callgrind dump of kesto-profile into the emulated phone's cost and
the host's. The phone works inside the hosts' usbfs ioctls (and on threads of
its own); everything else is the host: the toolkit loop or the plain program,
the plug-in, libusb and the C library they call. A function both sides call
(memcpy, malloc) is shared out in proportion to what each side's calls into it
cost.

  callgrind-host-cost.py DUMP BYTES PLUGIN_OBJECT [TOP]

Prints one line of key=value figures per megabyte, then (with TOP) the host's
costliest functions by their own instructions."""
import collections
import re
import sys

PHONE = re.compile(r"emuphone::|/emulated-phone/|^ioctl$|g_main|g_thread|umockdev")


def parse(path):
    names = {}
    events = []
    self_cost = collections.defaultdict(lambda: [0, 0])
    edges = collections.defaultdict(lambda: [0, 0, 0])  # (caller, callee) -> calls, Ir, sysCount
    ob = fn = cob = cfn = None
    pending_call = None
    files = {}

    def name(kind, text, table):
        m = re.match(r"\((\d+)\)(?: (.*))?", text)
        if not m:
            return text
        key = (kind, m.group(1))
        if m.group(2) is not None:
            table[key] = m.group(2)
        return table.get(key, text)

    with open(path) as f:
        for raw in f:
            line = raw.rstrip("\n")
            if not line or line.startswith("#"):
                continue
            if line.startswith("events:"):
                events = line.split()[1:]
                continue
            if "=" in line.split(" ")[0]:
                key, _, value = line.partition("=")
                if key == "ob":
                    ob = name("ob", value, names)
                elif key == "cob":
                    cob = name("ob", value, names)
                elif key == "fn":
                    fn = (ob, name("fn", value, names))
                    cob = ob
                elif key == "cfn":
                    cfn = (cob, name("fn", value, names))
                elif key in ("fl", "fi", "fe", "cfi", "cfl"):
                    name("fl", value, files)
                elif key == "calls":
                    pending_call = int(value.split()[0])
                continue
            if not line[0] in "0123456789+-*":
                continue
            parts = line.split()
            costs = [int(x) for x in parts[1:]] + [0, 0]
            ir = costs[0]
            sysc = costs[events.index("sysCount")] if "sysCount" in events else 0
            if pending_call is not None:
                edge = edges[(fn, cfn)]
                edge[0] += pending_call
                edge[1] += ir
                edge[2] += sysc
                pending_call = None
                cob = ob
            else:
                c = self_cost[fn]
                c[0] += ir
                c[1] += sysc
    return self_cost, edges


def is_phone(fn):
    return bool(PHONE.search(fn[1])) and "kesto-profile" in (fn[0] or "") or bool(PHONE.search(fn[1]))


def host_share(self_cost, edges):
    incoming = collections.defaultdict(list)
    for (caller, callee), (calls, ir, sysc) in edges.items():
        incoming[callee].append((caller, ir + 1))
    share = {}
    functions = set(self_cost) | {c for e in edges for c in e}
    for fn in functions:
        share[fn] = 0.0 if is_phone(fn) else 1.0
    for _ in range(30):
        changed = 0.0
        for fn in functions:
            if is_phone(fn) or not incoming[fn]:
                continue
            total = sum(w for _, w in incoming[fn])
            value = sum(share[c] * w for c, w in incoming[fn]) / total
            changed = max(changed, abs(value - share[fn]))
            share[fn] = value
        if changed < 1e-6:
            break
    return share


def main():
    path, measured, plugin = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    top = int(sys.argv[4]) if len(sys.argv) > 4 else 0
    self_cost, edges = parse(path)
    share = host_share(self_cost, edges)
    per_mb = 1e6 / measured
    total = sum(c[0] for c in self_cost.values())
    host = sum(c[0] * share.get(fn, 1.0) for fn, c in self_cost.items())
    own = sum(c[0] for fn, c in self_cost.items() if fn[0] and fn[0].endswith(plugin))
    syscalls = sum(c[1] * share.get(fn, 1.0) for fn, c in self_cost.items())
    ioctls = sum(e[0] for (caller, callee), e in edges.items()
                 if callee[1] == "ioctl" and not is_phone(caller))
    by_call = collections.Counter()
    for fn, c in self_cost.items():
        if c[1] and share.get(fn, 1.0) > 0:
            by_call[fn[1]] += c[1] * share.get(fn, 1.0)
    print("total=%.0f phone=%.0f host=%.0f plugin=%.0f syscalls=%.1f ioctls=%.1f" %
          (total * per_mb, (total - host) * per_mb, host * per_mb, own * per_mb, syscalls * per_mb, ioctls * per_mb))
    print("calls " + " ".join("%s=%.1f" % (k, v * per_mb) for k, v in by_call.most_common()))
    if top:
        rows = sorted(((c[0] * share.get(fn, 1.0), fn) for fn, c in self_cost.items()), reverse=True)
        for cost, fn in rows[:top]:
            obj = (fn[0] or "?").rsplit("/", 1)[-1]
            print("fn %10.0f  %s [%s]" % (cost * per_mb, fn[1][:110], obj))


main()
