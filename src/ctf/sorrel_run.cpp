// The CTF run: preparation, the loop over micrographs, the result files.
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "ctf/ctf_plain_refine.h"
#include "ctf/sorrel.h"
#include "ctf/sorrel_epa.h"
#include "ctf/sorrel_files.h"
#include "ctf_core/ctf_core.h"
#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"
#include "math_utils/host_stats.h"
#include "process2d_core/half_fourier_2dh.h"
#include "random_utils/random_source.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/txt_file.h"

double sorrel_now() {
  timeval tv;
  gettimeofday(&tv, nullptr);
  return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) * 1e-6;
}

void sorrel_print_time(const char* label, double start) {
  std::printf(">>>>>>TIME<<<<<<%64s: %fs\n", label, sorrel_now() - start);
  std::fflush(stdout);
}

void cpu_2dh_ctf_sim_raw_combine(float* out, const float* sim, const float* data, int box) {
  const int h = box / 2, nh = h + 1, ny = box;
  for (int r = 0; r < ny; ++r)
    for (int c = 0; c < box; ++c)
      out[r * box + c] = c < h - 1 ? sim[((ny - r) % ny) * nh + (h - 1 - c)] : data[r * nh + (c - (h - 1))];
  out[(ny / 2) * box + h] = 0.0f;
}

// The ring of a resolution in the full image, whose zero frequency stands at (box / 2 - 1,
// box / 2): the pixels within half a pixel of the radius take the image's maximum.
static void sorrel_plot_res_ring(float* image, int box, float apix, float res) {
  if (!(res > 0.0f)) return;
  const float radius = static_cast<float>(box) * apix / res;
  if (!(radius < static_cast<float>(box))) return;
  const float top = hm_max_value(image, static_cast<unsigned long>(box) * box);
  const float cx = static_cast<float>(box / 2 - 1), cy = static_cast<float>(box / 2);
  for (int y = 0; y < box; ++y)
    for (int x = 0; x < box; ++x) {
      const float d = std::sqrt((x - cx) * (x - cx) + (y - cy) * (y - cy));
      if (std::fabs(d - radius) <= 0.5f) image[y * box + x] = top;
    }
}

SORREL_A::~SORREL_A() {
  reader.join();
  delete queue;
  queue = nullptr;
  sorrel_free_ctf_data();
  if (log != nullptr) std::fclose(log), log = nullptr;
  if (sumlog != nullptr) std::fclose(sumlog), sumlog = nullptr;
}

int SORREL_A::sorrel_check_access_openf_1st() {
  for (size_t i = 0; i < para.files.size(); ++i) {
    const char* f = para.files[i].c_str();
    const SorrelRead probe = sorrel_probe_mic(f, &head0);
    if (probe == SORREL_READ_OK) {
      std::printf("Opening %s for initial test and preparation .......\n", f);
      return static_cast<int>(i);
    }
    if (access(f, F_OK) != 0)
      std::printf("\033[41m\033[1m\033[5mWarning in function %s(), file %s on line %d: the micrograph %s does NOT "
                  "exist! Automatically ignored!\033[m\n\n",
                  __func__, report_module_path(__FILE__), __LINE__, f);
    else if (probe == SORREL_READ_NO_ACCESS)
      std::printf("\033[41m\033[1m\033[5mWarning in function %s(), file %s on line %d: the micrograph %s are NOT "
                  "readable! Automatically ignored!\033[m\n\n",
                  __func__, report_module_path(__FILE__), __LINE__, f);
    else
      std::printf("\033[41m\033[1m\033[5mWarning in function %s(), file %s on line %d: the micrograph %s is NOT a "
                  "readable MRC image! Automatically ignored!\033[m\n\n",
                  __func__, report_module_path(__FILE__), __LINE__, f);
  }
  return -1;
}

void SORREL_A::sorrel_allocate_ctf_data() {
  nx = head0.nx, ny = head0.ny, nz = head0.nz;
  head1 = head0;
  head1.nz = 1;
  box = para.boxsize;
  const int side = std::min(nx, ny) - std::min(nx, ny) % 2;
  if (box > side) {
    if (side < 128)
      PK_FATAL("The micrographs (%d x %d) are smaller than the smallest spectrum tile of 128 pixels", nx, ny);
    std::printf("Warning: --boxsize %d is larger than the micrographs (%d x %d), forcing it to be %d ...\n", box, nx, ny,
                side);
    box = side;
    para.convsize = box / 12;
    // The output's smoothing box follows the tile like the fit's, unless it was given.
    if (!sorrel_option_given(&para, "convs_out") || para.convs_out > box / 2) para.convs_out = box / 7;
  }
  nh = box / 2 + 1;
  n2dh = static_cast<unsigned long>(nh) * box;
  step = static_cast<int>(box * (1.0 - static_cast<double>(para.overlap)));
  ndef = std::max(1, sorrel_defocus_count(&para));
  epa_n = (nh - 1) * para.EPA_oversmp + 1;
  const size_t plane = static_cast<size_t>(nx) * ny, full = static_cast<size_t>(box) * box;
  h_image.assign(plane * nz, 0.0f);
  h_sub.assign(n2dh, 0.0f), h_sub2.assign(n2dh, 0.0f), h_sim.assign(n2dh, 0.0f), h_amp.assign(n2dh, 0.0f);
  h_full.assign(full, 0.0f), h_out.assign(full, 0.0f);
  h_defocus.assign(ndef, 0.0f), h_scores.assign(ndef, 0.0f), h_curve.assign(nh, 0.0f);
  h_epa_sub.assign(epa_n, 0.0f), h_epa_log.assign(epa_n, 0.0f), h_ctfsim.assign(epa_n, 0.0f), h_phase.assign(epa_n, 0.0f);
  safe_cudaMalloc(&d_image, plane * sizeof(float));
  for (float** d : {&d_amp, &d_log, &d_sub, &d_sub2, &d_work, &d_sim}) safe_cudaMalloc(d, n2dh * sizeof(float));
  safe_cudaMalloc(&d_full, full * sizeof(float));
  safe_cudaMalloc(&d_defocus, ndef * sizeof(float));
  safe_cudaMalloc(&d_sims1d, static_cast<size_t>(ndef) * nh * sizeof(float));
  safe_cudaMalloc(&d_curve, nh * sizeof(float));
  safe_cudaMalloc(&d_scores, ndef * sizeof(float));
  safe_cudaMalloc(&d_epa, epa_n * sizeof(float));
  safe_cudaMalloc(&d_ctfsim, epa_n * sizeof(float));
}

void SORREL_A::sorrel_free_ctf_data() {
  for (float** d : {&d_image, &d_amp, &d_log, &d_sub, &d_sub2, &d_work, &d_sim, &d_full, &d_defocus, &d_sims1d,
                    &d_curve, &d_scores, &d_epa, &d_ctfsim})
    safe_cudaFree(*d);
  sorrel_free_ctf_data_local();
}

int SORREL_A::sorrel_open_sumlog() {
  if (is_str_null(para.ctfstar)) {
    PK_WARNING("No output ctfstar file! You may have to extract CTF information from *_sorrel.log!");
    return 0;
  }
  sumlog = std::fopen(para.ctfstar, "w+");
  if (sumlog == nullptr) {
    std::printf("Cannot write to file %s. Permission denied or no space left!\n", para.ctfstar);
    PK_FATAL("open file '%s' failed.", para.ctfstar);
  }
  log_ctfstar_head(sumlog, para.phase_shift_mode);
  return 0;
}

int SORREL_A::sorrel_preparation(int argc, char** argv) {
  sorrel_init_parameters(&para);
  const SorrelParse parsed = sorrel_get_parameters(argc, argv, &para);
  if (parsed == SORREL_PARSE_STOP_OK) return 1;
  if (parsed == SORREL_PARSE_NO_INPUT) return 2;
  if (sorrel_check_access_openf_1st() < 0) {
    std::printf("\033[41mError: none of the %zu input files is a readable MRC micrograph; nothing to do. Exit "
                "now!\033[m\n",
                para.files.size());
    return 2;
  }
  if (para.pre_read) queue = new SorrelDataQueue(para.dp_silent);
  sorrel_allocate_ctf_data();
  if (para.do_local_refine) sorrel_allocate_ctf_data_local();
  sorrel_movie_check_setup(*this);
  if (para.refine_tilt)
    PK_WARNING("Tilt refinement (--refine_tilt) is not supported; the micrograph is refined as untilted.");
  sorrel_put_parameters(&para);
  sorrel_open_sumlog();
  return 0;
}

int SORREL_A::sorrel_is_done(int index) {
  char name_l[SORREL_NAME_LEN];
  mrcf_set_outname_by_suffix(name_l, para.files[index].c_str(), para.logsuffix);
  FILE* fp = std::fopen(name_l, "r");
  if (fp == nullptr) return 0;
  const long at = FILE_find_str_line(fp, "Processing done successfully");
  std::fclose(fp);
  return at >= 0 ? 1 : 0;
}

void SORREL_A::sorrel_reset_for_micrograph() {
  tol_angle = 0.5f, tol_defocus = 2.0f, tol_phase = 0.2f;
  ref_UVave = ref_UVdif = ref_A = 1;
  ref_PS = hres_pass = local_pass = 0;
  done_UVave = done_UVdif = done_A = done_PS = 0;
  seed_angles = para.defA_seeds >= 2 ? 1 : 0;
  warn = echo_stdout = echo_log = 1;
  res_limit = b_factor = 0.0f;
  std::fill(refined, refined + 5, 0.0f);
  search_seconds = 0.0;
}

int SORREL_A::sorrel_prep_one_mic(int index) {
  const double t0 = sorrel_now();
  mic = index;
  name = para.files[index];
  if (check_file_access(name.c_str(), "FR") != 0) return -1;
  char buffer[SORREL_NAME_LEN];
  mrcf_set_outname_by_suffix(buffer, name.c_str(), para.logsuffix), name_log = buffer;
  mrcf_set_outname_by_suffix(buffer, name.c_str(), ".ctf"), name_ctf = buffer;
  mrcf_set_outname_by_suffix(buffer, name.c_str(), ".pow"), name_pow = buffer;
  mrcf_set_outname_by_suffix(buffer, name.c_str(), ".epa"), name_epa = buffer;
  if (para.do_unfinished && sorrel_is_done(index)) {
    std::printf("CTF parameter of \033[42m%s\033[m already determined. Automatically skipped.\n", name.c_str());
    return -1;
  }
  const SorrelRead probe = sorrel_probe_mic(name.c_str(), &head);
  if (probe != SORREL_READ_OK) {
    PK_WARNING("Micrograph %s %s!", name.c_str(), sorrel_read_text(probe));
    return -1;
  }
  // Every size of the run comes from the first micrograph: another size ends the run, and the
  // rows already written stay in the summary file.
  sorrel_check_mrc_head_sizes_two(para.files[0].c_str(), name.c_str(), &head0, &head);
  log = std::fopen(name_log.c_str(), "w+");
  if (log == nullptr) {
    std::printf("Cannot write to file %s. Permission denied or no space left!\n", name_log.c_str());
    PK_FATAL("open file '%s' failed.", name_log.c_str());
  }
  sorrel_fput_parameters(log, &para);
  sorrel_fput_parameters_ctffind3_like(log, &para);
  std::fprintf(log, "Reading file: %s\n", name.c_str());
  std::printf("Reading file: %s\n", name.c_str());
  SorrelRead got;
  if (queue != nullptr) {
    mrcf_data_packet packet;
    if (!queue->get_for_name(name, packet)) PK_FATAL("Can not get any data from queue.");
    got = packet.read_result;
    if (got == SORREL_READ_OK) std::memcpy(h_image.data(), packet.data, packet.count * sizeof(float));
    sorrel_free_packet(packet);
  } else {
    got = sorrel_read_mic(name.c_str(), &head0, &head, h_image.data());
  }
  if (got == SORREL_READ_OTHER_SIZE) sorrel_check_mrc_head_sizes_two(para.files[0].c_str(), name.c_str(), &head0, &head);
  if (got != SORREL_READ_OK) {
    PK_WARNING("Reading micrograph %s failed: it %s!", name.c_str(), sorrel_read_text(got));
    std::fclose(log), log = nullptr;
    return -1;
  }
  sorrel_print_time("READING", t0);
  return 0;
}

void SORREL_A::sorrel_write_powf() {
  sorrel_powf_fix_centre(h_full.data(), box);
  sorrel_write_powf_file(name_pow.c_str(), h_full.data(), box);
}

void SORREL_A::sorrel_write_star_oneline() {
  if (sumlog == nullptr) return;
  if (para.phase_shift_mode)
    log_ctfstar_ex_oneline_phase_shift(sumlog, name.c_str(), name_ctf.c_str(), refined[0], refined[1], refined[2],
                                       para.kV, para.cs, para.ac, para.apix, para.dstep, refined[4], res_limit,
                                       refined[3]);
  else
    log_ctfstar_ex_oneline(sumlog, name.c_str(), name_ctf.c_str(), refined[0], refined[1], refined[2], para.kV,
                           para.cs, para.ac, para.apix, para.dstep, refined[4], res_limit);
}

void SORREL_A::sorrel_write_ctfout() {
  const float pi = static_cast<float>(kCtfPi);
  hcuda_ctf_pow_simulate_2dh(d_sim, para.apix, nh, box, para.kV, para.cs, para.ac, refined[3], refined[0], refined[1],
                             refined[2], para.ctfout_bfac, para.ctfout_resL, para.ctfout_resH);
  PK_CUDA_CHECK(memcpy_D2H(h_sim.data(), d_sim, n2dh * sizeof(float)));
  hm_normz_inplace(h_sim.data(), n2dh, std::sqrt(para.apix / para.ctfout_resH),
                   2.0f * std::sqrt(para.ctfout_resH * pi / (4.0f * para.apix)) / pi);
  hm_normz_inplace(h_sub2.data(), n2dh, 1.0f, 0.63661975f);
  cpu_2dh_smooth_low_frequency_inplace(h_sub2.data(), nh, box, para.apix, para.ctfout_resL);
  cpu_2dh_ctf_sim_raw_combine(h_out.data(), h_sim.data(), h_sub2.data(), box);
  if (para.plot_res_ring) sorrel_plot_res_ring(h_out.data(), box, para.apix, res_limit);
  mrcf_write_xyz_data(name_ctf.c_str(), h_out.data(), box, box, 1);
  if (para.do_EPA) {
    hcuda_2dh_EPA(d_work, d_sub, nh, box, para.apix, para.kV, para.cs, para.ac, refined[3], refined[0], refined[1],
                  refined[2], para.ctfout_resL, para.ctfout_resH);
    PK_CUDA_CHECK(memcpy_D2H(h_amp.data(), d_work, n2dh * sizeof(float)));
    hm_normz_inplace(h_amp.data(), n2dh, 1.0f, 0.63661975f);
    cpu_2dh_ctf_sim_raw_combine(h_out.data(), h_sim.data(), h_amp.data(), box);
    if (para.plot_res_ring) sorrel_plot_res_ring(h_out.data(), box, para.apix, res_limit);
    mrcf_write_xyz_data(name_epa.c_str(), h_out.data(), box, box, 1);
  }
}

int SORREL_A::sorrel_run_all(int argc, char** argv) {
  // A fatal report has printed its text already and unwinds to here: the run answers with the
  // report's status, the reader thread joined on the way out.
  try {
    return sorrel_run(argc, argv);
  } catch (const pickora::FatalError& e) {
    reader.join();
    std::fflush(stdout);
    return e.status();
  }
}

int SORREL_A::sorrel_run(int argc, char** argv) {
  t_start = sorrel_now();
  const int prepared = sorrel_preparation(argc, argv);
  if (prepared == 1) return 0;
  if (prepared != 0) return 1;
  if (queue != nullptr) {
    std::printf("sending all data, running in background as limited queue ...\n");
    SORREL_A* self = this;
    reader.start(queue, &para.files, &head0,
                 [self](int i) { return !(self->para.do_unfinished && self->sorrel_is_done(i)); }, para.dp_silent);
  }
  sorrel_print_time("PREPARATION", t_start);
  for (int i = 0; i < static_cast<int>(para.files.size()); ++i) {
    const double t0 = sorrel_now();
    sorrel_reset_for_micrograph();
    if (sorrel_prep_one_mic(i) != 0) {
      PK_WARNING("SORREL failed to prepare micrograph %s;skipped and continue with the next.!",
                 para.files[i].c_str());
      continue;
    }
    if (sorrel_generate_ctf_d_data() != 0) {
      PK_WARNING("SORREL failed to generate CTF data from file %s, skipped and continue with the next.!",
                 name.c_str());
      std::fclose(log), log = nullptr;
      continue;
    }
    if (para.phase_shift_mode)
      sorrel_1S2R_st1_PS();
    else
      sorrel_1S2R_st1_noPS();
    if (para.refine_2d_T == 1) sorrel_hcuda_refctf_end_2dh();
    sorrel_print_time("1D SEARCH", sorrel_now() - search_seconds);  // the searches' own seconds
    sorrel_print_time("1S2R", t0);
    if (para.do_validation) sorrel_validate_current(*this);
    if (para.do_mdef_refine) sorrel_movie_refine_current(*this);
    sorrel_epa_1d_ccf_B_estimation();
    if (para.do_local_refine) sorrel_local_refine();
    sorrel_print_time("LOCAL REFINE", t0);
    sorrel_write_star_oneline();
    if (!reloaded) sorrel_write_ctfout();
    if (para.do_phase_flip)
      mrcf_phase_flip_write(name.c_str(), h_image.data(), nx, ny, para.apix, para.kV, para.cs, para.ac, refined[3],
                            refined[0], refined[1], refined[2]);
    sorrel_print_time("PHASE FLIP", t0);
    std::printf("Processing done successfully.\n");
    std::fprintf(log, "Processing done successfully.\n");
    std::fclose(log), log = nullptr;
    for (int k = 0; k < 127; ++k) std::putchar('-');
    std::printf("\n\n");
    std::fflush(stdout);
  }
  reader.join();
  sorrel_free_ctf_data();
  if (sumlog != nullptr) std::fclose(sumlog), sumlog = nullptr;
  return 0;
}
