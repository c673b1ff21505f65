// The phase-based simulators (fields one by one, w sin(g) + ac cos(g) in float of a double
// phase): the 1D curves of the defocus search, the 2D moduli and powers, the score term, and
// the resolution-limited square and product.
#include "ctf_core/ctf_core.h"
#include "cuda_general/launch.h"
#include "ctf_buffers.h"

// ---- 1D ---------------------------------------------------------------------------------

void hcuda_ctf_mod_simulate_1d(float* out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                               float defocus, float bfac, float res_a, float res_b) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) {
    cuda_ctf_mod_simulate_1d(i, out, pixel_size, n, ps, kv, cs, ac, defocus, bfac, res_a, res_b);
  });
}
void hcuda_ctf_phase_simulate_1d(float* out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                                 float defocus, float bfac, float res_a, float res_b) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) {
    cuda_ctf_phase_simulate_1d(i, out, pixel_size, n, ps, kv, cs, ac, defocus, bfac, res_a, res_b);
  });
}
void hcuda_ctf_mod_simulate_1ds_multi_defocus(float* out, float pixel_size, unsigned n, float ps, float kv, float cs,
                                              float ac, const float* defocus, unsigned count, float bfac, float resL,
                                              float resH) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_IMAGE(n, count, PICKORA_LAMBDA(unsigned i, unsigned j) {
    cuda_ctf_mod_simulate_1ds_multi_defocus(i, j, out, pixel_size, n, ps, kv, cs, ac, defocus, count, bfac, resL,
                                            resH);
  });
}

void gpu_ctf_mod_simulate_1d(float* h_out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                             float defocus, float bfac, float res_a, float res_b) {
  ctf_gpu_fill(h_out, n, [&](float* d) {
    hcuda_ctf_mod_simulate_1d(d, pixel_size, n, ps, kv, cs, ac, defocus, bfac, res_a, res_b);
  });
}
void gpu_ctf_phase_simulate_1d(float* h_out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                               float defocus, float bfac, float res_a, float res_b) {
  ctf_gpu_fill(h_out, n, [&](float* d) {
    hcuda_ctf_phase_simulate_1d(d, pixel_size, n, ps, kv, cs, ac, defocus, bfac, res_a, res_b);
  });
}
void gpu_ctf_mod_simulate_1ds_multi_defocus(float* h_out, float pixel_size, unsigned n, float ps, float kv, float cs,
                                            float ac, const float* h_defocus, unsigned count, float bfac, float resL,
                                            float resH) {
  CtfDeviceBlock<float> d_def(count, h_defocus);
  ctf_gpu_fill(h_out, std::size_t(n) * count, [&](float* d) {
    hcuda_ctf_mod_simulate_1ds_multi_defocus(d, pixel_size, n, ps, kv, cs, ac, d_def.get(), count, bfac, resL, resH);
  });
  d_def.release();
}

void cpu_ctf_mod_simulate_1d(float* out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                             float defocus, float bfac, float res_a, float res_b) {
  ctf_require_usable(__func__, pixel_size, ac);
  ctf_host_flat(n, [=](unsigned i) {
    cuda_ctf_mod_simulate_1d(i, out, pixel_size, n, ps, kv, cs, ac, defocus, bfac, res_a, res_b);
  });
}
void cpu_ctf_phase_simulate_1d(float* out, float pixel_size, unsigned n, float ps, float kv, float cs, float ac,
                               float defocus, float bfac, float res_a, float res_b) {
  ctf_require_usable(__func__, pixel_size, ac);
  ctf_host_flat(n, [=](unsigned i) {
    cuda_ctf_phase_simulate_1d(i, out, pixel_size, n, ps, kv, cs, ac, defocus, bfac, res_a, res_b);
  });
}
void cpu_ctf_mod_simulate_1ds_multi_defocus(float* out, float pixel_size, unsigned n, float ps, float kv, float cs,
                                            float ac, const float* defocus, unsigned count, float bfac, float resL,
                                            float resH) {
  ctf_require_usable(__func__, pixel_size, ac);
  ctf_host_image(n, count, [=](unsigned i, unsigned j) {
    cuda_ctf_mod_simulate_1ds_multi_defocus(i, j, out, pixel_size, n, ps, kv, cs, ac, defocus, count, bfac, resL,
                                            resH);
  });
}

// ---- 2D ---------------------------------------------------------------------------------

void hcuda_ctf_mod_simulate_2d(float* out, float pixel_size, unsigned nx, unsigned ny, float kv, float cs, float ac,
                               float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_IMAGE(nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_ctf_mod_simulate_2d(x, y, out, pixel_size, nx, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
}
void hcuda_ctf_mod_simulate_2dh(float* out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                                float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_ctf_mod_simulate_2dh(x, y, out, pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
}
void hcuda_ctf_pow_simulate_2dh(float* out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                                float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_ctf_pow_simulate_2dh(x, y, out, pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
}
void hcuda_ctf_smrl_2dh(float* out, const float* raw, float pixel_size, unsigned nh, unsigned ny, float kv, float cs,
                        float ac, float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  ctf_require_usable(__func__, pixel_size, ac);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_ctf_smrl_2dh(x, y, out, raw, pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
}

void gpu_ctf_mod_simulate_2d(float* h_out, float pixel_size, unsigned nx, unsigned ny, float kv, float cs, float ac,
                             float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  ctf_gpu_fill(h_out, std::size_t(nx) * ny, [&](float* d) {
    hcuda_ctf_mod_simulate_2d(d, pixel_size, nx, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
}
void gpu_ctf_mod_simulate_2dh(float* h_out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                              float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  ctf_gpu_fill(h_out, std::size_t(nh) * ny, [&](float* d) {
    hcuda_ctf_mod_simulate_2dh(d, pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
}
void gpu_ctf_pow_simulate_2dh(float* h_out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                              float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  ctf_gpu_fill(h_out, std::size_t(nh) * ny, [&](float* d) {
    hcuda_ctf_pow_simulate_2dh(d, pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
}
void gpu_ctf_smrl_2dh(float* h_out, const float* h_raw, float pixel_size, unsigned nh, unsigned ny, float kv, float cs,
                      float ac, float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  const std::size_t n = std::size_t(nh) * ny;
  CtfDeviceBlock<float> d_raw(n, h_raw);
  ctf_gpu_fill(h_out, n, [&](float* d) {
    hcuda_ctf_smrl_2dh(d, d_raw.get(), pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
  d_raw.release();
}

void cpu_ctf_mod_simulate_2d(float* out, float pixel_size, unsigned nx, unsigned ny, float kv, float cs, float ac,
                             float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  ctf_require_usable(__func__, pixel_size, ac);
  ctf_host_image(nx, ny, [=](unsigned x, unsigned y) {
    cuda_ctf_mod_simulate_2d(x, y, out, pixel_size, nx, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
}
void cpu_ctf_mod_simulate_2dh(float* out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                              float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  ctf_require_usable(__func__, pixel_size, ac);
  ctf_host_image(nh, ny, [=](unsigned x, unsigned y) {
    cuda_ctf_mod_simulate_2dh(x, y, out, pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
}
void cpu_ctf_pow_simulate_2dh(float* out, float pixel_size, unsigned nh, unsigned ny, float kv, float cs, float ac,
                              float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  ctf_require_usable(__func__, pixel_size, ac);
  ctf_host_image(nh, ny, [=](unsigned x, unsigned y) {
    cuda_ctf_pow_simulate_2dh(x, y, out, pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
}
void cpu_ctf_smrl_2dh(float* out, const float* raw, float pixel_size, unsigned nh, unsigned ny, float kv, float cs,
                      float ac, float ps, float defU, float defV, float defA, float bfac, float resL, float resH) {
  ctf_require_usable(__func__, pixel_size, ac);
  ctf_host_image(nh, ny, [=](unsigned x, unsigned y) {
    cuda_ctf_smrl_2dh(x, y, out, raw, pixel_size, nh, ny, kv, cs, ac, ps, defU, defV, defA, bfac, resL, resH);
  });
}

// ---- Resolution-limited square and product ------------------------------------------------

void hcuda_2dh_res_based_square(float* out, const float* in, float pixel_size, unsigned nh, unsigned ny, float resL,
                                float resH) {
  ctf_require_usable(__func__, pixel_size, 0.0f);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_2dh_res_based_square(x, y, out, in, pixel_size, nh, ny, resL, resH);
  });
}
void hcuda_x2dh_res_based_multiply_inplace(float* a, const float* b, float pixel_size, unsigned nh, unsigned ny,
                                           float resL, float resH) {
  ctf_require_usable(__func__, pixel_size, 0.0f);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_x2dh_res_based_multiply_inplace(x, y, a, b, pixel_size, nh, ny, resL, resH);
  });
}
void gpu_2dh_res_based_square(float* h_out, const float* h_in, float pixel_size, unsigned nh, unsigned ny, float resL,
                              float resH) {
  const std::size_t n = std::size_t(nh) * ny;
  CtfDeviceBlock<float> d_in(n, h_in);
  ctf_gpu_fill(h_out, n, [&](float* d) { hcuda_2dh_res_based_square(d, d_in.get(), pixel_size, nh, ny, resL, resH); });
  d_in.release();
}
void gpu_x2dh_res_based_multiply_inplace(float* h_a, const float* h_b, float pixel_size, unsigned nh, unsigned ny,
                                         float resL, float resH) {
  const std::size_t n = std::size_t(nh) * ny;
  CtfDeviceBlock<float> d_a(n, h_a), d_b(n, h_b);
  hcuda_x2dh_res_based_multiply_inplace(d_a.get(), d_b.get(), pixel_size, nh, ny, resL, resH);
  d_a.copy_to_host(h_a);
  d_a.release();
  d_b.release();
}
void cpu_2dh_res_based_square(float* out, const float* in, float pixel_size, unsigned nh, unsigned ny, float resL,
                              float resH) {
  ctf_require_usable(__func__, pixel_size, 0.0f);
  ctf_host_image(nh, ny, [=](unsigned x, unsigned y) {
    cuda_2dh_res_based_square(x, y, out, in, pixel_size, nh, ny, resL, resH);
  });
}
void cpu_x2dh_res_based_multiply_inplace(float* a, const float* b, float pixel_size, unsigned nh, unsigned ny,
                                         float resL, float resH) {
  ctf_require_usable(__func__, pixel_size, 0.0f);
  ctf_host_image(nh, ny, [=](unsigned x, unsigned y) {
    cuda_x2dh_res_based_multiply_inplace(x, y, a, b, pixel_size, nh, ny, resL, resH);
  });
}
