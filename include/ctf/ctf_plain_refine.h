// Refinements of a CTF that stand outside the class SORREL_A: two small searches on a half
// spectrum already on the device, the validation of a finished result in five resolution bands,
// the defocus of a movie followed through its frames by a span that slides along the stack, and
// the local refinement of one micrograph's particles.
//
// Arrays are device half arrays of nh = box / 2 + 1 columns by ny = box rows, zero frequency at
// row ny / 2, as the defocus search uses them. Scores are ctf_tcf_swr_2dh: the model's |CTF|
// times the background-subtracted spectrum, summed inside the resolution limits.
#pragma once

#include <cstdio>
#include <functional>
#include <vector>

class SORREL_A;

// The switches of a refinement passed by value to the movie refinement: whether the phase shift
// column is reported, and the error (Angstrom) that sets the first step of the defocus search
// (the search starts a tenth of it away from the start value).
struct CTF_REF_CONTROL {
  int phase_shift;
  float defocus_err;
};

// The one-parameter search under the refinements below, on any score f (higher is better):
// from a and b = a - err, extrapolate past the better point (with a small random jitter) or
// fall back to a midpoint, at most 100 passes while |a - b| is above 1.0. a receives the best
// point and fa its score; false when the passes ran out before the gap closed.
bool ctf_search_one_parameter(float& a, float& fa, float err, const std::function<float(float)>& f);

// Squared sum of the half array a inside the resolution limits; work receives the squares.
float ctf_band_square_sum(float* work, const float* a, float apix, unsigned nh, unsigned ny, float resL, float resH);

// Moves the mean defocus alone, the half difference (V - U) / 2 and the angle kept. Starts at
// a = (U + V) / 2 and b = a - defocus_err; at most 100 passes while |a - b| is above 1.0. A
// search that runs out of passes leaves U and V as they came, with a warning; score is the
// score at the result.
void hcuda_refctf_2dh_only_defave(const float* spectrum, float* work, float& U, float& V, float& score,
                                  float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac, float ps,
                                  float defA, float defocus_err, float bfac, float resL, float resH, FILE* log);

// The three-parameter form of strategy 1 for U, V and the angle (phase shift held): one step at a
// time on the angle (gap limit 0.5), the mean defocus and the half difference (gap limit 1.0),
// at most 100 cycles. The angle is folded into -90 .. 90; a result nearer to the input with the
// labels of U and V exchanged is relabelled. ccc is the score normalised by the root square sums
// of model and spectrum inside the limits (0 where either is 0: nothing to correlate).
void hcuda_refctf_2dh_local(const float* spectrum, float* work, float& U, float& V, float& A, float& ccc,
                            float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac, float ps,
                            float defocus_err, float angle_err, float bfac, float resL, float resH, FILE* log);

// The same search inside one validation band (the phase shift held at the input's).
void hcuda_ctfvalidate_2dh(const float* spectrum, float* work, float& U, float& V, float& A, float& ccc,
                           float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac, float ps,
                           float defocus_err, float angle_err, float bfac, float resL, float resH, FILE* log);

// What validation found in one band. grade 5 (PERFECT) to 1 (WRONG); 0 for a band that had no
// spectrum inside its limits and was not graded.
struct CtfValidationBand {
  float resL, resH;
  float dU, dV, dA, ccc;
  float drift, tolerance;
  int grade;
};

// The whole validation: each band whose high limit lies above 2 pixel sizes is refined again
// from the input (defocus error T / 4, angle error 3, T = 25 resH^2) and graded by how far the
// defocus moved. Rows go to standard output and `log` (when not null); after the bands the work
// array holds the input's |CTF|. Returns the number of graded bands; bands (when not null)
// receives up to CTF_VALIDATION_NBANDS records, in band order, ungraded ones included.
// *mean_grade receives the mean grade over the graded bands, or 0 when none was graded (no
// mean over no band).
int ctf_validation(const float* spectrum, float* work, float pixel_size, unsigned nh, unsigned ny, float kv, float cs,
                   float ac, float ps, float defU, float defV, float defA, float bfac, FILE* log,
                   std::vector<CtfValidationBand>* bands = nullptr, float* mean_grade = nullptr);

// Per-frame results of the movie refinement; every array has nz entries. `valid` marks the
// span centres that got a value; the others stay 0. The fitted arrays are empty unless a line
// fit ran.
struct MovieStackValues {
  std::vector<float> U, V, A, score;
  std::vector<int> valid;
  std::vector<float> fitU, fitV, fitA, fitScore;
};

// Follows the defocus through a stack of nz frames of nx by ny: a span of `span` frames slides
// from frame 0 while it fits; the tile spectra of its frames (tiles of box, `step` apart) are
// added, logged and background-subtracted (box `convbox`), and the micrograph's values are
// refined on that spectrum (the mean defocus alone, or with astigmatism and angle when `astm`
// is set). Values go to index start + span / 2. With fit 1 each array is fitted by a line over
// the frame numbers. Averaging types other than 1 refine nothing. A span below 1 or a tile
// larger than a frame is refused with a fatal report; a span longer than the stack runs no
// position; a fit with fewer than 2 values prints why and writes no fitted table. Returns the
// number of span positions refined.
int ctf_movie_stack_refine(const float* stack, int nx, int ny, int nz, float pixel_size, int box, int step,
                           int convbox, float kv, float cs, float ac, float ps, float defU, float defV, float defA,
                           float bfac, float resL, float resH, FILE* log, int ave_type, int span, int fit, int astm,
                           CTF_REF_CONTROL control, MovieStackValues* out = nullptr);

// The settings of ctf_local_refine: the micrograph's result (start of every particle), the
// particle file (type 1 only: the micrograph's name with `boxsuffix`), the tiles (side
// `boxsize`, step trunc(boxsize (1 - overlap)), centres within `radius` of the particle), the
// score's envelope and limits, and the errors of the first steps.
struct CtfLocalOptions {
  float apix, kv, cs, ac, ps, defU, defV, defA, dstep;
  int boxtype;
  const char* boxsuffix;
  int boxsize;
  float overlap, radius, bfac, resL, resH, U_err, V_err, A_err;
  int refine_astm;
};

// Local refinement of one micrograph (image on the host, nx by ny) as a plain function: per
// particle the spectra of the tiles around it are averaged and the micrograph's values refined
// on them (the mean defocus, or with refine_astm also astigmatism and angle). Rows go to
// standard output, `log` and the STAR file named from the micrograph and `suffix`. A particle
// with no tile inside the image keeps the micrograph's values ("Local Values0"). Box types 2
// and 3, another type, and a particle file that can't be read are refused with a fatal report.
// Returns the number of particles written.
int ctf_local_refine(const char* name, const char* suffix, const float* image, int nx, int ny,
                     const CtfLocalOptions& options, FILE* log);

// The run's steps for the current micrograph of a SORREL_A, after its search: validation of
// the refined values, and the movie refinement of a stack from the refined values.
void sorrel_validate_current(SORREL_A& run);
void sorrel_movie_refine_current(SORREL_A& run);
// Once per run: says why a movie refinement that was asked for will do nothing, and refuses a
// span below 1 frame with a fatal report.
void sorrel_movie_check_setup(const SORREL_A& run);
