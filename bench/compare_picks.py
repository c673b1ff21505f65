#!/usr/bin/env python3
"""Compares two runs of the picker whose FFT plans differ, within the rounding of single precision.

    compare_picks.py [--cc_cutoff C] [--min_dist D] [--label L] REFERENCE_DIR OTHER_DIR

Both folders hold the same micrographs' outputs: STEM_pickora.star and, when the runs wrote them
(--write_ccmax_mic), STEM_ccmax.mrc. Another FFT plan sums in another order, so the maps may
differ in their last bits; the picks must not, except where the picks depend on a comparison of
two numbers that lie within that rounding of each other.

The tolerance. A single-precision FFT of n points rounds each value by about eps per stage of
its log2(n) stages (eps = 2**-24), and errors of random sign add up as the square root of their
count; bounded, they add up linearly. Matching chains a forward transform of the image and one
of the template with an inverse one, so an output value may move by up to
    tau = 3 * log2(n) * eps
of the largest value of its map (a bound on what rounding can reach, not a typical value: the
typical difference is far smaller). For a work image of 1024 x 1024 that is 3.6e-6. Scores are
printed with 6 decimals, which adds up to 5e-7 to each printed value.

Maps: every pixel of every template's map must agree within tau times the map's largest
magnitude. Picks: rows equal in coordinates, class and angle are the same pick, and their scores
must agree within that rounding (tau times the largest map value, plus the printing). Every
other row must be one of these near ties, each listed:
  angle     same coordinates and class, another angle: two angles' correlations within rounding;
  neighbour a pick on one side and, within the minimum distance, one on the other side whose
            scores lie within rounding of each other (the two competed, and the order flipped);
  cut-off   a pick on one side only whose score lies within rounding of the cut-off.
Anything else is a real difference. Prints the table and exits with 1 when a map is outside the
tolerance or a pick differs for no such reason.
"""
import argparse
import glob
import math
import os
import sys

import numpy as np

EPS = 2.0 ** -24
PRINT_ROUNDING = 5e-7


def read_star(path):
    """Rows of (x, y, psi, class, score) of a pick file, in file order."""
    rows = []
    with open(path) as f:
        for line in f:
            fields = line.split()
            if len(fields) == 5 and not line.startswith("_"):
                x, y, psi, cls, score = fields
                rows.append((int(x), int(y), float(psi), int(cls), float(score)))
    return rows


def read_maps(path):
    """The stack of one ccmax file as float32, slices first; None when absent."""
    if not os.path.exists(path):
        return None
    import mrcfile
    with mrcfile.open(path, permissive=True) as m:
        data = np.asarray(m.data, dtype=np.float32)
    return data.reshape((-1,) + data.shape[-2:])


def tolerance(maps):
    """tau for maps of this size (one slice is ny x nx)."""
    n = maps.shape[-1] * maps.shape[-2]
    return 3.0 * math.log2(n) * EPS


def compare_maps(ref, other):
    """(largest difference relative to its map's largest magnitude, tau) over all slices."""
    worst = 0.0
    for a, b in zip(ref, other):
        scale = float(np.max(np.abs(a)))
        if scale > 0:
            worst = max(worst, float(np.max(np.abs(a.astype(np.float64) - b))) / scale)
    return worst, tolerance(ref)


def near(p, q, min_dist):
    return (p[0] - q[0]) ** 2 + (p[1] - q[1]) ** 2 < min_dist ** 2


def explain(only_ref, only_other, slack, cc_cutoff, min_dist):
    """Each unmatched pick with its reason (or 'UNEXPLAINED') and the gap behind it."""
    cases = []
    left = list(only_other)
    for p in only_ref:
        same_place = [q for q in left if q[:2] == p[:2] and q[3] == p[3]]
        if same_place:
            q = same_place[0]
            left.remove(q)
            gap = abs(p[4] - q[4])
            cases.append(("angle" if gap <= slack else "UNEXPLAINED", p, q, gap))
    for side, picks, others in (("reference", only_ref, only_other), ("other", only_other, only_ref)):
        paired = {id(c[1]) for c in cases} | {id(c[2]) for c in cases}
        for p in picks:
            if id(p) in paired:
                continue
            rivals = [q for q in others if near(p, q, min_dist)]
            gaps = [abs(p[4] - q[4]) for q in rivals]
            if gaps and min(gaps) <= 3 * slack:
                q = rivals[gaps.index(min(gaps))]
                cases.append(("neighbour", p, q, min(gaps)) if side == "reference" else ("neighbour", q, p, min(gaps)))
            elif abs(p[4] - cc_cutoff) <= slack:
                cases.append(("cut-off", p, None, abs(p[4] - cc_cutoff)) if side == "reference"
                             else ("cut-off", None, p, abs(p[4] - cc_cutoff)))
            else:
                cases.append(("UNEXPLAINED", p, None, float("nan")) if side == "reference"
                             else ("UNEXPLAINED", None, p, float("nan")))
    # A neighbour pair is found from both sides: list it once.
    unique, seen = [], set()
    for c in cases:
        key = (c[0], c[1], c[2])
        if key not in seen:
            seen.add(key)
            unique.append(c)
    return unique


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--cc_cutoff", type=float, default=0.15)
    ap.add_argument("--min_dist", type=float, required=True, help="minimum distance between picks, micrograph pixels")
    ap.add_argument("--label", default="")
    ap.add_argument("reference")
    ap.add_argument("other")
    args = ap.parse_args()

    stars = sorted(glob.glob(os.path.join(args.reference, "*_pickora.star")))
    if not stars:
        sys.exit(f"compare_picks: no pick files in {args.reference}")
    worst, tau, same, score_gap, listed, failed = 0.0, None, 0, 0.0, [], False
    for star in stars:
        stem = os.path.basename(star)[: -len("_pickora.star")]
        other_star = os.path.join(args.other, os.path.basename(star))
        if not os.path.exists(other_star):
            sys.exit(f"compare_picks: {other_star} is missing")
        ref_maps = read_maps(os.path.join(args.reference, stem + "_ccmax.mrc"))
        other_maps = read_maps(os.path.join(args.other, stem + "_ccmax.mrc"))
        scale = max((float(p[4]) for p in read_star(star)), default=1.0)
        if ref_maps is not None and other_maps is not None:
            w, tau = compare_maps(ref_maps, other_maps)
            worst = max(worst, w)
            scale = float(np.max(np.abs(ref_maps)))
        slack = (tau if tau is not None else 3.0 * 20 * EPS) * scale + 2 * PRINT_ROUNDING
        a, b = read_star(star), read_star(other_star)
        b_scores = {q[:4]: q[4] for q in b}
        common = {p[:4] for p in a} & set(b_scores)
        for p in a:
            if p[:4] in common:
                same += 1
                gap = abs(p[4] - b_scores[p[:4]])
                score_gap = max(score_gap, gap)
                if gap > slack:
                    failed = True
                    listed.append((stem, "UNEXPLAINED score", p, p[:4] + (b_scores[p[:4]],), gap, slack))
        for reason, p, q, gap in explain([p for p in a if p[:4] not in common], [q for q in b if q[:4] not in common],
                                         slack, args.cc_cutoff, args.min_dist):
            failed |= reason.startswith("UNEXPLAINED")
            listed.append((stem, reason, p, q, gap, slack))
    maps_ok = tau is None or worst <= tau
    failed |= not maps_ok
    maps = "-" if tau is None else f"{worst:.2e} (tau {tau:.2e}){'' if maps_ok else ' OUTSIDE'}"
    unexplained = sum(1 for c in listed if c[1].startswith("UNEXPLAINED"))
    print(f"| {args.label} | {maps} | {same} | {score_gap:.1e} | {len(listed)} | {unexplained} |")
    for stem, reason, p, q, gap, slack in listed:
        show = lambda r: "-" if r is None else f"({r[0]}, {r[1]}) class {r[3]} psi {r[2]:g} score {r[4]:.6f}"
        print(f"|   {stem}: {reason} | {show(p)} | {show(q)} | gap {gap:.1e} | allowed {slack:.1e} |")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
