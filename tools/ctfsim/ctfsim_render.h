// The pixels of one simulated micrograph or movie.
//
// Specimen: white noise shaped in Fourier space to a 1/f-like amplitude falloff with a broad
// bump near 1/10 Angstrom (where the protein and water rings would be), unit RMS.
// CTF: the specimen through gpu_apply_ctf_r2d_c in mode "F" with the truth's values (B-factor
// envelope included). A defocus gradient is simulated by levels: the plane
// d(x, y) = d0 + gx (x - nx / 2) + gy (y - ny / 2) is cut into grad_levels equal slices of its range
// over the image; each slice's pixels come from the image filtered at the slice's middle defocus,
// so no pixel is further than range / (2 levels) from its plane value.
// Movies: frame f of F is shifted by (f - (F - 1) / 2) times the drift in x and y and filtered at a
// defocus offset of (f - (F - 1) / 2) drift_def, so the frames' average is the truth. Each frame
// carries 1 / F of the signal and background and noise of sigma 1 / sqrt(F), so the sum of the
// frames has the statistics of a micrograph.
// Background: three slow cosine waves (0.3 to 1.5 periods across the image) of RMS bg.
// Noise: white, Gaussian, sigma 1 in the sum. The signal is scaled to RMS sqrt(snr).
#pragma once

#include <vector>

#include "ctfsim_params.h"

// frames x nx x ny floats.
std::vector<float> render_images(const CtfSimParams& p, const CtfSimTruth& t);
