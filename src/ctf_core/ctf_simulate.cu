// Simulators that take a CTF_INFO record (or its fields one by one): 1D curves, half and full
// arrays, the product with a measured array, and stacks of records.
#include "ctf_core/ctf_core.h"
#include "cuda_fast_sum/cuda_fast_sum.h"
#include "cuda_general/launch.h"
#include "ctf_buffers.h"

// ---- Device wrappers ---------------------------------------------------------------------

void hcuda_ctf_sim_1dh(float* out, unsigned n, float pixel_size, CTF_INFO info, RESO reso, char mode) {
  ctf_require_usable(__func__, pixel_size, info);
  PK_LAUNCH_FLAT(n, PICKORA_LAMBDA(unsigned i) { cuda_ctf_sim_1dh(i, out, n, pixel_size, info, reso, mode); });
}

void hcuda_ctf_sim_2dh(float* out, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode) {
  ctf_require_usable(__func__, pixel_size, info);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_ctf_sim_2dh(x, y, out, nh, ny, pixel_size, info, reso, mode);
  });
}

void hcuda_ctf_sim_2d(float* out, unsigned nx, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode) {
  ctf_require_usable(__func__, pixel_size, info);
  PK_LAUNCH_IMAGE(nx, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_ctf_sim_2d(x, y, out, nx, ny, pixel_size, info, reso, mode);
  });
}

void hcuda_ctf_simXraw_2dh(float* out, const float* raw, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info,
                           RESO reso, char mode) {
  ctf_require_usable(__func__, pixel_size, info);
  PK_LAUNCH_IMAGE(nh, ny, PICKORA_LAMBDA(unsigned x, unsigned y) {
    cuda_ctf_simXraw_2dh(x, y, out, raw, nh, ny, pixel_size, info, reso, mode);
  });
}

void hcuda_ctf_sim_1dh_c(float* out, unsigned n, float pixel_size, float kv, float cs, float ac, float ps,
                         float defocus, float bfac, float resL, float resH, char mode) {
  hcuda_ctf_sim_1dh(out, n, pixel_size, ctf_info_of(kv, cs, ac, ps, defocus, defocus, 0.0f, bfac), RESO{resL, resH},
                    mode);
}

void hcuda_ctf_sim_2dh_c(float* out, unsigned nh, unsigned ny, float pixel_size, float kv, float cs, float ac,
                         float ps, float defU, float defV, float defA, float bfac, float resL, float resH, char mode) {
  hcuda_ctf_sim_2dh(out, nh, ny, pixel_size, ctf_info_of(kv, cs, ac, ps, defU, defV, defA, bfac), RESO{resL, resH},
                    mode);
}

void hcuda_ctf_sim_2d_c(float* out, unsigned nx, unsigned ny, float pixel_size, float kv, float cs, float ac, float ps,
                        float defU, float defV, float defA, float bfac, float resL, float resH, char mode) {
  hcuda_ctf_sim_2d(out, nx, ny, pixel_size, ctf_info_of(kv, cs, ac, ps, defU, defV, defA, bfac), RESO{resL, resH},
                   mode);
}

// ---- Host arrays through device buffers -------------------------------------------------

void gpu_ctf_sim_1dh(float* h_out, unsigned n, float pixel_size, CTF_INFO info, RESO reso, char mode) {
  ctf_gpu_fill(h_out, n, [&](float* d) { hcuda_ctf_sim_1dh(d, n, pixel_size, info, reso, mode); });
}
void gpu_ctf_sim_2dh(float* h_out, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode) {
  ctf_gpu_fill(h_out, std::size_t(nh) * ny, [&](float* d) { hcuda_ctf_sim_2dh(d, nh, ny, pixel_size, info, reso, mode); });
}
void gpu_ctf_sim_2d(float* h_out, unsigned nx, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode) {
  ctf_gpu_fill(h_out, std::size_t(nx) * ny, [&](float* d) { hcuda_ctf_sim_2d(d, nx, ny, pixel_size, info, reso, mode); });
}
void gpu_ctf_simXraw_2dh(float* h_out, const float* h_raw, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info,
                         RESO reso, char mode) {
  const std::size_t n = std::size_t(nh) * ny;
  CtfDeviceBlock<float> d_raw(n, h_raw);
  ctf_gpu_fill(h_out, n, [&](float* d) { hcuda_ctf_simXraw_2dh(d, d_raw.get(), nh, ny, pixel_size, info, reso, mode); });
  d_raw.release();
}
void gpu_ctf_sim_1dh_c(float* h_out, unsigned n, float pixel_size, float kv, float cs, float ac, float ps,
                       float defocus, float bfac, float resL, float resH, char mode) {
  gpu_ctf_sim_1dh(h_out, n, pixel_size, ctf_info_of(kv, cs, ac, ps, defocus, defocus, 0.0f, bfac), RESO{resL, resH},
                  mode);
}
void gpu_ctf_sim_2dh_c(float* h_out, unsigned nh, unsigned ny, float pixel_size, float kv, float cs, float ac,
                       float ps, float defU, float defV, float defA, float bfac, float resL, float resH, char mode) {
  gpu_ctf_sim_2dh(h_out, nh, ny, pixel_size, ctf_info_of(kv, cs, ac, ps, defU, defV, defA, bfac), RESO{resL, resH},
                  mode);
}
void gpu_ctf_sim_2d_c(float* h_out, unsigned nx, unsigned ny, float pixel_size, float kv, float cs, float ac, float ps,
                      float defU, float defV, float defA, float bfac, float resL, float resH, char mode) {
  gpu_ctf_sim_2d(h_out, nx, ny, pixel_size, ctf_info_of(kv, cs, ac, ps, defU, defV, defA, bfac), RESO{resL, resH},
                 mode);
}

// ---- Host forms ---------------------------------------------------------------------------

void cpu_ctf_sim_1dh(float* out, unsigned n, float pixel_size, CTF_INFO info, RESO reso, char mode) {
  ctf_require_usable(__func__, pixel_size, info);
  ctf_host_flat(n, [=](unsigned i) { cuda_ctf_sim_1dh(i, out, n, pixel_size, info, reso, mode); });
}
void cpu_ctf_sim_2dh(float* out, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode) {
  ctf_require_usable(__func__, pixel_size, info);
  ctf_host_image(nh, ny, [=](unsigned x, unsigned y) { cuda_ctf_sim_2dh(x, y, out, nh, ny, pixel_size, info, reso, mode); });
}
void cpu_ctf_sim_2d(float* out, unsigned nx, unsigned ny, float pixel_size, CTF_INFO info, RESO reso, char mode) {
  ctf_require_usable(__func__, pixel_size, info);
  ctf_host_image(nx, ny, [=](unsigned x, unsigned y) { cuda_ctf_sim_2d(x, y, out, nx, ny, pixel_size, info, reso, mode); });
}
void cpu_ctf_simXraw_2dh(float* out, const float* raw, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info,
                         RESO reso, char mode) {
  ctf_require_usable(__func__, pixel_size, info);
  ctf_host_image(nh, ny, [=](unsigned x, unsigned y) {
    cuda_ctf_simXraw_2dh(x, y, out, raw, nh, ny, pixel_size, info, reso, mode);
  });
}
void cpu_ctf_sim_1dh_c(float* out, unsigned n, float pixel_size, float kv, float cs, float ac, float ps, float defocus,
                       float bfac, float resL, float resH, char mode) {
  cpu_ctf_sim_1dh(out, n, pixel_size, ctf_info_of(kv, cs, ac, ps, defocus, defocus, 0.0f, bfac), RESO{resL, resH},
                  mode);
}
void cpu_ctf_sim_2dh_c(float* out, unsigned nh, unsigned ny, float pixel_size, float kv, float cs, float ac, float ps,
                       float defU, float defV, float defA, float bfac, float resL, float resH, char mode) {
  cpu_ctf_sim_2dh(out, nh, ny, pixel_size, ctf_info_of(kv, cs, ac, ps, defU, defV, defA, bfac), RESO{resL, resH},
                  mode);
}
void cpu_ctf_sim_2d_c(float* out, unsigned nx, unsigned ny, float pixel_size, float kv, float cs, float ac, float ps,
                      float defU, float defV, float defA, float bfac, float resL, float resH, char mode) {
  cpu_ctf_sim_2d(out, nx, ny, pixel_size, ctf_info_of(kv, cs, ac, ps, defU, defV, defA, bfac), RESO{resL, resH},
                 mode);
}

// ---- Stacks: one array per record, one launch each ----------------------------------------

namespace {

template <class One>
void ctf_for_each_record(float* out, std::size_t plane, const CTF_INFO* infos, unsigned count, One one) {
  for (unsigned k = 0; k < count; ++k) one(out + k * plane, infos[k]);
}

}  // namespace

void hcuda_ctf_sim_1dhs(float* out, unsigned n, float pixel_size, const CTF_INFO* h_infos, unsigned count, RESO reso,
                        char mode) {
  ctf_for_each_record(out, n, h_infos, count,
                      [&](float* o, CTF_INFO info) { hcuda_ctf_sim_1dh(o, n, pixel_size, info, reso, mode); });
}
void hcuda_ctf_sim_2dhs(float* out, unsigned nh, unsigned ny, float pixel_size, const CTF_INFO* h_infos,
                        unsigned count, RESO reso, char mode) {
  ctf_for_each_record(out, std::size_t(nh) * ny, h_infos, count,
                      [&](float* o, CTF_INFO info) { hcuda_ctf_sim_2dh(o, nh, ny, pixel_size, info, reso, mode); });
}
void hcuda_ctf_sim_2ds(float* out, unsigned nx, unsigned ny, float pixel_size, const CTF_INFO* h_infos, unsigned count,
                       RESO reso, char mode) {
  ctf_for_each_record(out, std::size_t(nx) * ny, h_infos, count,
                      [&](float* o, CTF_INFO info) { hcuda_ctf_sim_2d(o, nx, ny, pixel_size, info, reso, mode); });
}
void gpu_ctf_sim_1dhs(float* h_out, unsigned n, float pixel_size, const CTF_INFO* h_infos, unsigned count, RESO reso,
                      char mode) {
  ctf_gpu_fill(h_out, std::size_t(n) * count,
               [&](float* d) { hcuda_ctf_sim_1dhs(d, n, pixel_size, h_infos, count, reso, mode); });
}
void gpu_ctf_sim_2dhs(float* h_out, unsigned nh, unsigned ny, float pixel_size, const CTF_INFO* h_infos,
                      unsigned count, RESO reso, char mode) {
  ctf_gpu_fill(h_out, std::size_t(nh) * ny * count,
               [&](float* d) { hcuda_ctf_sim_2dhs(d, nh, ny, pixel_size, h_infos, count, reso, mode); });
}
void gpu_ctf_sim_2ds(float* h_out, unsigned nx, unsigned ny, float pixel_size, const CTF_INFO* h_infos, unsigned count,
                     RESO reso, char mode) {
  ctf_gpu_fill(h_out, std::size_t(nx) * ny * count,
               [&](float* d) { hcuda_ctf_sim_2ds(d, nx, ny, pixel_size, h_infos, count, reso, mode); });
}
void cpu_ctf_sim_1dhs(float* out, unsigned n, float pixel_size, const CTF_INFO* infos, unsigned count, RESO reso,
                      char mode) {
  ctf_for_each_record(out, n, infos, count,
                      [&](float* o, CTF_INFO info) { cpu_ctf_sim_1dh(o, n, pixel_size, info, reso, mode); });
}
void cpu_ctf_sim_2dhs(float* out, unsigned nh, unsigned ny, float pixel_size, const CTF_INFO* infos, unsigned count,
                      RESO reso, char mode) {
  ctf_for_each_record(out, std::size_t(nh) * ny, infos, count,
                      [&](float* o, CTF_INFO info) { cpu_ctf_sim_2dh(o, nh, ny, pixel_size, info, reso, mode); });
}
void cpu_ctf_sim_2ds(float* out, unsigned nx, unsigned ny, float pixel_size, const CTF_INFO* infos, unsigned count,
                     RESO reso, char mode) {
  ctf_for_each_record(out, std::size_t(nx) * ny, infos, count,
                      [&](float* o, CTF_INFO info) { cpu_ctf_sim_2d(o, nx, ny, pixel_size, info, reso, mode); });
}

float hcuda_ctf_sim_dot_raw_2dh(const float* raw, unsigned nh, unsigned ny, float pixel_size, CTF_INFO info, RESO reso,
                                char mode) {
  const std::size_t n = std::size_t(nh) * ny;
  CtfDeviceBlock<float> product(n);
  hcuda_ctf_simXraw_2dh(product.get(), raw, nh, ny, pixel_size, info, reso, mode);
  const float sum = hcuda_fast_sum(product.get(), n, 1024);
  product.release();
  return sum;
}
