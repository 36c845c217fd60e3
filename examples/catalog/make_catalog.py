#!/usr/bin/env python3
"""Draws the sample catalogue that zrx-fetch installs when it is given no list.

Writes catalog.json and files/ beside this script: PNG stickers drawn here
(zlib + struct, no third-party modules) and zip archives of them, one for each
way the library treats a fetched file. The output is byte-for-byte the same on
every run, so the committed files only change when this script does.

    python3 examples/catalog/make_catalog.py
"""

import json
import math
import os
import struct
import zipfile
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
FILES = os.path.join(HERE, "files")
SIZE = 64          # edge of a sticker in pixels
SAMPLES = 3        # supersampling per axis, for smooth edges
ZIP_TIME = (2024, 1, 1, 0, 0, 0)


# --- PNG -------------------------------------------------------------------

def png_bytes(width, height, rows, alpha=True):
    """A PNG of 8-bit RGBA (or RGB) rows, each a bytes object."""
    def chunk(kind, data):
        body = kind + data
        return (struct.pack(">I", len(data)) + body +
                struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF))
    color_type = 6 if alpha else 2
    header = struct.pack(">IIBBBBB", width, height, 8, color_type, 0, 0, 0)
    raw = b"".join(b"\x00" + row for row in rows)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) +
            chunk(b"IDAT", zlib.compress(raw, 9)) + chunk(b"IEND", b""))


def draw(layers):
    """Rasterises `layers`, a list of (inside(x, y) -> bool, (r, g, b)), the
    last on top, on a transparent SIZE x SIZE canvas with coordinates 0..1."""
    rows = []
    step = 1.0 / (SIZE * SAMPLES)
    for py in range(SIZE):
        row = bytearray()
        for px in range(SIZE):
            r = g = b = a = 0
            for sy in range(SAMPLES):
                for sx in range(SAMPLES):
                    x = (px * SAMPLES + sx + 0.5) * step
                    y = (py * SAMPLES + sy + 0.5) * step
                    for inside, color in reversed(layers):
                        if inside(x, y):
                            r += color[0]
                            g += color[1]
                            b += color[2]
                            a += 255
                            break
            n = SAMPLES * SAMPLES
            covered = a // 255
            if covered:
                row += bytes((r // covered, g // covered, b // covered,
                              a // n))
            else:
                row += b"\x00\x00\x00\x00"
        rows.append(bytes(row))
    return png_bytes(SIZE, SIZE, rows)


# --- shapes: predicates on the unit square -----------------------------------

def disk(cx, cy, radius):
    return lambda x, y: (x - cx) ** 2 + (y - cy) ** 2 <= radius ** 2


def ring(cx, cy, inner, outer, lower_half=False):
    def inside(x, y):
        d = (x - cx) ** 2 + (y - cy) ** 2
        return inner ** 2 <= d <= outer ** 2 and (not lower_half or y > cy)
    return inside


def rect(x0, y0, x1, y1):
    return lambda x, y: x0 <= x <= x1 and y0 <= y <= y1


def polygon(points):
    def inside(x, y):
        hit = False
        j = len(points) - 1
        for i, (xi, yi) in enumerate(points):
            xj, yj = points[j]
            if (yi > y) != (yj > y) and \
                    x < (xj - xi) * (y - yi) / (yj - yi) + xi:
                hit = not hit
            j = i
        return hit
    return inside


def minus(a, b):
    return lambda x, y: a(x, y) and not b(x, y)


def shifted(inside, dy):
    """`inside` moved up by `dy`."""
    return lambda x, y: inside(x, y + dy)


def star_points(cx, cy, outer, inner, count=5):
    points = []
    for k in range(count * 2):
        radius = outer if k % 2 == 0 else inner
        angle = -math.pi / 2 + k * math.pi / count
        points.append((cx + radius * math.cos(angle),
                       cy + radius * math.sin(angle)))
    return points


YELLOW = (250, 200, 40)
ORANGE = (240, 130, 30)
DARK = (50, 40, 40)
BLUE = (60, 120, 220)
GREY = (200, 205, 215)
GREEN = (60, 170, 90)
RED = (220, 60, 60)


def sun():
    rays = []
    for k in range(8):
        angle = k * math.pi / 4
        tip = (0.5 + 0.47 * math.cos(angle), 0.5 + 0.47 * math.sin(angle))
        left = (0.5 + 0.3 * math.cos(angle - 0.25),
                0.5 + 0.3 * math.sin(angle - 0.25))
        right = (0.5 + 0.3 * math.cos(angle + 0.25),
                 0.5 + 0.3 * math.sin(angle + 0.25))
        rays.append((polygon([tip, left, right]), ORANGE))
    return draw(rays + [(disk(0.5, 0.5, 0.27), YELLOW)])


def moon():
    return draw([(minus(disk(0.5, 0.5, 0.4), disk(0.66, 0.4, 0.33)),
                  (235, 225, 160))])


def star():
    return draw([(polygon(star_points(0.5, 0.53, 0.46, 0.19)), YELLOW)])


def face(wink):
    layers = [(disk(0.5, 0.5, 0.45), YELLOW),
              (ring(0.5, 0.52, 0.22, 0.28, lower_half=True), DARK),
              (disk(0.35, 0.38, 0.06), DARK)]
    if wink:
        layers.append((rect(0.58, 0.36, 0.72, 0.41), DARK))
    else:
        layers.append((disk(0.65, 0.38, 0.06), DARK))
    return draw(layers)


def cloud():
    return [(disk(0.35, 0.5, 0.17), GREY), (disk(0.55, 0.42, 0.22), GREY),
            (disk(0.72, 0.52, 0.15), GREY), (rect(0.2, 0.5, 0.85, 0.67), GREY)]


def rain():
    drops = [(polygon([(x, 0.72), (x - 0.04, 0.84), (x + 0.04, 0.84)]), BLUE)
             for x in (0.35, 0.55, 0.75)]
    drops += [(disk(x, 0.85, 0.04), BLUE) for x in (0.35, 0.55, 0.75)]
    return draw([(shifted(inside, 0.12), color) for inside, color in cloud()]
                + drops)


def arrow(right):
    points = [(0.12, 0.4), (0.55, 0.4), (0.55, 0.22), (0.9, 0.5),
              (0.55, 0.78), (0.55, 0.6), (0.12, 0.6)]
    if not right:
        points = [(1.0 - x, y) for x, y in points]
    return draw([(polygon(points), GREEN if right else RED)])


def sky():
    """A larger picture (a gradient with grain that doesn't compress away),
    so that a progress bar has something to show."""
    width, height = 256, 160
    seed = 12345
    rows = []
    for y in range(height):
        row = bytearray()
        for x in range(width):
            seed = (seed * 1103515245 + 12345) & 0x7FFFFFFF
            grain = (seed >> 16) % 40
            row += bytes((min(255, 40 + y + grain),
                          min(255, 110 + y // 2 + grain),
                          min(255, 200 + grain // 2)))
        rows.append(bytes(row))
    return png_bytes(width, height, rows, alpha=False)


# --- output ------------------------------------------------------------------

def write(name, data):
    with open(os.path.join(FILES, name), "wb") as out:
        out.write(data)


def write_zip(name, entries):
    """`entries`: (name, bytes or None for a directory entry), in order."""
    with zipfile.ZipFile(os.path.join(FILES, name), "w") as archive:
        for entry, data in entries:
            info = zipfile.ZipInfo(entry, ZIP_TIME)
            if data is None:
                info.external_attr = (0o40755 << 16) | 0x10
                archive.writestr(info, b"")
            else:
                info.external_attr = 0o644 << 16
                info.compress_type = zipfile.ZIP_DEFLATED
                archive.writestr(info, data)


def main():
    os.makedirs(FILES, exist_ok=True)
    write("sun.png", sun())
    write("moon.png", moon())
    write("star.png", star())
    write("sky.png", sky())
    write_zip("faces.zip", [("smile.png", face(False)),
                            ("wink.png", face(True))])
    write_zip("shapes.zip", [
        ("circle.png", draw([(disk(0.5, 0.5, 0.4), BLUE)])),
        ("square.png", draw([(rect(0.12, 0.12, 0.88, 0.88), GREEN)])),
        ("triangle.png",
         draw([(polygon([(0.5, 0.1), (0.92, 0.88), (0.08, 0.88)]), RED)]))])
    write_zip("weather.zip", [("cloud.png", draw(cloud())),
                              ("rain.png", rain())])
    write_zip("arrows.zip", [("arrows/", None),
                             ("arrows/left.png", arrow(False)),
                             ("arrows/right.png", arrow(True))])

    # One sticker for each road through the naming rule and the unpacker.
    # "{base}" stands for the address that zrx-fetch serves files/ from.
    catalog = [
        {"resId": "sun", "url": "{base}/files/sun.png", "name": "sun",
         "ext": ".png", "unzip_type": 2},
        {"resId": "moon", "url": "{base}/files/moon.png"},
        {"resId": "star", "url": "{base}/files/star.png", "ext": ".png"},
        {"resId": "sky", "url": "{base}/files/sky.png", "name": "sky.png"},
        {"resId": "faces", "url": "{base}/files/faces.zip", "name": "faces",
         "ext": ".zip", "unzip_type": 0},
        {"resId": "shapes", "url": "{base}/files/shapes.zip",
         "name": "shapes", "ext": ".zip", "unzip_type": 1},
        {"resId": "weather", "url": "{base}/files/weather.zip",
         "name": "weather", "ext": ".zip", "unzip_type": 3},
        {"resId": "arrows", "url": "{base}/files/arrows.zip",
         "name": "arrows", "ext": ".zip", "unzip_type": 5},
    ]
    with open(os.path.join(HERE, "catalog.json"), "w") as out:
        out.write("[\n" + ",\n".join("  " + json.dumps(item)
                                     for item in catalog) + "\n]\n")


if __name__ == "__main__":
    main()
