"""Reference of the dose and drift weighted average, written from its formulas in numpy.

Usage: dose_weight_reference.py DIR
Reads DIR/params.txt ("nxh ny nz apix Ne_a Ne_b Da Db k mw_skeme wnorm_type host"), the
float32 files DIR/frames.f32 (nz x ny x nxh complex, real part first), dose.f32 (nz),
drift.f32 (nz pairs) and ctfw.f32 (nxh), and writes DIR/expected.f32 (ny x nxh complex) and
DIR/mean.f32, the plain mean of the frames. host 1 follows the host rules: no radial table, the
normaliser k + sum |w|, and scheme 1 with the fixed curve exp(-dose s^1.31489 / 1.35172).
All arithmetic is double precision.
"""
import sys

import numpy as np


def weights(p, s, theta, dose, drift, host):
    nz = len(dose)
    w = np.ones((nz,) + s.shape)
    for z in range(nz):
        with np.errstate(divide="ignore", invalid="ignore"):
            if host and p["mw"] == 1:
                dw = np.exp(-dose[z] * s ** 1.31489 / 1.35172)
            else:
                dw = np.exp(-dose[z] * p["Ne_a"] * s ** p["Ne_b"])
            dx, dy = drift[z]
            c = np.cos(theta - np.arctan2(dy, dx))
            a = ((1 - p["Db"]) * np.abs(c) + p["Db"]) * p["Da"] * np.hypot(dx, dy)
            arg = s * 2 * np.pi * np.abs(a) * p["apix"]
            fw = np.where((s <= 0) | (arg == 0), 1.0, np.sin(arg) / np.where(arg == 0, 1, arg))
        wz = {0: np.ones_like(s), 1: dw, 2: fw, 3: dw * fw}[p["mw"]]
        w[z] = np.where(s == 0, 1.0, wz)
    return w


def main(folder):
    vals = open(f"{folder}/params.txt").read().split()
    nxh, ny, nz = (int(v) for v in vals[:3])
    keys = ["apix", "Ne_a", "Ne_b", "Da", "Db", "k"]
    p = {k: float(v) for k, v in zip(keys, vals[3:9])}
    p["mw"], wnorm, host = int(vals[9]), int(vals[10]), int(vals[11])
    f = np.fromfile(f"{folder}/frames.f32", dtype=np.float32).astype(np.float64)
    frames = (f[0::2] + 1j * f[1::2]).reshape(nz, ny, nxh)
    dose = np.fromfile(f"{folder}/dose.f32", dtype=np.float32).astype(np.float64)
    drift = np.fromfile(f"{folder}/drift.f32", dtype=np.float32).astype(np.float64).reshape(nz, 2)
    ctfw = np.fromfile(f"{folder}/ctfw.f32", dtype=np.float32).astype(np.float64)

    x = np.arange(nxh)[None, :].astype(np.float64)
    yw = np.arange(ny)[:, None].astype(np.float64)
    yw = np.where(yw < ny // 2, yw, yw - ny)
    s = np.sqrt((x / (2 * (nxh - 1))) ** 2 + (yw / ny) ** 2) / p["apix"]
    theta = np.arctan2(yw, x)
    w = weights(p, s, theta, dose, drift, host)
    total = (w * frames).sum(axis=0)
    if host or wnorm == 1:
        norm = p["k"] + np.abs(w).sum(axis=0)
    else:
        norm = p["k"] + np.sqrt((w * w).sum(axis=0))
    out = np.where(norm == 0, 0, total / np.where(norm == 0, 1, norm))
    if not host:
        r = np.minimum(np.hypot(x, yw), nxh - 1)
        i = np.floor(r).astype(int)
        j = np.minimum(i + 1, nxh - 1)
        out = out * (ctfw[i] + (r - i) * (ctfw[j] - ctfw[i]))
    pairs = np.stack([out.real, out.imag], axis=-1).astype(np.float32)
    pairs.tofile(f"{folder}/expected.f32")
    mean = frames.mean(axis=0)
    np.stack([mean.real, mean.imag], axis=-1).astype(np.float32).tofile(f"{folder}/mean.f32")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
