"""Tuned shapes kept between processes.

The tuners of `ondrel._rocm` only measure; `record` turns one tuner's dict
into a record, `save` writes records to a JSON file, and `load` applies a
file's records through `set_shape_hint` in a later process.

File format (JSON, UTF-8)::

    {"format": "ondrel-tuning", "version": 1, "records": [record, ...]}

Each record::

    {"op": "stft" | "istft" | "mel" | "fft" | "rfft" | "cqt",
     "shape": {...},          # the words of its tuning key, by op (SHAPE_WORDS)
     "prec": 0 | 1 | 2 | 3,   # the tuner's precision code
     "device_name": str, "device_arch": str,
     "abi_version": int, "package_version": str,
     "result": {...}}         # the tuner's dict

`result` holds `ept`, `fpb`, `tpf`, `core`, `var` and `ms` for "stft",
"istft" and "mel"; `forward` and `inverse`, each such a dict, for "fft" and
"rfft"; `core`, `ms` and `octaves` (a list of [n_fft, hop]) for "cqt".
"""

from __future__ import annotations

import json
import os
import tempfile
from pathlib import Path

from . import _rocm

FORMAT = "ondrel-tuning"
VERSION = 1

SHAPE_WORDS = {
    "stft": ("n_fft", "hop", "center", "output"),
    "istft": ("n_fft", "hop", "center"),
    "mel": ("n_fft", "hop", "center", "output", "n_mels"),
    "fft": ("n",),
    "rfft": ("n",),
    "cqt": ("output",),
}
WORDS = ("ept", "fpb", "tpf", "core", "var")


def _package_version() -> str:
    from . import __version__

    return __version__


def _pow2(n: int) -> bool:
    return n >= 1 and n & (n - 1) == 0


def width_code(op: str, prec: int, n_fft: int = 0) -> int:
    """The width code under which an operation of this precision code looks up
    its hint: half arithmetic (8) only where the operation has it, the FFT
    and the power-of-two STFT and mel; elsewhere code 3 runs as half data."""
    if prec == 2:
        return 64
    if prec == 0:
        return 16
    if prec == 3:
        if op == "fft" or (op in ("stft", "mel") and _pow2(n_fft)):
            return 8
        return 16
    return 32


def _words(d: dict) -> dict:
    missing = [k for k in (*WORDS, "ms") if k not in d]
    if missing:
        raise ValueError(f"tuning: the result lacks {', '.join(missing)}")
    out = {k: int(d[k]) for k in WORDS}
    out["ms"] = float(d["ms"])
    return out


def record(op: str, shape: dict, result: dict, device: int = 0) -> dict:
    """A record of one tuner's `result` for `shape`: a dict with the words of
    the op's tuning key (SHAPE_WORDS[op]) and `prec`, the tuner's precision
    code. The device's name and architecture are read from `device`."""
    if op not in SHAPE_WORDS:
        raise ValueError(f"tuning: op must be one of {', '.join(SHAPE_WORDS)}")
    if not result:
        raise ValueError("tuning: an empty result (the tuner refused the shape) has nothing to record")
    missing = [k for k in (*SHAPE_WORDS[op], "prec") if k not in shape]
    if missing:
        raise ValueError(f"tuning: the {op} shape lacks {', '.join(missing)}")
    prec = int(shape["prec"])
    if op == "rfft" and prec == 3:
        prec = 1  # the real FFT's tuner measures code 3 in single precision
    words = {k: shape[k] for k in SHAPE_WORDS[op]}
    for k in ("n_fft", "hop", "n_mels", "n"):
        if k in words:
            words[k] = int(words[k])
    if "center" in words:
        words["center"] = bool(words["center"])
    if op in ("fft", "rfft"):
        kept = {"forward": _words(result["forward"]), "inverse": _words(result["inverse"])}
    elif op == "cqt":
        kept = {"core": int(result["core"]), "ms": float(result["ms"]),
                "octaves": [[int(n), int(h)] for n, h in result["octaves"]]}
    else:
        kept = _words(result)
    return {
        "op": op,
        "shape": words,
        "prec": prec,
        "device_name": _rocm.device_name(device),
        "device_arch": _rocm.device_arch(device),
        "abi_version": _rocm.abi_version(),
        "package_version": _package_version(),
        "result": kept,
    }


def save(path, records) -> None:
    """Writes `records` to `path`, replacing the file whole (never half written)."""
    path = Path(path)
    doc = {"format": FORMAT, "version": VERSION, "records": list(records)}
    fd, tmp = tempfile.mkstemp(dir=path.parent, prefix=path.name + ".", suffix=".tmp")
    try:
        with os.fdopen(fd, "w", encoding="utf-8") as f:
            json.dump(doc, f, indent=1)
        os.replace(tmp, path)
    except BaseException:
        os.unlink(tmp)
        raise


def _hints(rec: dict):
    """(op, n_fft, hop, center, width, output, extra, words) of each hint a record makes."""
    op, shape, prec, res = rec["op"], rec["shape"], int(rec["prec"]), rec["result"]
    if op in ("fft", "rfft"):
        n = shape["n"]
        w = width_code(op, prec, n)
        return [(op, n, 0, inverse, w, "", 0, res["inverse" if inverse else "forward"]) for inverse in (False, True)]
    if op == "cqt":
        words = {"ept": 0, "fpb": 0, "tpf": 0, "core": res["core"], "var": 0}
        return [(op, n_fft, hop, False, width_code(op, prec), shape["output"], 0, words)
                for n_fft, hop in res["octaves"]]
    n_fft = shape["n_fft"]
    return [(op, n_fft, shape["hop"], shape["center"], width_code(op, prec, n_fft), shape.get("output", ""),
             shape.get("n_mels", 0), res)]


def load(path, device: int = 0) -> tuple[int, int]:
    """Applies each record of the file at `path` to `device` through
    set_shape_hint; records made on another architecture, device name or
    interface revision are skipped. Returns (applied, skipped) records."""
    doc = json.loads(Path(path).read_text(encoding="utf-8"))
    if doc.get("format") != FORMAT or doc.get("version") != VERSION:
        raise ValueError(f"tuning: {path} is not an {FORMAT} file of version {VERSION}")
    here = (_rocm.device_name(device), _rocm.device_arch(device), _rocm.abi_version())
    applied = skipped = 0
    for rec in doc["records"]:
        if (rec["device_name"], rec["device_arch"], rec["abi_version"]) != here:
            skipped += 1
            continue
        for op, n_fft, hop, center, width, output, extra, w in _hints(rec):
            _rocm.set_shape_hint(op, n_fft, hop, center, width, output, extra, device,
                                 w["ept"], w["fpb"], w["tpf"], w["core"], w["var"])
        applied += 1
    return applied, skipped
