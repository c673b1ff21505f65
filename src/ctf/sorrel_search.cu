// The device side of the defocus search: the many-curves dot product, the 2D score, the tiled
// spectrum of a micrograph and the 1D search over a list of defocus values.
#include <cmath>
#include <cstdio>

#include "ctf/sorrel.h"
#include "ctf/sorrel_files.h"
#include "ctf_core/ctf_core.h"
#include "cuda_fast_sum/cuda_fast_sum.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/launch.h"
#include "math_utils/array_kernels.h"
#include "math_utils/host_stats.h"
#include "mrcfile/mrcfile.h"
#include "process2d_core/process2d_core.h"
#include "process2d_core/half_fourier_2dh.h"
#include "process2d_raw/process2d_raw.h"

// Row j of the simulated curves against the measured curve, in float, in order of i.
PICKORA_HD inline void cuda_dot_manydata_with_one(unsigned j, const float* rows, const float* curve, unsigned n,
                                                  float* out, unsigned count) {
  if (j >= count) return;
  const float* row = rows + static_cast<unsigned long>(j) * n;
  float sum = 0.0f;
  for (unsigned i = 0; i < n; ++i) sum += row[i] * curve[i];
  out[j] = sum;
}

void hcuda_dot_manydata_with_one(const float* rows, const float* curve, unsigned n, float* out, unsigned count) {
  PK_LAUNCH_FLAT(count, PICKORA_LAMBDA(unsigned j) { cuda_dot_manydata_with_one(j, rows, curve, n, out, count); });
}

float ctf_tcf_swr_2dh(float* work, const float* spectrum, float pixel_size, unsigned nh, unsigned ny, float ps,
                      float kv, float cs, float ac, float defU, float defV, float defA, float bfac, float resL,
                      float resH) {
  hcuda_ctf_smrl_2dh(work, spectrum, pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  return hcuda_fast_sum(work, static_cast<unsigned long>(nh) * ny, 1024);
}

float SORREL_A::score(float ps, float U, float V, float A) {
  const SorrelFitSet set = fit_set();
  return ctf_tcf_swr_2dh(set.work, set.spectrum, para.apix, set.nh, set.ny, ps, para.kV, para.cs, para.ac, U, V, A,
                         score_bfac, score_resL, score_resH);
}

namespace {

// A spectrum with a value that is not finite (a blank or saturated image) can't be fitted.
bool all_finite(const std::vector<float>& a) {
  for (float v : a)
    if (!std::isfinite(v)) return false;
  return true;
}

}  // namespace

int SORREL_A::sorrel_reload_pre_ctf_files() {
  const double t0 = sorrel_now();
  const unsigned long full = static_cast<unsigned long>(box) * box;
  if (mrcf_read_slice_check_xy_cid(name_pow.c_str(), 0, 'z', h_full.data(), box, box, SORREL_POW_CID) != 0) {
    PK_WARNING("%s is not a power spectrum of %d x %d written by this program; it can't be reloaded",
               name_pow.c_str(), box, box);
    return -1;
  }
  // d_image, the micrograph's own device copy, is not needed on this road: it serves as scratch.
  PK_CUDA_CHECK(memcpy_H2D(d_full, h_full.data(), full * sizeof(float)));
  hcuda_2d_fftA_full2half(d_log, d_full, box, box);
  hcuda_2d_convolution_by_box(d_full, d_image, box, box, para.convsize, para.convsize);
  hcuda_x2d_sub(d_image, d_full, d_image, box, box);
  hcuda_2d_fftA_full2half(d_sub, d_image, box, box);
  sorrel_print_time("FFT", t0);
  return sorrel_finish_spectra(false);
}

int SORREL_A::sorrel_generate_ctf_d_data() {
  const double t0 = sorrel_now();
  reloaded = false;
  if (para.reload_ctf_files && check_file_access(name_ctf.c_str(), "FR") == 0 &&
      check_file_access(name_pow.c_str(), "FR") == 0) {
    std::printf("pre-loading CTF files %s \n", name_ctf.c_str());
    reloaded = sorrel_reload_pre_ctf_files() == 0;
    if (reloaded) return 0;
  }
  if (nz < 1) {
    PK_WARNING("Invalid frame number!!");
    return -1;
  }
  const unsigned long plane = static_cast<unsigned long>(nx) * ny;
  // The frames of a movie: with --mdef_ave_type 1 or 2 each frame's tile spectrum is taken and
  // the amplitudes added (incoherent, drift does not blur the rings); otherwise the frames are
  // summed first and the sum is treated as one image. Either way frame 0 then holds the sum,
  // the image of the later steps.
  const bool per_frame = nz > 1 && (para.mdef_ave_type == 1 || para.mdef_ave_type == 2);
  if (per_frame) PK_CUDA_CHECK(cudaMemset(d_amp, 0, n2dh * sizeof(float)));
  for (int z = 0; z < nz; ++z) {
    if (per_frame) {
      PK_CUDA_CHECK(memcpy_H2D(d_image, h_image.data() + z * plane, plane * sizeof(float)));
      hcuda_2d_gridfft_r2c_amp_ave(d_image, d_work, nx, ny, box, box, step, 0);
      hcuda_addto_float(d_amp, d_work, n2dh);
    }
    std::printf(".");
    std::fflush(stdout);
  }
  std::printf("\n");
  for (int z = 1; z < nz; ++z)
    for (unsigned long i = 0; i < plane; ++i) h_image[i] += h_image[z * plane + i];
  // A constant image has no spectrum to fit: its log amplitudes would be minus infinity.
  double mean = 0.0, sd = 0.0;
  hm_mean_stdv(h_image.data(), plane, mean, sd);
  if (!(sd > 0.0) || !std::isfinite(sd)) {
    PK_WARNING("Micrograph %s is blank (constant pixel values or not finite numbers); no CTF to determine!",
               name.c_str());
    return -1;
  }
  PK_CUDA_CHECK(memcpy_H2D(d_image, h_image.data(), plane * sizeof(float)));
  if (per_frame)
    hcuda_2dh_amp_log_subbg3(d_amp, d_log, d_sub, box, box, para.convsize);
  else
    hcuda_2d_gridfft_r2c_amp_ave_log_subbg3(d_image, d_amp, d_log, d_sub, nx, ny, box, box, step, para.convsize);
  hcuda_2dh_fftA_subbg(d_sub2, d_log, nh, box, para.convs_out);
  sorrel_print_time("FFT", t0);
  return sorrel_finish_spectra(true);
}

// The steps after the spectra, shared by a fresh spectrum and a reloaded one: the optional
// low-frequency smoothing, the host copies and, for a fresh one, the ".pow" file.
int SORREL_A::sorrel_finish_spectra(bool fresh) {
  if (sorrel_option_given(&para, "smooth_resL"))
    hcuda_2dh_smooth_low_frequency_inplace(d_sub, nh, box, para.apix, para.smooth_resL);
  if (fresh) {
    hcuda_2d_fftA_half2full(d_full, d_log, box, box);
    PK_CUDA_CHECK(memcpy_D2H(h_full.data(), d_full, static_cast<size_t>(box) * box * sizeof(float)));
    PK_CUDA_CHECK(memcpy_D2H(h_sub2.data(), d_sub2, n2dh * sizeof(float)));
  }
  PK_CUDA_CHECK(memcpy_D2H(h_sub.data(), d_sub, n2dh * sizeof(float)));
  h_sub[static_cast<unsigned long>(box / 2) * nh] = 0.0f;
  if (!all_finite(h_sub) || !all_finite(h_full)) {
    PK_WARNING("The power spectrum of %s holds values that are not finite numbers; no CTF to determine!",
               name.c_str());
    return -1;
  }
  if (fresh) sorrel_write_powf();
  return 0;
}

void SORREL_A::sorrel_1D_search_t2(float phase_shift) {
  const double t0 = sorrel_now();
  rotational_average_2dh(h_sub.data(), h_curve.data(), nh, box);
  PK_CUDA_CHECK(memcpy_H2D(d_curve, h_curve.data(), nh * sizeof(float)));
  for (int i = 0; i < ndef; ++i) h_defocus[i] = para.defL + static_cast<float>(i) * para.defS;
  PK_CUDA_CHECK(memcpy_H2D(d_defocus, h_defocus.data(), ndef * sizeof(float)));
  hcuda_ctf_mod_simulate_1ds_multi_defocus(d_sims1d, para.apix, nh, phase_shift, para.kV, para.cs, para.ac, d_defocus,
                                           ndef, para.bfac, para.resL, para.resH);
  hcuda_dot_manydata_with_one(d_sims1d, d_curve, nh, d_scores, ndef);
  PK_CUDA_CHECK(memcpy_D2H(h_scores.data(), d_scores, ndef * sizeof(float)));
  best_defocus = h_defocus[hm_max_index(h_scores.data(), ndef)];
  search_seconds += sorrel_now() - t0;
  FILE* to = echo_log && log != nullptr ? log : (echo_stdout ? stdout : nullptr);
  if (to != nullptr)
    for (int i = 0; i < ndef; ++i)
      std::fprintf(to, "%8d %10.3f %10.6f\n", i, static_cast<double>(h_defocus[i]), static_cast<double>(h_scores[i]));
}
