#!/usr/bin/env python3
"""Builds a corpus of real files with Debian's tools, lays them into one image
at sector-aligned offsets with random filler between them, runs
`vellum-check carve` over it and prints, per format, what came back.

Usage: carve_corpus.py VELLUM_CHECK WORKDIR [--seed N]
Everything is written under WORKDIR. Exit status is 0 unless the carve
command itself fails: this is a measurement, not a test.
"""

import argparse
import hashlib
import json
import os
import random
import shutil
import struct
import subprocess
import sys
import time
from pathlib import Path

SECTOR = 512


def run(*args, cwd=None, stdin=None, stdout=subprocess.DEVNULL):
    subprocess.run(
        [str(a) for a in args],
        cwd=cwd,
        check=True,
        stdin=stdin,
        stdout=stdout,
        stderr=subprocess.DEVNULL,
    )


class Corpus:
    def __init__(self, root, rng):
        self.dir = root / "files"
        self.dir.mkdir(parents=True, exist_ok=True)
        self.rng = rng
        self.files = []  # (format label, expected ext, path)
        self.skipped = []  # (label, reason)

    def add(self, label, ext, path):
        if path.exists() and path.stat().st_size > 0:
            self.files.append((label, ext, path))
        else:
            self.skipped.append((label, f"{path.name} was not made"))

    def make(self, label, ext, name, producer):
        path = self.dir / name
        try:
            producer(path)
        except (subprocess.CalledProcessError, OSError, ValueError) as error:
            self.skipped.append((label, f"{name}: {error}"))
            return None
        self.add(label, ext, path)
        return path

    # --- images -----------------------------------------------------------
    def images(self):
        sizes = [(64, 48), (320, 240), (800, 600), (1600, 1200)]
        for i, (w, h) in enumerate(sizes):
            src = f"plasma:fractal" if i % 2 else "gradient:blue-yellow"
            self.make("png", "png", f"img{i}.png",
                      lambda p, w=w, h=h, s=src: run("convert", "-size", f"{w}x{h}", s, p))
        # Noise does not compress: a PNG of a few MB.
        self.make("png", "png", "noise.png",
                  lambda p: run("convert", "-size", "900x700", "xc:", "+noise", "Random", p))
        for i, (w, h) in enumerate(sizes + [(2400, 1800)]):
            self.make("jpeg", "jpg", f"img{i}.jpg",
                      lambda p, w=w, h=h, i=i: run("convert", "-size", f"{w}x{h}", "plasma:fractal",
                                                   "-quality", str(60 + 8 * i), p))
        # A photo with an EXIF thumbnail: a whole JPEG inside its APP1 segment.
        thumb = self.dir / "thumb.jpg"
        try:
            run("convert", "-size", "160x120", "plasma:fractal", thumb)
            self.make("jpeg", "jpg", "exif-thumb.jpg",
                      lambda p: (run("convert", "-size", "1024x768", "plasma:fractal", p),
                                 run("exiftool", "-q", "-overwrite_original", "-Make=Vellum",
                                     f"-ThumbnailImage<={thumb}", p)))
        except (subprocess.CalledProcessError, FileNotFoundError) as error:
            self.skipped.append(("jpeg", f"exif thumbnail: {error}"))
        for i, (w, h) in enumerate(sizes[:3]):
            self.make("gif", "gif", f"img{i}.gif",
                      lambda p, w=w, h=h: run("convert", "-size", f"{w}x{h}", "plasma:fractal", p))
        self.make("gif", "gif", "anim.gif",
                  lambda p: run("convert", "-delay", "10", "-size", "200x150", "plasma:fractal",
                                "plasma:fractal", "plasma:fractal", "-loop", "0", p))
        for i, (w, h) in enumerate(sizes[:3]):
            self.make("bmp", "bmp", f"img{i}.bmp",
                      lambda p, w=w, h=h: run("convert", "-size", f"{w}x{h}", "plasma:fractal", p))
        self.make("bmp", "bmp", "v3.bmp",
                  lambda p: run("convert", "-size", "333x111", "plasma:fractal", f"BMP3:{p}"))
        tiff_options = [
            ("plain.tif", ["-compress", "none"]),
            ("lzw.tif", ["-compress", "lzw"]),
            ("msb.tif", ["-endian", "MSB", "-compress", "none"]),
            ("tiled.tif", ["-define", "tiff:tile-geometry=64x64", "-compress", "zip"]),
        ]
        for name, options in tiff_options:
            self.make("tiff", "tif", name,
                      lambda p, o=options: run("convert", "-size", "640x480", "plasma:fractal",
                                               *o, p))
        self.make("tiff", "tif", "exif.tif",
                  lambda p: (run("convert", "-size", "500x300", "plasma:fractal", "-compress",
                                 "lzw", p),
                             run("exiftool", "-q", "-overwrite_original", "-Artist=Vellum",
                                 "-ExposureTime=1/250", "-GPSLatitude=48.1", p)))
        self.make("png", "png", "interlaced.png",
                  lambda p: run("convert", "-size", "500x400", "plasma:fractal", "-interlace",
                                "PNG", p))
        self.make("jpeg", "jpg", "progressive.jpg",
                  lambda p: run("convert", "-size", "700x500", "plasma:fractal", "-interlace",
                                "JPEG", p))
        self.make("bmp", "bmp", "alpha.bmp",
                  lambda p: run("convert", "-size", "300x200", "gradient:#ff000080-#0000ffff", p))
        self.make("gif", "gif", "comment.gif",
                  lambda p: run("convert", "-size", "120x90", "plasma:fractal", "-comment",
                                "made for the corpus", p))
        self.make("tiff", "tif", "pages.tif",
                  lambda p: run("convert", "-size", "300x200", "plasma:fractal", "plasma:fractal",
                                "plasma:fractal", "-compress", "lzw", p))

        # Raw-like TIFFs: a DNGVersion tag, and a sensor (CFA) photometric with
        # a camera maker.
        def dng(p):
            run("convert", "-size", "512x384", "plasma:fractal", "-compress", "none", f"TIFF:{p}")
            run("tiffset", "-s", "50706", "4", "1", "4", "0", "0", p)

        self.make("dng", "dng", "raw.dng", dng)

        def nef(p):
            run("convert", "-size", "400x300", "plasma:fractal", "-colorspace", "gray",
                "-compress", "none", f"TIFF:{p}")
            run("tiffset", "-s", "271", "NIKON CORPORATION", p)
            run("tiffset", "-s", "262", "32803", p)

        self.make("nef", "nef", "raw.nef", nef)
        for i, (w, h) in enumerate(sizes[:3]):
            self.make("webp", "webp", f"img{i}.webp",
                      lambda p, w=w, h=h: run("convert", "-size", f"{w}x{h}", "plasma:fractal", p))

    # --- audio and video ------------------------------------------------------
    def media(self):
        def ff(*args):
            return lambda p: run("ffmpeg", "-nostdin", "-y", "-loglevel", "error", *args, p)

        video = ["-f", "lavfi", "-i"]
        tone = ["-f", "lavfi", "-i", "sine=frequency=440:duration={d}"]
        for i, (d, size) in enumerate([(1, "160x120"), (3, "320x240"), (6, "640x480")]):
            src = video + [f"testsrc=duration={d}:size={size}:rate=25"]
            audio = [a.format(d=d) for a in tone]
            self.make("mp4", "mp4", f"v{i}.mp4",
                      ff(*src, *audio, "-c:v", "libx264", "-pix_fmt", "yuv420p", "-c:a", "aac",
                         "-shortest"))
            self.make("mov", "mov", f"v{i}.mov",
                      ff(*src, *audio, "-c:v", "mjpeg", "-c:a", "pcm_s16le", "-shortest"))
            self.make("avi", "avi", f"v{i}.avi",
                      ff(*src, *audio, "-c:v", "mpeg4", "-c:a", "pcm_s16le", "-shortest"))
        self.make("mp4", "mp4", "faststart.mp4",
                  ff(*video, "testsrc=duration=2:size=320x240:rate=25", "-c:v", "libx264",
                     "-pix_fmt", "yuv420p", "-movflags", "+faststart"))
        self.make("mp4", "mp4", "fragmented.mp4",
                  ff(*video, "testsrc=duration=3:size=320x240:rate=25", "-c:v", "libx264",
                     "-pix_fmt", "yuv420p", "-movflags", "frag_keyframe+empty_moov", "-g", "25"))
        self.make("mp4", "mp4", "big.mp4",
                  ff(*video, "testsrc2=duration=8:size=1280x720:rate=25", "-c:v", "libx264",
                     "-pix_fmt", "yuv420p", "-b:v", "12M"))
        # Mono 8-bit with an odd number of samples: the form's size is odd and
        # a pad byte follows.
        self.make("aiff", "aiff", "odd.aiff",
                  lambda p: run("sox", "-n", "-r", "8000", "-c", "1", "-b", "8", p, "synth",
                                "4001s", "sine", "300"))
        for i, d in enumerate([1, 4]):
            self.make("3gp", "3gp", f"v{i}.3gp",
                      ff(*video, f"testsrc=duration={d}:size=176x144:rate=15",
                         *[a.format(d=d) for a in tone], "-c:v", "h263", "-c:a", "aac", "-ar",
                         "8000", "-ac", "1", "-shortest"))
        for i, d in enumerate([1, 5, 20]):
            audio = [a.format(d=d) for a in tone]
            self.make("m4a", "m4a", f"a{i}.m4a", ff(*audio, "-c:a", "aac"))
            self.make("wav", "wav", f"a{i}.wav", ff(*audio, "-ar", "22050"))
            self.make("aiff", "aiff", f"a{i}.aiff", ff(*audio))
            wav = self.dir / f"a{i}.wav"
            self.make("mp3", "mp3", f"id3-{i}.mp3",
                      lambda p, w=wav, i=i: run("lame", "--quiet", "-b", str(64 * (i + 1)),
                                                "--add-id3v2", "--tt", f"Tone {i}", "--ta",
                                                "Vellum", w, p))
            self.make("mp3 (ID3v2 + ID3v1)", "mp3", f"id3both-{i}.mp3",
                      lambda p, w=wav, i=i: run("lame", "--quiet", "-V", str(2 + i), "--add-id3v2",
                                                "--tt", f"Tone {i}", w, p))
            self.make("mp3 (no ID3v2)", "mp3", f"bare-{i}.mp3",
                      lambda p, w=wav: run("lame", "--quiet", "--id3v1-only", "--tt", "Bare", w, p))
        self.make("aiff", "aiff", "sox.aiff",
                  lambda p: run("sox", "-n", "-r", "16000", "-c", "1", p, "synth", "2", "sine", "300"))
        self.make("mp3", "mp3", "ffmpeg.mp3", ff(*[a.format(d=3) for a in tone], "-c:a", "libmp3lame"))

    # --- documents --------------------------------------------------------------
    def documents(self):
        text_dir = self.dir / "text"
        text_dir.mkdir(exist_ok=True)
        words = "card memory genuine fake capacity sector flash speed health wipe proof".split()
        texts, sheets = [], []
        for i, count in enumerate([50, 2000, 40000]):
            t = text_dir / f"t{i}.txt"
            t.write_text("\n".join(" ".join(self.rng.choice(words) for _ in range(12))
                                   for _ in range(count // 12 + 1)))
            texts.append(t)
            c = text_dir / f"s{i}.csv"
            c.write_text("\n".join(",".join(str(self.rng.randint(0, 99999)) for _ in range(8))
                                   for _ in range(count // 8 + 1)))
            sheets.append(c)
        slides = []
        for i, n in enumerate([1, 6]):
            f = text_dir / f"p{i}.fodp"
            pages = "".join(
                f'<draw:page draw:name="p{k}"><draw:frame svg:x="2cm" svg:y="2cm" svg:width="20cm" '
                f'svg:height="3cm"><draw:text-box><text:p>Slide {k} '
                + " ".join(self.rng.choice(words) for _ in range(30))
                + "</text:p></draw:text-box></draw:frame></draw:page>" for k in range(n))
            f.write_text(
                '<?xml version="1.0"?><office:document '
                'xmlns:office="urn:oasis:names:tc:opendocument:xmlns:office:1.0" '
                'xmlns:draw="urn:oasis:names:tc:opendocument:xmlns:drawing:1.0" '
                'xmlns:text="urn:oasis:names:tc:opendocument:xmlns:text:1.0" '
                'xmlns:svg="urn:oasis:names:tc:opendocument:xmlns:svg-compatible:1.0" '
                'office:version="1.2" office:mimetype="application/vnd.oasis.opendocument.presentation">'
                f"<office:body><office:presentation>{pages}</office:presentation></office:body>"
                "</office:document>")
            slides.append(f)

        office = self.dir / "office"
        office.mkdir(exist_ok=True)
        profile = (self.dir.parent / "lo-profile").resolve()
        jobs = [("docx", texts, "docx"), ("odt", texts, "odt"), ("doc", texts, "doc"),
                ("xlsx", sheets, "xlsx"), ("ods", sheets, "ods"), ("xls", sheets, "xls"),
                ("pptx", slides, "pptx"), ("odp", slides, "odp"), ("ppt", slides, "ppt"),
                ("pdf", texts[:2], "pdf")]
        for label, sources, target in jobs:
            out = office / target
            try:
                run("soffice", f"-env:UserInstallation=file://{profile}", "--headless",
                    "--convert-to", target, "--outdir", out, *sources)
            except (subprocess.CalledProcessError, FileNotFoundError) as error:
                self.skipped.append((label, f"libreoffice: {error}"))
                continue
            for s in sources:
                self.add(label, target, out / f"{s.stem}.{target}")

        # ImageMagick's policy on Debian forbids writing PDF; Draw embeds the image.
        photo = self.dir / "img2.jpg"
        if photo.exists():
            try:
                run("soffice", f"-env:UserInstallation=file://{profile}", "--headless",
                    "--convert-to", "pdf", "--outdir", office / "image", photo)
                self.add("pdf", "pdf", office / "image" / "img2.pdf")
            except (subprocess.CalledProcessError, FileNotFoundError) as error:
                self.skipped.append(("pdf", f"libreoffice: {error}"))
        self.make("pdf", "pdf", "gs.pdf",
                  lambda p: run("gs", "-q", "-dBATCH", "-dNOPAUSE", "-sDEVICE=pdfwrite",
                                f"-sOutputFile={p}", "-c",
                                "/Helvetica findfont 20 scalefont setfont 72 700 moveto "
                                "(Vellum) show showpage 72 700 moveto (page two) show showpage"))
        base = self.dir / "gs.pdf"
        if base.exists():
            self.make("pdf (incremental update)", "pdf", "updated.pdf",
                      lambda p: p.write_bytes(incremental_update(base.read_bytes())))
            self.make("pdf (linearized)", "pdf", "linear.pdf",
                      lambda p: run("qpdf", "--linearize", base, p))

        # Archives.
        archive_src = self.dir / "archive-src"
        archive_src.mkdir(exist_ok=True)
        for i, t in enumerate(texts):
            shutil.copy(t, archive_src / t.name)
        for name in ["img0.png", "img1.jpg", "a0.wav"]:
            if (self.dir / name).exists():
                shutil.copy(self.dir / name, archive_src / name)
        self.make("zip", "zip", "plain.zip",
                  lambda p: run("zip", "-q", "-r", p, ".", cwd=archive_src))
        self.make("zip (zip64)", "zip", "zip64.zip",
                  lambda p: run("zip", "-q", "-fz", "-r", p, ".", cwd=archive_src))
        self.make("zip", "zip", "stored.zip",
                  lambda p: run("zip", "-q", "-0", "-r", p, ".", cwd=archive_src))

        def streamed(p):
            # Written to a pipe, zip cannot seek back: sizes go in data descriptors.
            with open(p, "wb") as out:
                subprocess.run(["zip", "-q", "-r", "-", "."], cwd=archive_src, stdout=out,
                               check=True, stderr=subprocess.DEVNULL)

        self.make("zip (data descriptors)", "zip", "streamed.zip", streamed)
        self.make("zip", "zip", "comment.zip",
                  lambda p: (run("zip", "-q", "-r", p, ".", cwd=archive_src),
                             subprocess.run(["zip", "-q", "-z", str(p)], input=b"Made for the corpus\n",
                                            check=True)))

        jar_src = self.dir / "jar-src"
        (jar_src / "org" / "vellum").mkdir(parents=True, exist_ok=True)
        (jar_src / "org" / "vellum" / "Main.class").write_bytes(
            b"\xca\xfe\xba\xbe" + bytes(self.rng.randrange(256) for _ in range(3000)))
        self.make("jar", "jar", "app.jar",
                  lambda p: run("jar", "cf", p, "-C", jar_src, "."))

        epub_src = self.dir / "epub-src"
        (epub_src / "META-INF").mkdir(parents=True, exist_ok=True)
        (epub_src / "OEBPS").mkdir(exist_ok=True)
        (epub_src / "mimetype").write_text("application/epub+zip")
        (epub_src / "META-INF" / "container.xml").write_text(
            '<?xml version="1.0"?><container version="1.0" '
            'xmlns="urn:oasis:names:tc:opendocument:xmlns:container"><rootfiles>'
            '<rootfile full-path="OEBPS/content.opf" media-type="application/oebps-package+xml"/>'
            "</rootfiles></container>")
        (epub_src / "OEBPS" / "content.opf").write_text(
            '<?xml version="1.0"?><package xmlns="http://www.idpf.org/2007/opf" version="3.0">'
            "<metadata/><manifest><item id=\"c\" href=\"c.xhtml\" media-type=\"application/xhtml+xml\"/>"
            "</manifest><spine><itemref idref=\"c\"/></spine></package>")
        (epub_src / "OEBPS" / "c.xhtml").write_text(
            "<html><body><p>" + texts[1].read_text() + "</p></body></html>")

        def epub(p):
            run("zip", "-q", "-X", "-0", p, "mimetype", cwd=epub_src)
            run("zip", "-q", "-X", "-r", p, "META-INF", "OEBPS", cwd=epub_src)

        self.make("epub", "epub", "book.epub", epub)


def incremental_update(pdf):
    """Appends one incremental update (a changed Info dictionary) the way
    editors do: new objects, an xref section for them, and a trailer with /Prev."""
    startxref = pdf.rindex(b"startxref")
    prev = int(pdf[startxref + len(b"startxref"):].split()[0])
    trailer = pdf[pdf.rindex(b"trailer"):startxref]
    size = int(trailer.split(b"/Size")[1].split()[0])
    root = trailer.split(b"/Root")[1].split(b"R")[0].strip() + b" R"
    if not pdf.endswith(b"\n"):
        pdf += b"\n"
    obj_at = len(pdf)
    obj = (f"{size} 0 obj\n<< /Title (Updated) /Producer (corpus) >>\nendobj\n").encode()
    xref_at = obj_at + len(obj)
    xref = (f"xref\n0 1\n0000000000 65535 f \n{size} 1\n{obj_at:010d} 00000 n \n"
            f"trailer\n<< /Size {size + 1} /Root ").encode() + root + (
        f" /Info {size} 0 R /Prev {prev} >>\nstartxref\n{xref_at}\n%%EOF\n").encode()
    return pdf + obj + xref


def sha256(data):
    return hashlib.sha256(data).hexdigest()


class Image:
    def __init__(self, path, rng):
        self.path = path
        self.rng = rng
        self.out = open(path, "wb")
        self.planted = []  # dicts: label, ext, offset, length, sha256, trap
        self.filler()

    def filler(self):
        kind = self.rng.random()
        if kind < 0.6:
            sectors = self.rng.randint(2, 40)
        else:
            sectors = self.rng.randint(40, 600)
        pad = (-self.out.tell()) % SECTOR
        data = os.urandom(pad + sectors * SECTOR)
        if kind > 0.9:
            data = bytes(len(data))  # some never-written space too
        self.out.write(data)

    def put(self, label, ext, data, trap=None, then_filler=True):
        assert self.out.tell() % SECTOR == 0
        self.planted.append({"label": label, "ext": ext, "offset": self.out.tell(),
                             "length": len(data), "sha256": sha256(data), "trap": trap})
        self.out.write(data)
        if then_filler:
            self.filler()

    def close(self):
        self.out.close()


def plant(corpus, image_path, rng):
    files = list(corpus.files)
    rng.shuffle(files)
    by_label = {}
    for label, ext, path in files:
        by_label.setdefault(label, []).append(path)
    image = Image(image_path, rng)
    traps_at = {len(files) // 4, len(files) // 2, 3 * len(files) // 4}
    for index, (label, ext, path) in enumerate(files):
        image.put(label, ext, path.read_bytes())
        if index in traps_at:
            traps_at.discard(index)
            plant_trap(image, by_label, len(traps_at))
    image.close()
    return image.planted


def plant_trap(image, by_label, which):
    """Lays one or two of the deliberately broken files."""
    jpegs = by_label.get("jpeg", [])
    pngs = by_label.get("png", [])
    mp4s = by_label.get("mp4", [])
    zips = by_label.get("zip", [])
    if which == 2 and len(jpegs) >= 2:
        # A JPEG cut mid-scan (no FF D9) followed at once by a whole one.
        cut = max(jpegs, key=lambda j: j.stat().st_size).read_bytes()
        cut = cut[: (len(cut) // 2) // SECTOR * SECTOR]
        image.put("jpeg cut short", "jpg", cut,
                  trap="JPEG without its end, followed directly by another JPEG",
                  then_filler=False)
        image.put("jpeg", "jpg", jpegs[0].read_bytes(),
                  trap="the whole JPEG right after the cut one")
        if pngs:
            data = pngs[-1].read_bytes()
            image.put("png cut short", "png", data[: len(data) * 2 // 3],
                      trap="PNG cut before IEND")
    elif which == 1 and mp4s:
        data = bytearray(mp4s[0].read_bytes())
        at = find_box(data, b"mdat")
        if at is not None:
            size = struct.unpack(">I", data[at:at + 4])[0]
            data[at:at + 4] = struct.pack(">I", size + 3_000_000)
            image.put("mp4 mdat too long", "mp4", bytes(data),
                      trap="MP4 whose mdat size runs 3 MB past the file's end")
        if len(mp4s) > 1:
            image.put("mp4", "mp4", mp4s[1].read_bytes(),
                      trap="the MP4 planted just after the one with the long mdat")
        if at is not None and jpegs and pngs:
            # The same overrun with no other MP4 inside it: only photos follow.
            image.put("mp4 mdat too long", "mp4", bytes(data),
                      trap="MP4 with the long mdat, followed by a JPEG and a PNG (no MP4)")
            image.put("jpeg", "jpg", jpegs[0].read_bytes(),
                      trap="the JPEG inside the long mdat's claimed span")
            image.put("png", "png", pngs[0].read_bytes(),
                      trap="the PNG inside the long mdat's claimed span")
    elif which == 0 and zips:
        data = zips[0].read_bytes()
        directory = data.rfind(b"PK\x05\x06")
        directory = struct.unpack("<I", data[directory + 16:directory + 20])[0]
        image.put("zip without central directory", "zip", data[:directory],
                  trap="ZIP cut before its central directory")


def find_box(data, kind):
    at = 0
    while at + 8 <= len(data):
        size, name = struct.unpack(">I4s", data[at:at + 8])
        if name == kind:
            return at
        if size == 1:
            size = struct.unpack(">Q", data[at + 8:at + 16])[0]
        if size < 8:
            return None
        at += size
    return None


def analyse(planted, report, out_dir, image_size):
    carved = {f["start"]: f for f in report["files"]}
    starts = sorted(planted, key=lambda p: p["offset"])

    def carved_hash(f):
        path = Path(f["outputPath"]) if "outputPath" in f else None
        if path is None:
            return None
        if not path.is_absolute():
            path = out_dir / path
        return sha256(path.read_bytes()) if path.exists() else None

    rows = {}
    traps = []
    used = set()
    for p in starts:
        f = carved.get(p["offset"])
        if f is not None:
            used.add(p["offset"])
        if p["trap"]:
            traps.append((p, f))
            continue
        row = rows.setdefault(p["label"], {"planted": 0, "identical": 0, "other length": 0,
                                           "missing": 0, "wrong ext": 0, "heuristic": 0,
                                           "notes": []})
        row["planted"] += 1
        if f is None:
            row["missing"] += 1
            row["notes"].append(f"missing at {p['offset']} ({p['length']} bytes)")
            continue
        if f["ext"] != p["ext"]:
            row["wrong ext"] += 1
            row["notes"].append(f"at {p['offset']}: carved as {f['ext']}")
        if f["confidence"] == "heuristic":
            row["heuristic"] += 1
        if f["length"] == p["length"] and carved_hash(f) == p["sha256"]:
            row["identical"] += 1
        else:
            row["other length"] += 1
            row["notes"].append(f"at {p['offset']}: planted {p['length']}, carved "
                                f"{f['length']} ({f['confidence']})")

    # Finds that start where nothing was planted: inside a planted file, or in filler.
    extra = {}
    for start, f in carved.items():
        if start in used:
            continue
        inside = next((p for p in starts if p["offset"] < start < p["offset"] + p["length"]), None)
        where = f"inside {inside['label']}" if inside else "in filler"
        key = (f["ext"], where)
        extra[key] = extra.get(key, 0) + 1
    return rows, traps, extra


def print_results(rows, traps, extra, planted, report, command):
    print()
    print(f"Command: {command}")
    print(f"Image: {report['totalBytes']} bytes, {len(planted)} planted files "
          f"({sum(1 for p in planted if p['trap'])} of them traps), carve took "
          f"{report['duration']:.2f} s, {len(report['files'])} files found.")
    print()
    header = ("format", "planted", "identical", "other len", "missing", "wrong ext", "heuristic")
    print("{:<28} {:>7} {:>9} {:>9} {:>7} {:>9} {:>9}".format(*header))
    totals = [0] * 6
    for label in sorted(rows):
        r = rows[label]
        values = [r["planted"], r["identical"], r["other length"], r["missing"], r["wrong ext"],
                  r["heuristic"]]
        totals = [a + b for a, b in zip(totals, values)]
        print("{:<28} {:>7} {:>9} {:>9} {:>7} {:>9} {:>9}".format(label, *values))
    print("{:<28} {:>7} {:>9} {:>9} {:>7} {:>9} {:>9}".format("all", *totals))
    print()
    print("Found but not planted (start matches no planted file):")
    if not extra:
        print("  none")
    for (ext, where), count in sorted(extra.items()):
        print(f"  {ext:<6} {count:>4}  {where}")
    print()
    print("Traps:")
    for p, f in traps:
        got = ("nothing found at its start" if f is None else
               f"carved {f['ext']} {f['length']} bytes, {f['confidence']}")
        same = ""
        if f is not None:
            same = " (= planted length)" if f["length"] == p["length"] else \
                f" (planted {p['length']})"
        print(f"  {p['trap']}: {got}{same}")
    notes = [(label, n) for label, r in sorted(rows.items()) for n in r["notes"]]
    if notes:
        print()
        print("Details:")
        for label, n in notes:
            print(f"  {label}: {n}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("vellum_check")
    parser.add_argument("workdir")
    parser.add_argument("--seed", type=int, default=1)
    args = parser.parse_args()
    root = Path(args.workdir).resolve()
    rng = random.Random(args.seed)

    began = time.monotonic()
    corpus = Corpus(root, rng)
    corpus.images()
    corpus.media()
    corpus.documents()
    print(f"Made {len(corpus.files)} files in {time.monotonic() - began:.0f} s.")
    for label, reason in corpus.skipped:
        print(f"  not made ({label}): {reason}")

    image_path = root / "corpus.img"
    planted = plant(corpus, image_path, rng)
    (root / "planted.json").write_text(json.dumps(planted, indent=1))
    out_dir = root / "carved"
    shutil.rmtree(out_dir, ignore_errors=True)
    command = [args.vellum_check, "carve", str(image_path), "--out", str(out_dir)]
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    print(result.stdout.rstrip())
    if result.returncode != 0:
        print(f"vellum-check carve failed with status {result.returncode}", file=sys.stderr)
        return 1
    report = json.loads((out_dir / "vellum-report.json").read_text())
    rows, traps, extra = analyse(planted, report, out_dir, image_path.stat().st_size)
    print_results(rows, traps, extra, planted, report, " ".join(map(str, command)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
