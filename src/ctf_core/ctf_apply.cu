// The model applied to data: phase flip, multiplication by a mode of the CTF and the
// Wiener-type filter, on half spectra and on whole real images.
#include "ctf_core/ctf_core.h"
#include "cuda_fft/cuda_fft.h"
#include "cuda_general/launch.h"
#include "ctf_buffers.h"

// ---- Half spectra -------------------------------------------------------------------------

void hcuda_2dh_phase_flip(const float2* in, float2* out, float pixel_size, unsigned nh, unsigned ny, float kv,
                          float cs, float ac, float ps, float defU, float defV, float defA) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2dh_phase_flip(x, y, in, out, pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA);
  });
}
void hcuda_phase_flip_c2dh_c(const float2* in, float2* out, unsigned nh, unsigned ny, float pixel_size, float kv,
                             float cs, float ac, float ps, float defU, float defV, float defA) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_phase_flip_c2dh_c(x, y, in, out, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA);
  });
}
void hcuda_phase_flip_c2dh_usw_c(const float2* in, float2* out, unsigned nh, unsigned ny, float pixel_size, float kv,
                                 float cs, float ac, float ps, float defU, float defV, float defA) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_phase_flip_c2dh_usw_c(x, y, in, out, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA);
  });
}
void hcuda_apply_ctf_c2dh_usw_c(const float2* in, float2* out, unsigned nh, unsigned ny, float pixel_size, float kv,
                                float cs, float ac, float ps, float defU, float defV, float defA, float bfac,
                                char mode) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_apply_ctf_c2dh_usw_c(x, y, in, out, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA, bfac, mode);
  });
}
void hcuda_wd_ctf_c2dh_usw_c(const float2* in, float2* out, const float* W, unsigned nh, unsigned ny,
                             float pixel_size, float kv, float cs, float ac, float ps, float defU, float defV,
                             float defA) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_wd_ctf_c2dh_usw_c(x, y, in, out, W, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA);
  });
}
void hcuda_wd_ctf_c2dh_usw_c_v2(const float2* in, float2* out, const float* W, unsigned nh, unsigned ny,
                                float pixel_size, float kv, float cs, float ac, float ps, float defU, float defV,
                                float defA, float e0) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_wd_ctf_c2dh_usw_c_v2(x, y, in, out, W, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA, e0);
  });
}

// ---- Whole images -------------------------------------------------------------------------

namespace {

// _norm forward transform of in, filter(spectrum) in place, _norm inverse transform into out.
template <class Filter>
void ctf_filter_image(const char* func, const float* in, float* out, unsigned nx, unsigned ny, float pixel_size,
                      float ac, Filter filter) {
  ctf_require_even_sides(func, nx, ny);
  ctf_require_usable(func, pixel_size, ac);
  const unsigned nh = fft_half_width(nx);
  CtfDeviceBlock<float2> spectrum(std::size_t(nh) * ny);
  hcuda_2d_fft_r2c_norm(in, spectrum.get(), nx, ny);
  filter(spectrum.get(), nh);
  hcuda_2d_fft_c2r_norm(spectrum.get(), out, nx, ny);
  spectrum.release();
}

}  // namespace

void hcuda_phase_flip_r2d_c(const float* in, float* out, unsigned nx, unsigned ny, float pixel_size, float kv,
                            float cs, float ac, float ps, float defU, float defV, float defA) {
  ctf_filter_image(__func__, in, out, nx, ny, pixel_size, ac, [&](float2* s, unsigned nh) {
    hcuda_phase_flip_c2dh_usw_c(s, s, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA);
  });
}
void hcuda_apply_ctf_r2d_c(const float* in, float* out, unsigned nx, unsigned ny, float pixel_size, float kv, float cs,
                           float ac, float ps, float defU, float defV, float defA, float bfac, char mode) {
  ctf_filter_image(__func__, in, out, nx, ny, pixel_size, ac, [&](float2* s, unsigned nh) {
    hcuda_apply_ctf_c2dh_usw_c(s, s, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA, bfac, mode);
  });
}
void hcuda_wd_ctf_r2d_c(const float* in, float* out, const float* W, unsigned nx, unsigned ny, float pixel_size,
                        float kv, float cs, float ac, float ps, float defU, float defV, float defA) {
  ctf_filter_image(__func__, in, out, nx, ny, pixel_size, ac, [&](float2* s, unsigned nh) {
    hcuda_wd_ctf_c2dh_usw_c(s, s, W, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA);
  });
}
void hcuda_wd_ctf_r2d_c_v2(const float* in, float* out, const float* W, unsigned nx, unsigned ny, float pixel_size,
                           float kv, float cs, float ac, float ps, float defU, float defV, float defA, float e0) {
  ctf_filter_image(__func__, in, out, nx, ny, pixel_size, ac, [&](float2* s, unsigned nh) {
    hcuda_wd_ctf_c2dh_usw_c_v2(s, s, W, nh, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA, e0);
  });
}

namespace {

// A gpu_ form of a whole-image filter: the image (and the weights, if any) to the device, the
// filter in place, the image back.
template <class Run>
void ctf_gpu_image(const float* h_in, float* h_out, const float* h_W, unsigned nx, unsigned ny, Run run) {
  const std::size_t n = std::size_t(nx) * ny;
  CtfDeviceBlock<float> d(n, h_in);
  CtfDeviceBlock<float> d_W(h_W != nullptr ? std::size_t(fft_half_width(nx)) * ny : 0, h_W);
  run(d.get(), d_W.get());
  d.copy_to_host(h_out);
  d.release();
  d_W.release();
}

}  // namespace

void gpu_phase_flip_r2d_c(const float* h_in, float* h_out, unsigned nx, unsigned ny, float pixel_size, float kv,
                          float cs, float ac, float ps, float defU, float defV, float defA) {
  ctf_gpu_image(h_in, h_out, nullptr, nx, ny, [&](float* d, const float*) {
    hcuda_phase_flip_r2d_c(d, d, nx, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA);
  });
}
void gpu_apply_ctf_r2d_c(const float* h_in, float* h_out, unsigned nx, unsigned ny, float pixel_size, float kv,
                         float cs, float ac, float ps, float defU, float defV, float defA, float bfac, char mode) {
  ctf_gpu_image(h_in, h_out, nullptr, nx, ny, [&](float* d, const float*) {
    hcuda_apply_ctf_r2d_c(d, d, nx, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA, bfac, mode);
  });
}
void gpu_wd_ctf_r2d_c(const float* h_in, float* h_out, const float* h_W, unsigned nx, unsigned ny, float pixel_size,
                      float kv, float cs, float ac, float ps, float defU, float defV, float defA) {
  ctf_gpu_image(h_in, h_out, h_W, nx, ny, [&](float* d, const float* d_W) {
    hcuda_wd_ctf_r2d_c(d, d, d_W, nx, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA);
  });
}
void gpu_wd_ctf_r2d_c_v2(const float* h_in, float* h_out, const float* h_W, unsigned nx, unsigned ny,
                         float pixel_size, float kv, float cs, float ac, float ps, float defU, float defV, float defA,
                         float e0) {
  ctf_gpu_image(h_in, h_out, h_W, nx, ny, [&](float* d, const float* d_W) {
    hcuda_wd_ctf_r2d_c_v2(d, d, d_W, nx, ny, pixel_size, kv, cs, ac, ps, defU, defV, defA, e0);
  });
}
