"""Prints the tables of benchmarks/install.sh from the lines that kiteinstallbench wrote."""
import sys
from collections import defaultdict

METHODS = ["copy-loop", "rename-loop", "xcopy", "msi", "install-first", "install", "install-digests",
           "undo", "install-undone", "undo-all"]
NAMES = {
    "copy-loop": "CopyFileA loop",
    "rename-loop": "rename-aside loop",
    "xcopy": "xcopy /y",
    "msi": "MSI (msiexec /i)",
    "install-first": "InstallKite, first (backups made)",
    "install": "InstallKite",
    "install-digests": "InstallKite with digests",
    "undo": "InstallKite failing at last file (undo)",
    "install-undone": "InstallKite failing at its commit mark (all undone)",
    "undo-all": "  its undo alone, from the failed commit mark",
}


def parse(path):
    runs = defaultdict(dict)  # (telemetry, files, bytes) -> method -> fields
    memory, profile, cpu, calls = [], [], [], []
    for line in open(path):
        words = line.split()
        if not words:
            continue
        if words[0] == "profile":
            profile.append((words[1], float(words[2].split("=")[1])))
            continue
        fields = dict(w.split("=", 1) for w in words if "=" in w)
        if words[0] == "calls":
            calls.append((words[2] if "=" not in words[2] else "", fields))
            continue
        method = [w for w in words if "=" not in w][0]
        if method == "memory-rss":
            memory.append(fields)
            continue
        if method == "memory":
            continue
        if method == "cpu":
            cpu.append(fields)
            continue
        key = (fields["telemetry"], int(fields["files"]), int(fields["bytes"]))
        runs[key][method] = fields
    return runs, memory, profile, cpu, calls


def ratio(value, base):
    return f"{value / base:6.2f}" if base else "     -"


def main():
    runs, memory, profile, cpu, calls = parse(sys.argv[1])
    for telemetry in ("off", "on"):
        keys = sorted(k for k in runs if k[0] == telemetry)
        if not keys:
            continue
        print(f"\nTelemetry {'enabled (loopback collector)' if telemetry == 'on' else 'disabled'}"
              " - medians in seconds")
        print(f"{'files':>5} {'MiB':>7}  {'method':<56} {'time s':>8} {'/copy':>6} {'/rename':>7}"
              f" {'/MSI':>6} {'ms/file':>8} {'scopes':>6} {'us/scope':>8}")
        for key in keys:
            _, files, size = key
            got = runs[key]
            base = {m: float(got[m]["median"]) if m in got else 0.0 for m in METHODS}
            # The MSI is measured with telemetry disabled only; it does not depend on it.
            peer = runs.get(("off", files, size), {}).get("msi")
            if not base["msi"] and peer:
                base["msi"] = float(peer["median"])
            for method in METHODS:
                if method not in got:
                    continue
                seconds = base[method]
                scopes = int(got[method]["scopes"])
                per_scope = f"{seconds / scopes * 1e6:8.1f}" if scopes else "       -"
                name = NAMES[method]
                if got[method].get("exit", "0") != "0":
                    name += f" [host ended {got[method]['exit']}]"
                print(f"{files:5d} {size / 2**20:7.1f}  {name:<56} {seconds:8.3f}"
                      f" {ratio(seconds, base['copy-loop'])} {ratio(seconds, base['rename-loop']):>7}"
                      f" {ratio(seconds, base['msi'])} {seconds / files * 1e3:8.3f}"
                      f" {scopes if scopes else '-':>6} {per_scope}")
        for key in keys:
            got = runs[key]
            if "install-digests" in got:
                plain, verified = (float(got[m]["median"]) for m in ("install", "install-digests"))
                print(f"digests at {key[1]} files, {key[2] / 2**20:.1f} MiB: {verified:.3f} s against"
                      f" {plain:.3f} s, x{verified / plain:.3f}")
        for key in keys:
            got = runs[key]
            if "undo-all" in got:
                plain, undone, whole = (float(got[m]["median"])
                                        for m in ("install", "undo-all", "install-undone"))
                print(f"undo of the whole installation at {key[1]} files, {key[2] / 2**20:.1f} MiB:"
                      f" {undone:.3f} s against InstallKite {plain:.3f} s, x{undone / plain:.3f};"
                      f" installed up to the commit mark in {whole - undone:.3f} s,"
                      f" x{undone / (whole - undone):.3f} of that")
        # Growth from the smallest to the largest package of the same file size.
        by_size = defaultdict(list)
        for key in keys:
            by_size[key[2] / key[1]].append(key)
        for per_file, group in sorted(by_size.items()):
            group.sort(key=lambda k: k[1])
            if len(group) < 2:
                continue
            low, high = group[0], group[-1]
            factor = high[1] / low[1]
            parts = []
            for method in METHODS:
                if method in runs[low] and method in runs[high]:
                    grow = float(runs[high][method]["median"]) / float(runs[low][method]["median"])
                    parts.append(f"{NAMES[method]} x{grow:.1f}")
            print(f"growth {low[1]} -> {high[1]} files of {per_file / 1024:.0f} KiB"
                  f" (x{factor:.0f} files and bytes): " + ", ".join(parts))
        # Growth in bytes at equal file count.
        by_count = defaultdict(list)
        for key in keys:
            by_count[key[1]].append(key)
        for count, group in sorted(by_count.items()):
            if len(group) < 2:
                continue
            group.sort(key=lambda k: k[2])
            low, high = group[0], group[-1]
            parts = []
            for method in ("copy-loop", "rename-loop", "install"):
                grow = float(runs[high][method]["median"]) / float(runs[low][method]["median"])
                parts.append(f"{NAMES[method]} x{grow:.1f}")
            print(f"growth in bytes at {count} files, {low[2] / 2**20:.1f} -> "
                  f"{high[2] / 2**20:.1f} MiB (x{high[2] / low[2]:.1f}): " + ", ".join(parts))
    if cpu:
        print("\nInstallKite's own processor time per installation (mean), against its median time")
        for c in cpu:
            key = (c["telemetry"], int(c["files"]), int(c["bytes"]))
            wall = float(runs[key]["install"]["median"])
            print(f"  telemetry {c['telemetry']:>3}, {int(c['files']):5d} files,"
                  f" {int(c['bytes']) / 2**20:7.1f} MiB: user {float(c['install-user']):.3f} s,"
                  f" kernel {float(c['install-kernel']):.3f} s, of {wall:.3f} s")
            if "digests-user" in c:
                wall = float(runs[key]["install-digests"]["median"])
                print(f"  {'with digests':>39}: user {float(c['digests-user']):.3f} s,"
                      f" kernel {float(c['digests-kernel']):.3f} s, of {wall:.3f} s")
    if calls:
        print("\nFile calls of one installation through the platform table (backups kept)")
        for name, c in calls:
            if not name:
                print(f"  {int(c['files']):5d} files: {float(c['total']):.3f} s, user"
                      f" {float(c['user']):.3f} s, kernel {float(c['kernel']):.3f} s;"
                      " count, seconds in the call, first and last call after the start")
            elif int(c["count"]):
                print(f"  {name:<20} {int(c['count']):6d} {float(c['seconds']):8.3f}"
                      f" {float(c['first']):8.3f} {float(c['last']):8.3f}")
    if memory:
        print("\nHost process during one installation: largest resident size (Wine included)")
        for m in memory:
            print(f"  {int(m['files']):5d} files, {int(m['bytes']) / 2**20:7.1f} MiB:"
                  f" {int(m['maxrss-kib']) / 1024:7.1f} MiB")
    if profile:
        print("\nPieces of one traced file, each repeated 1000 times (microseconds each)")
        for name, micros in profile:
            print(f"  {name:<24} {micros:8.1f}")


main()
