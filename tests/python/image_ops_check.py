"""Checks pickora's image operators against numpy, through the MRC files the test wrote.

Usage: image_ops_check.py CHECK DIR
Each CHECK reads DIR/in.mrc and the outputs the test wrote beside it, and asserts that they are
what numpy makes of the input. Exit status 0 when all hold.
"""
import sys

import mrcfile
import numpy as np


def read(folder, name):
    with mrcfile.open(f"{folder}/{name}", permissive=False) as m:
        return np.array(m.data, dtype=np.float32)


def check_rotation(folder):
    a = read(folder, "in.mrc")[0]  # the commands take the first slice only
    turned = read(folder, "rot90.mrc")
    assert turned.shape == (1,) + a.shape, turned.shape
    # A quarter turn from +x toward +y; the border may lose pixels to rounding of cos(90).
    assert np.allclose(turned[0][1:-1, 1:-1], np.rot90(a, -1)[1:-1, 1:-1], atol=1e-5), "quarter turn"


def check_flips(folder):
    a = read(folder, "in.mrc")
    nz, ny, nx = a.shape
    t = a.transpose(0, 2, 1)
    expected = {0: a, 1: a[:, :, ::-1], 2: a[:, ::-1, :], 3: a[:, ::-1, ::-1], 4: t, 5: t[:, :, ::-1],
                6: t[:, ::-1, :], 7: a.reshape(nz, nx, ny)}
    for mode, want in expected.items():
        got = read(folder, f"flip{mode}.mrc")
        assert got.shape == want.shape and np.array_equal(got, want), f"flip mode {mode}"


def check_hotpixels(folder):
    a = read(folder, "in.mrc").astype(np.float64)
    got = read(folder, "hot.mrc")
    for z, s in enumerate(a):
        hot = np.abs(s - s.mean()) > s.std() * 3.0
        p = np.pad(s, 1, mode="edge")
        direct = p[1:-1, :-2] + p[1:-1, 2:] + p[:-2, 1:-1] + p[2:, 1:-1]
        diagonal = p[:-2, :-2] + p[:-2, 2:] + p[2:, :-2] + p[2:, 2:]
        assert hot.sum() >= 1
        assert np.allclose(got[z], np.where(hot, (2 * direct + diagonal) / 12, s), atol=1e-5), f"slice {z}"


def check_spectra(folder):
    a = read(folder, "in.mrc")[0]
    ny, nxh = a.shape
    fy = (np.arange(ny) - ny // 2).astype(np.float32)[:, None]
    fx = np.arange(nxh, dtype=np.float32)[None, :]
    f = np.sqrt(fx * fx + fy * fy).astype(np.float32)
    i = f.astype(int)
    e = (f - i).astype(np.float64)
    keep = i < nxh
    v = a.astype(np.float64)
    sums = np.bincount(i[keep], (1 - e[keep]) * v[keep], nxh + 1) + np.bincount(i[keep] + 1, e[keep] * v[keep], nxh + 1)
    weights = np.bincount(i[keep], 1 - e[keep], nxh + 1) + np.bincount(i[keep] + 1, e[keep], nxh + 1)
    assert np.allclose(read(folder, "average.mrc")[0, 0], (sums / weights)[:nxh], rtol=1e-5), "rotational average"
    rc = np.float32(2 * (nxh - 1)) * np.float32(1.0) / np.float32(4.0)
    damped = a * np.where(f < rc, np.exp(-((rc - f) ** 2) / (2 * (rc / 3) ** 2)), 1.0)
    assert np.allclose(read(folder, "smooth_device.mrc")[0], damped, rtol=1e-5), "device damping"
    damped[ny // 2, 0] = 0
    assert np.allclose(read(folder, "smooth_host.mrc")[0], damped, rtol=1e-5), "host damping"


if __name__ == "__main__":
    globals()["check_" + sys.argv[1]](sys.argv[2])
