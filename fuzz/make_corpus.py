#!/usr/bin/env python3
"""Regenerates the zip seeds of ZipReaderFuzzer in fuzz/corpus/zip/.

The seeds are the *.zip files there; the inputs that fuzzing runs added
(named by their SHA-1, no extension) are kept.

Archives made by Info-ZIP zip (stored, deflated, directory entries, zip64,
streamed with data descriptors) and by Python's zipfile, and hostile ones
built or patched byte by byte. Timestamps, names and contents are fixed, so
a run gives the same bytes every time.

    python3 fuzz/make_corpus.py
"""

import io
import warnings
import os
import struct
import subprocess
import tempfile
import zipfile
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
OUT = os.path.join(HERE, "corpus", "zip")
FIXED_TIME = (2024, 1, 2, 3, 4, 6)
FIXED_EPOCH = 1704164646  # FIXED_TIME in UTC

LOCAL_SIG = b"PK\x03\x04"
CENTRAL_SIG = b"PK\x01\x02"
END_SIG = b"PK\x05\x06"


def write(name, data):
    with open(os.path.join(OUT, name), "wb") as f:
        f.write(data)


def python_zip(entries, method=zipfile.ZIP_DEFLATED, force_zip64=False):
    """entries: (name, bytes) pairs; a name ending in '/' is a directory."""
    buf = io.BytesIO()
    with zipfile.ZipFile(buf, "w", method) as z:
        for name, data in entries:
            info = zipfile.ZipInfo(name, FIXED_TIME)
            info.compress_type = method
            if name.endswith("/"):
                info.external_attr = 0o40755 << 16 | 0x10
                z.writestr(info, b"")
            elif force_zip64:
                with z.open(info, "w", force_zip64=True) as f:
                    f.write(data)
            else:
                z.writestr(info, data)
    return buf.getvalue()


def raw_zip(entries):
    """A stored archive built by hand, so names and flags can be anything
    zipfile refuses. entries: (name bytes, data, flag, method)."""
    body, central = b"", b""
    for name, data, flag, method in entries:
        crc = zlib.crc32(data)
        header = struct.pack("<4s5H3L2H", LOCAL_SIG, 20, flag, method, 0, 0,
                             crc, len(data), len(data), len(name), 0)
        central += struct.pack("<4s6H3L5H2L", CENTRAL_SIG, 20, 20, flag,
                               method, 0, 0, crc, len(data), len(data),
                               len(name), 0, 0, 0, 0, 0, len(body)) + name
        body += header + name + data
    end = struct.pack("<4s4H2LH", END_SIG, 0, 0, len(entries), len(entries),
                      len(central), len(body), 0)
    return body + central + end


def info_zip(workdir, args, files):
    """Runs Info-ZIP zip in `workdir` on fixed files and returns the archive:
    written to out.zip, or streamed to a pipe when `args` name "-" as the
    archive (then every entry's sizes follow its data in a descriptor)."""
    for name, data in files:
        path = os.path.join(workdir, name)
        if name.endswith("/"):
            os.makedirs(path, exist_ok=True)
        else:
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "wb") as f:
                f.write(data)
    for root, dirs, names in os.walk(workdir):
        for n in dirs + names:
            os.utime(os.path.join(root, n), (FIXED_EPOCH, FIXED_EPOCH))
    env = dict(os.environ, TZ="UTC")
    result = subprocess.run(["zip", "-q", "-X"] + args, cwd=workdir, env=env,
                            stdout=subprocess.PIPE, check=True)
    if "-" in args:
        return result.stdout
    with open(os.path.join(workdir, "out.zip"), "rb") as f:
        return f.read()


def main():
    os.makedirs(OUT, exist_ok=True)
    for name in os.listdir(OUT):
        if name.endswith(".zip"):
            os.remove(os.path.join(OUT, name))
    text = b"sticker frame " * 40
    png = bytes(range(256)) * 3

    # Info-ZIP zip: deflated with directory entries, stored, zip64, streamed.
    tree = [("pack/", b""), ("pack/a.txt", text), ("pack/b.png", png)]
    with tempfile.TemporaryDirectory() as d:
        write("zip-deflated-dirs.zip",
              info_zip(d, ["-r", "out.zip", "pack"], tree))
    with tempfile.TemporaryDirectory() as d:
        write("zip-stored.zip",
              info_zip(d, ["-0", "-r", "out.zip", "pack"], tree))
    with tempfile.TemporaryDirectory() as d:
        write("zip-zip64.zip",
              info_zip(d, ["-fz", "-r", "out.zip", "pack"], tree))
    with tempfile.TemporaryDirectory() as d:
        write("zip-streamed-descriptor.zip",
              info_zip(d, ["-r", "-", "pack"], tree))

    # Python's zipfile.
    write("py-stored.zip", python_zip([("a.txt", text), ("b/c.txt", b"c")],
                                      zipfile.ZIP_STORED))
    write("py-deflated-dirs.zip",
          python_zip([("d/", b""), ("d/e/", b""), ("d/e/f.txt", text),
                      ("g.bin", png)]))
    write("py-deflated-nodirs.zip", python_zip([("x/y.txt", text)]))
    write("py-zip64.zip", python_zip([("big.txt", text)], force_zip64=True))
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # the duplicate is the point
        write("py-duplicate.zip",
              python_zip([("same.txt", b"first"), ("same.txt", b"second!")]))
    write("empty.zip", python_zip([]))
    write("py-backslash-name.zip",
          python_zip([("dir\\file.txt", b"kept as one name")],
                     zipfile.ZIP_STORED))

    # Hostile archives.
    write("hostile-dotdot.zip",
          raw_zip([(b"ok.txt", b"ok", 0, 0), (b"../evil.txt", b"x", 0, 0)]))
    write("hostile-dotdot-deep.zip",
          raw_zip([(b"a/../../../../../../evil.txt", b"x", 0, 0)]))
    write("hostile-backslash-dotdot.zip",
          raw_zip([(b"a\\..\\..\\evil.txt", b"x", 0, 0)]))
    write("hostile-absolute.zip",
          raw_zip([(b"/tmp/zrx-evil.txt", b"x", 0, 0)]))
    write("hostile-drive.zip", raw_zip([(b"C:evil.txt", b"x", 0, 0)]))
    write("hostile-long-name.zip", raw_zip([(b"n" * 600, b"x", 0, 0)]))
    write("hostile-nul-in-name.zip", raw_zip([(b"a\0b.txt", b"x", 0, 0)]))
    write("hostile-empty-name.zip", raw_zip([(b"", b"x", 0, 0)]))
    write("hostile-encrypted.zip", raw_zip([(b"secret.txt", b"xxxx", 1, 0)]))
    write("hostile-bzip2-method.zip", raw_zip([(b"bz.txt", b"BZh9", 0, 12)]))
    write("hostile-missing-dir.zip",
          raw_zip([(b"nodir/file.txt", b"x", 0, 0)]))
    good = python_zip([("a.txt", text), ("b.txt", png)])
    write("hostile-truncated.zip", good[: len(good) // 2])
    write("hostile-truncated-directory.zip", good[:-10])
    # A fetch cut just after a stored inner archive: from its end it reads
    # as that archive behind bytes in front.
    write("hostile-prefixed.zip", good[: len(good) // 3] + good)
    write("not-a-zip.zip", b"this is no archive\n" * 4)

    # A deflated entry whose listed size is far above what its data holds.
    lie = bytearray(python_zip([("lie.txt", text)]))
    at = lie.find(CENTRAL_SIG)
    struct.pack_into("<L", lie, at + 24, 0x7FFFFFFF)
    write("hostile-size-lie.zip", bytes(lie))


if __name__ == "__main__":
    main()
