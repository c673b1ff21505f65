"""Checks the files pickora-image wrote in DIR, read with mrcfile, against numpy.

Usage: image_toolkit_check.py DIR
  rot.mrc     = img.mrc turned by 90 degrees about its centre: out[y, x] = in[n - 1 - x, y]
                inside the border (on the border the rounded cosine may put the source a hair
                outside the image, which gives 0)
  flip.mrcs   = stack.mrcs mirrored in x, slice by slice
  clean.mrcs  = hot.mrcs with its one hot pixel (slice 1, x 4, y 5) replaced by
                (2 x its direct neighbours + its diagonal neighbours) / 12, all else unchanged
  mean.mrc    = the mean of the frames of movie.mrcs
  patch.mrc   = image.mrc[28:34, 20:28], zero below the image's last row
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
    img = read(folder, "img.mrc")[0]
    rot = read(folder, "rot.mrc")[0]
    assert np.allclose(rot[1:-1, 1:-1], img[::-1, :].T[1:-1, 1:-1], atol=1e-4), "rotate"

    stack = read(folder, "stack.mrcs")
    assert np.array_equal(read(folder, "flip.mrcs"), stack[:, :, ::-1]), "flip"

    hot = read(folder, "hot.mrcs")
    want = hot.copy()
    s, x, y = 1, 4, 5
    direct = hot[s, y - 1, x] + hot[s, y + 1, x] + hot[s, y, x - 1] + hot[s, y, x + 1]
    diagonal = hot[s, y - 1, x - 1] + hot[s, y - 1, x + 1] + hot[s, y + 1, x - 1] + hot[s, y + 1, x + 1]
    want[s, y, x] = (2 * direct + diagonal) / 12
    assert np.allclose(read(folder, "clean.mrcs"), want, atol=1e-5), "hotpixels"

    movie = read(folder, "movie.mrcs")
    assert np.allclose(read(folder, "mean.mrc")[0], movie.mean(axis=0), atol=1e-5), "dose"

    image = read(folder, "image.mrc")[0]
    patch = np.zeros((6, 8))
    rows = image[28:34, 20:28]
    patch[: rows.shape[0]] = rows
    assert np.array_equal(read(folder, "patch.mrc")[0], patch), "ncs-average"
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
