"""Independent checks of pickora's CTF model and of pickora-ctfsim's images, in numpy.

The CTF here is written from the physics, not from pickora's code: the wavelength from the
electron's rest mass, charge and Planck's constant, the astigmatic defocus as
(U + V) / 2 + (U - V) / 2 cos(2 (theta - angle)), the amplitude contrast as arctan(ac / w).
Directions: theta is measured from the x axis (columns) toward the y axis (rows).

Usage:
  ctf_check.py zeros HALF.f32 NH NY APIX KV CS AC PS U V ANGLE
      HALF.f32: a half array (NH columns, NY rows, zero frequency at row NY / 2) of the sine of the
      total phase, whose first five sign changes along ANGLE and ANGLE + 90 degrees must lie within
      one Fourier pixel of the zeros computed here.
  ctf_check.py truth STAR
      For every image of a pickora-ctfsim truth table, the mean defocus and the angle that best
      explain the image's power spectrum, found here by a grid search, must match the truth.
"""
import sys

import mrcfile
import numpy as np

H, M0, E, C = 6.62607015e-34, 9.1093837015e-31, 1.602176634e-19, 299792458.0


def wavelength_A(kv):
    v = kv * 1e3
    return H / np.sqrt(2 * M0 * E * v * (1 + E * v / (2 * M0 * C * C))) * 1e10


def phase_terms(theta, kv, cs, ac, ps_deg, u, v, angle_deg):
    """The total phase is a s^2 - b s^4 + phi0."""
    lam = wavelength_A(kv)
    defocus = (u + v) / 2 + (u - v) / 2 * np.cos(2 * (theta - np.radians(angle_deg)))
    phi0 = np.arctan2(ac, np.sqrt(1 - ac * ac)) + np.radians(ps_deg)
    return np.pi * lam * defocus, np.pi / 2 * cs * 1e7 * lam**3, phi0


def zero_frequencies(k_max, theta, *ctf):
    """s of total phase = k pi, k = 1 .. k_max: the smaller root of a quadratic in s^2."""
    a, b, phi0 = phase_terms(theta, *ctf)
    c = np.arange(1, k_max + 1) * np.pi - phi0
    return np.sqrt((a - np.sqrt(a * a - 4 * b * c)) / (2 * b))


def sign_changes_on_ray(half, theta, count):
    ny, nh = half.shape
    cx, sy = np.cos(theta), np.sin(theta)
    if cx < 0:  # the half array holds the Friedel mate
        cx, sy = -cx, -sy
    radii, prev_r, prev_v = [], 0.0, half[ny // 2, 0]
    for r in np.arange(0.05, min(nh - 2, ny // 2 - 2), 0.05):
        row, col = ny // 2 + r * sy, r * cx  # bilinear interpolation
        r0, c0 = int(np.floor(row)), int(np.floor(col))
        fr, fc = row - r0, col - c0
        v = (1 - fr) * ((1 - fc) * half[r0, c0] + fc * half[r0, c0 + 1]) + fr * ((1 - fc) * half[r0 + 1, c0] +
                                                                                fc * half[r0 + 1, c0 + 1])
        if (v < 0) != (prev_v < 0):
            radii.append(prev_r + (r - prev_r) * prev_v / (prev_v - v))
            if len(radii) == count:
                break
        prev_r, prev_v = r, v
    return np.array(radii)


def check_zeros(path, nh, ny, apix, kv, cs, ac, ps, u, v, angle):
    half = np.fromfile(path, dtype=np.float32).reshape(ny, nh).astype(np.float64)
    nx = 2 * (nh - 1)
    assert nx == ny, "the check takes square images"
    worst = 0.0
    for direction in (angle, angle + 90.0):
        theta = np.radians(direction)
        expected = zero_frequencies(5, theta, kv, cs, ac, ps, u, v, angle) * apix * nx
        found = sign_changes_on_ray(half, theta, 5)
        assert len(found) == 5, f"only {len(found)} zeros along {direction} degrees"
        worst = max(worst, float(np.max(np.abs(found - expected))))
    print(f"largest zero distance {worst:.3f} Fourier pixels")
    return 0 if worst <= 1.0 else 1


def read_truth(path):
    labels, rows = [], []
    for line in open(path):
        line = line.strip()
        if line.startswith("_"):
            labels.append(line.split()[0])
        elif line and not line.startswith(("#", "data_", "loop_")):
            rows.append(dict(zip(labels, line.split())))
    return rows


def power_spectrum(image, box):
    """Mean periodogram of half-overlapping tiles, zero frequency at row box / 2 (half columns)."""
    ny, nx = image.shape
    step = box // 2
    tiles = [image[y:y + box, x:x + box] for y in range(0, ny - box + 1, step) for x in range(0, nx - box + 1, step)]
    return np.fft.fftshift(np.mean([np.abs(np.fft.rfft2(t - t.mean()))**2 for t in tiles], axis=0), axes=0)


def flattened(power, radius, band):
    """Power in the band over a smooth radial background: a cubic in the radius fitted to the logarithm of
    the mean power of each one-pixel ring in the band (the rings of the CTF average out)."""
    rings = radius.astype(int)
    mean = np.bincount(rings.ravel(), power.ravel()) / np.maximum(np.bincount(rings.ravel()), 1)
    used = np.unique(rings[band])
    return power[band] / np.exp(np.polyval(np.polyfit(used, np.log(mean[used]), 3), radius[band]))


def check_truth(star):
    failures = 0
    for row in read_truth(star):
        with mrcfile.open(row["_rlnMicrographName"], permissive=True) as f:
            image = np.asarray(f.data, dtype=np.float64)
        if image.ndim == 3:
            image = image.sum(axis=0)
        apix, kv, cs, ac, u, v, angle, ps = (float(row["_rln" + k]) for k in (
            "MicrographPixelSize", "Voltage", "SphericalAberration", "AmplitudeContrast", "DefocusU", "DefocusV",
            "DefocusAngle", "PhaseShift"))
        box = min(512, image.shape[0], image.shape[1])
        fy = (np.arange(box) - box // 2)[:, None] / box
        fx = np.arange(box // 2 + 1)[None, :] / box
        s, theta = np.hypot(fx, fy) / apix, np.arctan2(fy, np.broadcast_to(fx, (box, box // 2 + 1)))
        band = (s >= 1 / 40.0) & (s <= 1 / 8.0)
        p = flattened(power_spectrum(image, box), np.hypot(fx, fy) * box, band)
        s, theta = s[band], theta[band]

        def score(mean, ang):
            a, b, phi0 = phase_terms(theta, kv, cs, ac, ps, mean + (u - v) / 2, mean - (u - v) / 2, ang)
            return np.corrcoef(p, np.sin(a * s**2 - b * s**4 + phi0)**2)[0, 1]

        def best(values, score_of):
            return values[int(np.argmax([score_of(x) for x in values]))]

        mean = (u + v) / 2
        found = best(mean * np.arange(0.7, 1.3, 0.0025), lambda d: score(d, angle))
        ok = abs(found - mean) <= 0.01 * mean
        line = f"{row['_rlnMicrographName']}: mean defocus {mean:.0f}, found {found:.0f}"
        if u - v >= 500:
            found_angle = best(angle + np.arange(-90.0, 90.0, 1.0), lambda a: score(mean, a))
            ok = ok and abs(found_angle - angle) <= 5.0
            line += f"; angle {angle:.1f}, found {found_angle:.1f}"
        print(line + ("" if ok else "  MISMATCH"))
        failures += 0 if ok else 1
    return 1 if failures else 0


def main(argv):
    if argv[1] == "zeros":
        nums = [float(x) for x in argv[3:]]
        return check_zeros(argv[2], int(nums[0]), int(nums[1]), *nums[2:])
    if argv[1] == "truth":
        return check_truth(argv[2])
    print(__doc__)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
