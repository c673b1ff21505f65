"""Checks the files pickora-image wrote in DIR, read with mrcfile, against numpy.

Usage: image_toolkit_check.py DIR (the files the test in tests/test_image_toolkit.cpp made).
"""
import sys

import mrcfile
import numpy as np


def read(folder, name):
    """The data as nz x ny x nx."""
    with mrcfile.open(f"{folder}/{name}", permissive=False) as m:
        assert int(m.header.mode) == 2, (name, int(m.header.mode))
        data = np.array(m.data, dtype=np.float64)
        return data.reshape((-1,) + data.shape[-2:])


def main(folder):
    # A quarter turn about the centre, out[y, x] = in[n - 1 - x, y] inside the border (on the border
    # the rounded cosine may put the source a hair outside the image, which gives 0).
    img = read(folder, "img.mrc")[0]
    assert np.allclose(read(folder, "rot.mrc")[0][1:-1, 1:-1], img[::-1, :].T[1:-1, 1:-1], atol=1e-4), "rotate"
    assert np.array_equal(read(folder, "flip.mrcs"), read(folder, "stack.mrcs")[:, :, ::-1]), "flip in x"
    # The one hot pixel (slice 1, x 4, y 5) becomes (2 x its direct + its diagonal neighbours) / 12.
    hot = read(folder, "hot.mrcs")
    want, s, x, y = hot.copy(), 1, 4, 5
    direct = hot[s, y - 1, x] + hot[s, y + 1, x] + hot[s, y, x - 1] + hot[s, y, x + 1]
    diagonal = hot[s, y - 1, x - 1] + hot[s, y - 1, x + 1] + hot[s, y + 1, x - 1] + hot[s, y + 1, x + 1]
    want[s, y, x] = (2 * direct + diagonal) / 12
    assert np.allclose(read(folder, "clean.mrcs"), want, atol=1e-5), "hotpixels"
    assert np.allclose(read(folder, "mean.mrc")[0], read(folder, "movie.mrcs").mean(axis=0), atol=1e-5), "dose"
    patch = np.zeros((6, 8))  # the image's rectangle at (20, 28), zero below its last row
    rows = read(folder, "image.mrc")[0][28:34, 20:28]
    patch[: rows.shape[0]] = rows
    assert np.array_equal(read(folder, "patch.mrc")[0], patch), "ncs-average"


if __name__ == "__main__":
    main(sys.argv[1])
