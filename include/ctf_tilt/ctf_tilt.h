// CTF of a tilted specimen: the defocus at a position shifts by its height above the focal
// plane, pixel size x (distance from the tilt axis) x tan(tilt). The axis runs through the
// image centre at `axis` degrees from x.
#pragma once

#include <cstdio>

#include "cuda_general/platform.h"
#include "ctf_core/ctf_core.h"

// The CTF at pixel (x, y): base with defU and defV shifted by the same delta; other fields
// kept. A tilt whose tangent is not finite (|tilt| of 90 degrees) is refused with a fatal
// report, as no defocus can be given there.
void get_tilt_local_def_one(CTF_INFO& out, int x, int y, const CTF_INFO& base, int nx, int ny, float apix,
                            float axis, float tilt);
void get_tilt_local_defs(CTF_INFO* out, const int2* pos, int n, const CTF_INFO& base, int nx, int ny, float apix,
                         float axis, float tilt);
// A table on `fp` (standard output in the toolkit); with positions, X and Y lead each row.
void print_tilt_local_defs(FILE* fp, const CTF_INFO* defs, int n, const int2* pos);

// ---- The tile stage of a tilted micrograph ------------------------------------------------
//
// Square tiles of side `box` stand on a grid about the image centre, trunc(box (1 - overlap))
// apart (auto_gridbox_2d_from_center), each wholly inside the image. Each tile has its own CTF,
// the base moved by the tilt at the tile's centre (get_tilt_local_defs). The moduli of all
// tiles are logged and averaged, and the background of that average, a disc mean of radius
// box / 20 taken on the full (mirrored) spectrum, is what comes off every tile as well.
//
// The fit refines the base (untilted centre) mean defocus so that the tile CTFs, base plus each
// tile's own shift, best match the tile spectra: the score is the sum over tiles of the
// toolkit's CTF score (ctf_tcf_swr_2dh), each tile against its own background-subtracted
// spectrum and its own CTF. Scoring every tile against its own CTF keeps the rings that a
// gradient across the image would smear out of a plain average, and ties the result to the
// tilt geometry. The astigmatism (U - V and the angle), the phase shift and the other fields
// are kept from the base: one tile of the grid has far too little signal to move them, and
// the untilted search has already fitted them on the whole image. Fixed settings: limits 50 A
// to the larger of 4 A and 2.5 pixel sizes, envelope B 150 A^2, a first step of 500 A.
//
// `out` receives the base with the refined U and V (it may be the base itself). Returns the
// normalised score of the result, the score divided by the root square sums of models and
// spectra inside the limits. Refused with a fatal report, before any device memory is taken:
// an overlap of 1 or more (or not a number), a step of 0 pixels, an odd box or one below 16
// pixels or larger than the image, a pixel size not above 0, a base defocus that is not a
// finite number, a tilt of 90 degrees, a grid without tiles; after the transforms, spectra
// that are not finite (a blank image has no logarithm). Every buffer is freed on every path.
float hcuda_2d_ctf_tilt_refine_cctf_autogrid(CTF_INFO& out, const CTF_INFO& base, const float* d_image, int nx,
                                             int ny, float apix, float axis, float tilt, int box, float overlap);
// The same on a host image.
float gpu_2d_ctf_tilt_refine_cctf_autogrid(CTF_INFO& out, const CTF_INFO& base, const float* h_image, int nx,
                                           int ny, float apix, float axis, float tilt, int box, float overlap);

// Log, average, subtract background: `moduli` holds `count` row-swapped half moduli of box by
// box tiles (nh = box / 2 + 1 by box each, as hcuda_2d_boxes_fft_r2c_mod gives them) and
// receives their logarithms; `out` (nh by box) receives their mean less its background, the
// disc mean of radius bg_radius on the full spectrum with mirrored edges.
void hcuda_2d_ctf_tilt_las_subbg(float* out, float* moduli, int box, int count, float bg_radius);
