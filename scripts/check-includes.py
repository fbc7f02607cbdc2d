#!/usr/bin/env python3
"""Fails when a file includes another library's private header.

A library's private headers are the .h files in its own folder. Only the library
itself and its own tests may include them: its unit-test folder, and the fuzz
targets and benchmarks that exercise it (listed below). Everything else goes
through the public headers in host/include. Usage: scripts/check-includes.py
(from anywhere; exits 1 and lists the offending includes).
"""
import os
import re
import sys

ROOT = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

# library folder -> the folders and files that are its own tests
OWN_TESTS = {
    "host/sdk": ["tests/sdk"],
    "host/framework": ["tests/framework"],
    "host/procmsg": [],
    # bench/detaction times a detection cycle over the collector's own live table.
    "host/process_collect": ["tests/collect", "bench/collect", "bench/detaction", "fuzz/proc_connector_fuzz.cpp"],
    "host/net_collect": ["tests/collect", "bench/collect", "fuzz/sock_diag_fuzz.cpp", "fuzz/proc_net_tcp_fuzz.cpp"],
    "host/report": ["tests/report", "bench/sinks", "fuzz/alert_spool_fuzz.cpp"],
    "host/agent": ["tests/agent", "fuzz/agent_settings_fuzz.cpp"],
    "module/module_procdet": [
        "tests/module", "bench/detaction", "bench/detroot", "bench/strings",
        "fuzz/detaction_policy_fuzz.cpp", "fuzz/detroot_policy_fuzz.cpp", "fuzz/address_file_fuzz.cpp",
        "fuzz/strings_scan_fuzz.cpp", "fuzz/proc_maps_fuzz.cpp", "fuzz/proc_net_tcp_fuzz.cpp",
    ],
}
SCANNED = ["host", "module", "tests", "fuzz", "bench"]
INCLUDE = re.compile(r'\s*#\s*include\s+"([^"]+)"')


def within(path, places):
    return any(path == place or path.startswith(place + "/") for place in places)


def main():
    private = {}  # header path relative to its library -> libraries holding it
    for library in OWN_TESTS:
        for folder, _, files in os.walk(os.path.join(ROOT, library)):
            for name in files:
                # A library's include/ folder is its interface to the rest of the host.
                if name.endswith(".h") and not os.path.relpath(folder, os.path.join(ROOT, library)).startswith("include"):
                    relative = os.path.relpath(os.path.join(folder, name), os.path.join(ROOT, library))
                    private.setdefault(relative, []).append(library)
    public = set()
    for folder, _, files in os.walk(os.path.join(ROOT, "host/include")):
        for name in files:
            public.add(os.path.relpath(os.path.join(folder, name), os.path.join(ROOT, "host/include")))
    offences = []
    for top in SCANNED:
        for folder, _, files in os.walk(os.path.join(ROOT, top)):
            for name in files:
                if not name.endswith((".cpp", ".h")):
                    continue
                path = os.path.relpath(os.path.join(folder, name), ROOT)
                with open(os.path.join(ROOT, path), errors="replace") as source:
                    for number, line in enumerate(source, 1):
                        match = INCLUDE.match(line)
                        if not match:
                            continue
                        header = match.group(1)
                        if header in public or os.path.exists(os.path.join(ROOT, os.path.dirname(path), header)):
                            continue
                        owners = private.get(header, [])
                        if owners and not any(within(path, [lib] + OWN_TESTS[lib]) for lib in owners):
                            offences.append(f"{path}:{number}: includes {header}, private to {' and '.join(owners)}")
    for offence in offences:
        print(offence)
    if offences:
        print(f"{len(offences)} includes of another library's private header", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
