"""Reference of the dose and drift weighted average, written from its formulas in numpy.

Usage: dose_weight_reference.py DIR
Reads DIR/params.txt ("nxh ny nz apix Ne_a Ne_b Da Db k mw_skeme wnorm_type host") and the
float32 files frames.f32 (nz x ny x nxh complex), dose.f32, drift.f32 (nz pairs) and ctfw.f32
(nxh); writes expected.f32 (ny x nxh complex) and mean.f32, the plain mean of the frames. host 1
follows the host rules: no radial table, the normaliser k + sum |w|, and scheme 1 with the fixed
curve exp(-dose s^1.31489 / 1.35172). All arithmetic is double precision.
"""
import sys

import numpy as np


def weights(p, s, theta, dose, drift, host):
    w = np.ones((len(dose),) + s.shape)
    for z, (dx, dy) in enumerate(drift):
        with np.errstate(divide="ignore", invalid="ignore"):
            if host and p["mw"] == 1:
                dw = np.exp(-dose[z] * s ** 1.31489 / 1.35172)
            else:
                dw = np.exp(-dose[z] * p["Ne_a"] * s ** p["Ne_b"])
            a = ((1 - p["Db"]) * np.abs(np.cos(theta - np.arctan2(dy, dx))) + p["Db"]) * p["Da"] * np.hypot(dx, dy)
            arg = s * 2 * np.pi * np.abs(a) * p["apix"]
            fw = np.where((s <= 0) | (arg == 0), 1.0, np.sin(arg) / np.where(arg == 0, 1, arg))
        w[z] = np.where(s == 0, 1.0, {0: np.ones_like(s), 1: dw, 2: fw, 3: dw * fw}[p["mw"]])
    return w


def main(folder):
    vals = open(f"{folder}/params.txt").read().split()
    nxh, ny, nz = (int(v) for v in vals[:3])
    p = {k: float(v) for k, v in zip(["apix", "Ne_a", "Ne_b", "Da", "Db", "k"], vals[3:9])}
    p["mw"], wnorm, host = int(vals[9]), int(vals[10]), int(vals[11])
    raw = {n: np.fromfile(f"{folder}/{n}.f32", dtype=np.float32).astype(np.float64)
           for n in ("frames", "dose", "drift", "ctfw")}
    frames = (raw["frames"][0::2] + 1j * raw["frames"][1::2]).reshape(nz, ny, nxh)
    x = np.arange(nxh)[None, :].astype(np.float64)
    yw = np.arange(ny)[:, None].astype(np.float64)
    yw = np.where(yw < ny // 2, yw, yw - ny)
    s = np.sqrt((x / (2 * (nxh - 1))) ** 2 + (yw / ny) ** 2) / p["apix"]
    w = weights(p, s, np.arctan2(yw, x), raw["dose"], raw["drift"].reshape(nz, 2), host)
    norm = p["k"] + (np.abs(w).sum(axis=0) if host or wnorm == 1 else np.sqrt((w * w).sum(axis=0)))
    out = np.where(norm == 0, 0, (w * frames).sum(axis=0) / np.where(norm == 0, 1, norm))
    if not host:
        ctfw = raw["ctfw"]
        r = np.minimum(np.hypot(x, yw), nxh - 1)
        i = np.floor(r).astype(int)
        j = np.minimum(i + 1, nxh - 1)
        out = out * (ctfw[i] + (r - i) * (ctfw[j] - ctfw[i]))
    for name, v in (("expected", out), ("mean", frames.mean(axis=0))):
        np.stack([v.real, v.imag], axis=-1).astype(np.float32).tofile(f"{folder}/{name}.f32")


if __name__ == "__main__":
    main(sys.argv[1])
