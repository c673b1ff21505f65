"""Cross-checks pickora's MRC files with the mrcfile package.

Usage: mrc_interop.py DIR
Reads DIR/ours.mrc (written by pickora: a 7 x 5 x 3 ramp 0.25*i - 3) strictly and checks its
sizes, mode, data and statistics. Then writes a pattern in modes 0, 1, 2 and 6 as
DIR/m<mode>.mrc, and beside each DIR/m<mode>.f32, the float32 values pickora must read from
it: mode 0 is taken as unsigned bytes, so signed bytes from mrcfile read as their unsigned
twins.
"""
import sys

import mrcfile
import numpy as np


def check_ours(folder):
    with mrcfile.open(f"{folder}/ours.mrc", permissive=False) as m:
        data = m.data
        assert data.shape == (3, 5, 7), data.shape
        assert data.dtype == np.float32, data.dtype
        expected = (0.25 * np.arange(105, dtype=np.float32) - 3.0).astype(np.float32).reshape(3, 5, 7)
        assert np.array_equal(data, expected), "data differ"
        h = m.header
        assert int(h.mode) == 2
        assert float(h.dmin) == float(expected.min())
        assert float(h.dmax) == float(expected.max())
        assert abs(float(h.dmean) - float(expected.mean(dtype=np.float64))) < 1e-6


def write_modes(folder):
    pattern = (np.arange(105) * 7) % 250 - 100  # -100 .. 149
    for mode, dtype in ((0, np.int8), (1, np.int16), (2, np.float32), (6, np.uint16)):
        values = np.clip(pattern, np.iinfo(dtype).min, np.iinfo(dtype).max) if dtype != np.float32 else pattern
        values = values.astype(dtype).reshape(3, 5, 7)
        with mrcfile.new(f"{folder}/m{mode}.mrc", overwrite=True) as m:
            m.set_data(values)
            assert int(m.header.mode) == mode, (mode, int(m.header.mode))
        readable = values.view(np.uint8) if mode == 0 else values
        readable.astype(np.float32).tofile(f"{folder}/m{mode}.f32")


def main(folder):
    check_ours(folder)
    write_modes(folder)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
