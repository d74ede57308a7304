#!/usr/bin/env python3
"""Writes the seed corpus of the RPC fuzz target into fuzz/corpus/.

Every seed is a valid call (or a short exchange) of the portmapper, MOUNT or
NFS version 3 program, framed as the fuzz target reads its input (see
tests/support/RpcFuzzHarness.h): a selector byte (program, transport,
read-only flag, number of extra receives), the receive lengths, then the
bytes. File handles name the file IDs of the export the harness builds.

Run: python3 fuzz/make_corpus.py [output folder]
"""

import os
import struct
import sys

PORTMAP, MOUNT, NFS = 0, 1, 2
TCP, UDP = 0, 4
READ_ONLY = 8

# File IDs of the harness's export.
ROOT, FILE, DIR, NESTED, SUB, DISK, EMPTY, OUTSIDE, PARENT, SOCKET = range(10)

AUTH_NULL, AUTH_UNIX = 0, 1


def u32(v):
    return struct.pack(">I", v & 0xFFFFFFFF)


def u64(v):
    return struct.pack(">Q", v)


def opaque(data):
    pad = (4 - len(data) % 4) % 4
    return u32(len(data)) + data + b"\0" * pad


def string(text):
    return opaque(text.encode())


# Bytes 4..11 of every handle the harness's server gives out.
HANDLE_VERIFIER = b"fuzzverf"


def fh(file_id):
    # The server's handle: the file ID in the host's (little-endian) order,
    # then the verifier.
    return opaque(struct.pack("<I", file_id) + HANDLE_VERIFIER + b"\0" * 44)


def diropargs(dir_id, name):
    return fh(dir_id) + string(name)


def auth_unix():
    body = u32(12345) + string("esxi-host") + u32(0) + u32(0) + u32(1) + u32(0)
    return u32(AUTH_UNIX) + opaque(body)


def call(xid, prog, vers, proc, args=b"", cred=None):
    cred = cred if cred is not None else u32(AUTH_NULL) + u32(0)
    return u32(xid) + u32(0) + u32(2) + u32(prog) + u32(vers) + u32(proc) + cred + u32(AUTH_NULL) + u32(0) + args


def record(message):
    return u32(0x80000000 | len(message)) + message


def seed(program, transport, pieces, read_only=False):
    """pieces: the receives in order (datagrams on UDP)."""
    selector = program | transport | (READ_ONLY if read_only else 0) | ((len(pieces) - 1) << 4)
    head = bytes([selector]) + b"".join(struct.pack(">H", len(p)) for p in pieces[:-1])
    return head + b"".join(pieces)


def sattr(mode=None, uid=None, gid=None, size=None, atime=0, mtime=0):
    out = b""
    for value in (mode, uid, gid):
        out += u32(0) if value is None else u32(1) + u32(value)
    out += u32(0) if size is None else u32(1) + u64(size)
    for how in (atime, mtime):
        out += u32(how) + (u32(1700000000) + u32(0) if how == 2 else b"")
    return out


def nfs_calls():
    """(name, proc, args) for every NFS version 3 procedure."""
    verf = b"\0" * 8
    return [
        ("null", 0, b""),
        ("getattr-root", 1, fh(ROOT)),
        ("getattr-redirected", 1, fh(DISK)),
        ("getattr-socket", 1, fh(SOCKET)),
        ("getattr-outside", 1, fh(OUTSIDE)),
        ("setattr", 2, fh(FILE) + sattr(mode=0o644, size=50, atime=1, mtime=2) + u32(0)),
        ("setattr-guard", 2, fh(NESTED) + sattr(mode=0o1777, uid=0, gid=0) + u32(1) + u32(0) + u32(0)),
        ("lookup", 3, diropargs(ROOT, "file.txt")),
        ("lookup-dotdot", 3, diropargs(DIR, "..")),
        ("access", 4, fh(FILE) + u32(0x3F)),
        ("readlink", 5, fh(FILE)),
        ("read", 6, fh(FILE) + u64(0) + u32(100)),
        ("read-redirected", 6, fh(DISK) + u64(4096) + u32(8192)),
        ("write", 7, fh(FILE) + u64(10) + u32(5) + u32(2) + opaque(b"hello")),
        ("write-redirected", 7, fh(DISK) + u64(0) + u32(8) + u32(0) + opaque(b"segment!")),
        ("create-unchecked", 8, diropargs(ROOT, "new.txt") + u32(0) + sattr(mode=0o644)),
        ("create-guarded", 8, diropargs(DIR, "file.txt") + u32(1) + sattr(mode=0o600, size=0)),
        ("create-exclusive", 8, diropargs(ROOT, "excl.bin") + u32(2) + b"verifier"),
        ("mkdir", 9, diropargs(ROOT, "newdir") + sattr(mode=0o755)),
        ("symlink", 10, diropargs(ROOT, "newlink") + sattr() + string("file.txt")),
        ("mknod-fifo", 11, diropargs(ROOT, "fifo") + u32(7) + sattr(mode=0o644)),
        ("mknod-chr", 11, diropargs(ROOT, "chr") + u32(4) + sattr(mode=0o600) + u32(1) + u32(3)),
        ("remove", 12, diropargs(ROOT, "empty")),
        ("remove-redirected", 12, diropargs(ROOT, "disk.vmdk")),
        ("rmdir", 13, diropargs(DIR, "sub")),
        ("rename", 14, diropargs(ROOT, "file.txt") + diropargs(DIR, "moved.txt")),
        ("rename-redirected", 14, diropargs(ROOT, "disk.vmdk") + diropargs(ROOT, "disk-1.vmdk")),
        ("link", 15, fh(FILE) + diropargs(DIR, "hard.txt")),
        ("readdir", 16, fh(ROOT) + u64(0) + verf + u32(4096)),
        ("readdir-small", 16, fh(DIR) + u64(0) + verf + u32(120)),
        ("readdirplus", 17, fh(ROOT) + u64(0) + verf + u32(1024) + u32(8192)),
        ("readdirplus-small", 17, fh(DIR) + u64(1) + verf + u32(100) + u32(300)),
        ("fsstat", 18, fh(ROOT)),
        ("fsinfo", 19, fh(ROOT)),
        ("pathconf", 20, fh(ROOT)),
        ("commit", 21, fh(FILE) + u64(0) + u32(0)),
    ]


def build():
    seeds = {}
    xid = 0x100

    def next_xid():
        nonlocal xid
        xid += 1
        return xid

    def mapping(prog, proto):
        return u32(prog) + u32(3) + u32(proto) + u32(0)

    # Portmapper, version 2: every procedure over TCP, GETPORT over UDP too.
    pmap = [("null", 0, b""), ("set", 1, mapping(100003, 6)[:12] + u32(2049)),
            ("unset", 2, mapping(100003, 6)), ("getport-nfs", 3, mapping(100003, 6)),
            ("getport-mount", 3, mapping(100005, 17)), ("getport-unknown", 3, mapping(200000, 6)),
            ("dump", 4, b""), ("callit", 5, u32(100003) + u32(3) + u32(0) + opaque(b""))]
    for name, proc, args in pmap:
        seeds["pmap-%s-tcp" % name] = seed(PORTMAP, TCP, [record(call(next_xid(), 100000, 2, proc, args))])
    seeds["pmap-getport-udp"] = seed(PORTMAP, UDP, [call(next_xid(), 100000, 2, 3, mapping(100005, 17))])

    # MOUNT: every procedure of version 3, MNT of version 1, both transports.
    mnt = [("null", 3, 0, b""), ("mnt", 3, 1, string("export")), ("mnt-v1", 1, 1, string("export")),
           ("mnt-unknown", 3, 1, string("nothing")), ("dump", 3, 2, b""), ("umnt", 3, 3, string("export")),
           ("umntall", 3, 4, b""), ("export", 3, 5, b"")]
    for name, vers, proc, args in mnt:
        seeds["mount-%s-tcp" % name] = seed(MOUNT, TCP, [record(call(next_xid(), 100005, vers, proc, args))])
    seeds["mount-mnt-udp"] = seed(MOUNT, UDP, [call(next_xid(), 100005, 3, 1, string("export"))])
    # Mount, unmount and mount again on one connection.
    seeds["mount-mnt-umnt-mnt-tcp"] = seed(MOUNT, TCP, [b"".join(
        record(call(next_xid(), 100005, 3, p, string("export"))) for p in (1, 3, 1))])

    # NFS version 3: every procedure over TCP and UDP, with the credentials
    # a hypervisor host sends.
    for name, proc, args in nfs_calls():
        message = call(next_xid(), 100003, 3, proc, args, auth_unix())
        seeds["nfs-%02d-%s-tcp" % (proc, name)] = seed(NFS, TCP, [record(message)])
        seeds["nfs-%02d-%s-udp" % (proc, name)] = seed(NFS, UDP, [message])
    # Changes refused by a read-only server.
    for name, proc, args in nfs_calls():
        if proc in (2, 7, 8, 9, 10, 11, 12, 13, 14, 15):
            message = call(next_xid(), 100003, 3, proc, args, auth_unix())
            seeds["nfs-%02d-%s-readonly-tcp" % (proc, name)] = seed(NFS, TCP, [record(message)], read_only=True)

    # Several calls on one connection, as a client pipelines them.
    calls = dict((n, (p, a)) for n, p, a in nfs_calls())
    chain = [calls[n] for n in ("lookup", "getattr-root", "read", "write", "readdirplus", "fsinfo")]
    seeds["nfs-pipelined-tcp"] = seed(NFS, TCP, [b"".join(
        record(call(next_xid(), 100003, 3, p, a, auth_unix())) for p, a in chain)])
    # One call arriving in three receives: cut in the credential body and in
    # the arguments, so the truncated call is parsed again.
    message = record(call(next_xid(), 100003, 3, 3, diropargs(ROOT, "dir"), auth_unix()))
    seeds["nfs-03-lookup-split-tcp"] = seed(NFS, TCP, [message[:50], message[50:90], message[90:]])
    message = record(call(next_xid(), 100005, 3, 1, string("export")))
    seeds["mount-mnt-split-tcp"] = seed(MOUNT, TCP, [message[:20], message[20:]])
    # Two datagrams: the first too short to be a call.
    message = call(next_xid(), 100003, 3, 1, fh(ROOT))
    seeds["nfs-01-getattr-short-then-whole-udp"] = seed(NFS, UDP, [message[:30], message])
    # Garbage before a call, a version 2 call and an unknown procedure.
    seeds["nfs-garbage-then-null-tcp"] = seed(NFS, TCP, [b"\x01\x02\x03" + record(call(next_xid(), 100003, 3, 0))])
    seeds["nfs-version2-tcp"] = seed(NFS, TCP, [record(call(next_xid(), 100003, 2, 1, fh(ROOT)))])
    seeds["nfs-proc22-tcp"] = seed(NFS, TCP, [record(call(next_xid(), 100003, 3, 22, fh(ROOT)))])
    return seeds


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "corpus")
    os.makedirs(out, exist_ok=True)
    seeds = build()
    for name, data in sorted(seeds.items()):
        with open(os.path.join(out, name), "wb") as f:
            f.write(data)
    print("%d seeds in %s" % (len(seeds), out))


if __name__ == "__main__":
    main()
