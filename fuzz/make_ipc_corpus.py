#!/usr/bin/env python3
"""Writes the seed corpus of the IPC fuzz target into fuzz/ipc_corpus/.

One seed per request type (1 to 32) and callback type (1 to 5), each the
record as a controlling process or a server sends it: header (group, type,
"1.4"), then the payload with short texts in its text fields.

Run: python3 fuzz/make_ipc_corpus.py [output folder]
"""

import os
import struct
import sys

# (name, size, [(offset, kind, value)]) with kind 't' text, 'i' int32,
# 'q' int64, 'b' byte.
REQUESTS = {
    1: ("get-version", 16, []),
    2: ("get-description", 16, []),
    3: ("is-server-running", 16, []),
    4: ("start-server", 36, [(16, "i", 1058), (20, "i", 2049), (32, "b", 1)]),
    5: ("add-mount-point", 1552, [(16, "t", "/export"), (1040, "t", "datastore"), (1296, "t", "ctl")]),
    6: ("remove-mount-point", 1040, [(16, "t", "/export")]),
    7: ("add-session", 1296, [(16, "t", "s1"), (272, "t", "/backup")]),
    8: ("remove-session", 272, [(16, "t", "s1")]),
    9: ("is-session-exists", 272, [(16, "t", "s1")]),
    10: ("open-redirected-file", 1060, [(16, "t", "/export/disk"), (1040, "q", 1 << 33), (1048, "b", 1),
                                        (1052, "i", 1), (1056, "i", 4)]),
    11: ("close-redirected-file", 1040, [(16, "t", "/export/disk")]),
    12: ("close-all-redirected-files", 1040, [(16, "t", "/export")]),
    13: ("add-redirected-file-segment", 2088, [(16, "t", "/export/disk"), (1040, "t", "/dev/zero"),
                                               (2064, "q", 0), (2072, "q", 4096), (2080, "q", 65536)]),
    14: ("export-redirected-file", 2064, [(16, "t", "/export/disk"), (1040, "t", "/export/copy")]),
    15: ("export-redirected-file-info", 2068, [(16, "t", "/export/disk"), (1040, "t", "/export/info"),
                                              (2064, "b", 1)]),
    16: ("close-opened-file", 1040, [(16, "t", "/export/a")]),
    17: ("close-all-opened-files", 1040, [(16, "t", "/export")]),
    18: ("set-log-control", 20, [(16, "i", 3)]),
    19: ("get-mount-info", 276, [(16, "t", "ctl"), (272, "b", 0), (273, "b", 1)]),
    20: ("get-session-info", 276, [(16, "t", "ctl"), (272, "b", 1)]),
    21: ("run-test-mode", 3352, [(16, "t", "ctl"), (272, "t", "/export"), (3344, "q", 1 << 20)]),
    22: ("request-auto-shutdown", 16, []),
    23: ("get-server-status", 16, []),
    24: ("set-debug-action-enabled", 20, [(16, "b", 1)]),
    25: ("get-vsphere-info", 276, [(16, "t", "ctl"), (272, "b", 1)]),
    26: ("add-vsphere-info", 1296, [(16, "t", "datastore-1"), (272, "t", "esx"), (528, "t", "443"),
                                    (784, "t", "root"), (1040, "t", "pwd")]),
    27: ("remove-vsphere-info", 272, [(16, "t", "datastore-1")]),
    28: ("run-quick-test-mode", 1300, [(16, "t", "ctl"), (272, "t", "/"), (1296, "i", 0)]),
    29: ("execute-system-cmd", 1300, [(16, "t", "ctl"), (272, "t", "true"), (1296, "b", 1)]),
    30: ("get-net-device-credential", 276, [(16, "t", "ctl"), (272, "b", 1)]),
    31: ("add-net-device-credential", 1552, [(16, "t", "/net/dev"), (1040, "t", "user"), (1295, "t", "pwd")]),
    32: ("remove-net-device-credential", 1040, [(16, "t", "/net/dev")]),
}

CALLBACKS = {
    1: ("cb-log-message", 2324, [(16, "t", "srv"), (272, "t", "a line"), (2320, "i", 2)]),
    2: ("cb-set-attributes", 1324, [(16, "t", "srv"), (272, "t", "/export/disk"), (1296, "b", 1),
                                    (1300, "q", 12345), (1308, "b", 1), (1312, "i", 1000), (1316, "b", 0)]),
    3: ("cb-remove", 1296, [(16, "t", "srv"), (272, "t", "/export/disk")]),
    4: ("cb-rename", 2320, [(16, "t", "srv"), (272, "t", "/export/a"), (1296, "t", "/export/b")]),
    5: ("cb-write", 1312, [(16, "t", "srv"), (272, "t", "/export/disk"), (1296, "q", 1 << 32), (1304, "i", 0),
                           (1308, "i", 512)]),
}


def record(group, rtype, size, fields):
    data = bytearray(size)
    data[0:16] = struct.pack("<ii8s", group, rtype, b"1.4")
    for offset, kind, value in fields:
        if kind == "t":
            raw = value.encode() + b"\0"
            data[offset:offset + len(raw)] = raw
        elif kind == "i":
            data[offset:offset + 4] = struct.pack("<i", value)
        elif kind == "q":
            data[offset:offset + 8] = struct.pack("<q", value)
        else:
            data[offset] = value
    return bytes(data)


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "ipc_corpus")
    os.makedirs(out, exist_ok=True)
    seeds = {}
    for rtype, (name, size, fields) in REQUESTS.items():
        seeds["req-%02d-%s" % (rtype, name)] = record(2, rtype, size, fields)
    for rtype, (name, size, fields) in CALLBACKS.items():
        seeds["%s" % name] = record(3, rtype, size, fields)
    seeds["reply-group"] = record(1, 1, 20, [])
    seeds["unknown-request"] = record(2, 99, 16, [])
    for name, data in seeds.items():
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    main()
