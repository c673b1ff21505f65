// Host side of the dose weighting: the host twin of the average, the voltage rule and the
// readers of the dose, drift and radial-table text files.
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "cuda_general/report.h"
#include "pre_shiny6/pre_shiny6.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/txt_file.h"

float host_fixed_dose_weight(float s, float dose) { return std::exp(-dose * std::pow(s, 1.31489f) / 1.35172f); }

namespace {

// The host twin's frame weight: the device rule except for scheme 1's fixed curve.
float host_frame_weight(float s, float theta, float apix, float dose, float2 drift, const GPS_PARA& p) {
  if (s == 0.0f || p.mw_skeme != 1) return hd_frame_weight(s, theta, apix, dose, drift, p);
  return host_fixed_dose_weight(s, dose);
}

}  // namespace

void cpu_2ds_fft_dose_dft_ctf_wave(const float2* frames, float2* out, unsigned nxh, unsigned ny, unsigned nz,
                                   float apix, const float* dose, const float2* drift, GPS_PARA p) {
  // The host normaliser is always k + sum |wm|, so wnorm_type is not checked here.
  gps_para_check(p, false);
  dose_sampling_check(nxh, ny, apix);
  const unsigned long plane = static_cast<unsigned long>(nxh) * ny;
  for (unsigned y = 0; y < ny; ++y)
    for (unsigned x = 0; x < nxh; ++x) {
      const unsigned long i = static_cast<unsigned long>(y) * nxh + x;
      const float s = dose_frequency(x, y, nxh, ny, apix), theta = dose_theta(x, y, ny);
      float re = 0.0f, im = 0.0f, running = 0.0f;
      for (unsigned z = 0; z < nz; ++z) {
        const float wm = host_frame_weight(s, theta, apix, dose[z], drift[z], p);
        running += std::fabs(wm);
        re += wm * frames[z * plane + i].x;
        im += wm * frames[z * plane + i].y;
      }
      const float norm = p.k + running;
      out[i] = norm == 0.0f ? make_float2(0.0f, 0.0f) : make_float2(re / norm, im / norm);
    }
}

float eq_dose(float dose, int kv) {
  switch (kv) {
    case 100:
      return dose / 0.68f;
    case 120:
      return dose / 0.75f;
    case 300:
      return dose / 1.22f;
    case 400:
      return dose / 1.33f;
    default:
      return dose;
  }
}

namespace {

constexpr const char* kSeparators = " \t\n\r#:,;";
constexpr int kMaxTokens = PICKORA_LINE_LEN / 2;

// The lines of one text input, split at kSeparators.
struct LogLines {
  FILE* fp;
  char line[PICKORA_LINE_LEN];
  char* tokens[kMaxTokens];
  // Token count of the next line, -1 when the lines run out.
  int next() {
    return read_whole_line(line, fp, nullptr) ? strnsplit_inplace(tokens, line, kSeparators, kMaxTokens) : -1;
  }
  // A line whose first token is not a whole number (a heading) is no entry.
  bool numbered() const {
    char* end = nullptr;
    std::strtol(tokens[0], &end, 10);
    return end != tokens[0] && *end == '\0';
  }
  bool is_frame(int frame) const { return std::strtol(tokens[0], nullptr, 10) == frame; }
  float value(int k) const { return static_cast<float>(std::strtod(tokens[k], nullptr)); }
};

}  // namespace

int get_dose_smoothed_drift_from_txt(float* dose, float2* drift, int frames, char* path) {
  if (frames < 3) PK_FATAL("Critical ERROR! Too few Movie frames!");
  LogLines text{PK_FOPEN_READ_OR_EXIT(path), {}, {}};
  for (int frame = 0; frame < frames;) {
    const int count = text.next();
    if (count < 0) {
      std::fclose(text.fp);
      PK_WARNING(
          "Can not get lines from dose/drift log file. Check file format or parameters. Or have you modified the log "
          "file?!\n");
      return -1;
    }
    if (count < 4 || !text.numbered()) continue;
    if (!text.is_frame(frame)) {
      std::fclose(text.fp);
      PK_WARNING(
          "Can not get dose/drift parameters from log file. Check file format or parameters. Or have you modified "
          "the log file?!\n");
      return -1;
    }
    dose[frame] = text.value(1);
    drift[frame] = make_float2(text.value(2), text.value(3));
    ++frame;
  }
  std::fclose(text.fp);
  return 0;
}

int get_drift_from_txt(float2* drift, int frames, const char* path) {
  if (frames < 3) PK_FATAL("Critical ERROR! Too few Movie frames!");
  LogLines text{PK_FOPEN_READ_OR_EXIT(path), {}, {}};
  for (int frame = 0; frame < frames;) {
    const int count = text.next();
    if (count < 0) {
      std::fclose(text.fp);
      PK_WARNING(
          "Can not get lines from drift log file. Check file format or parameters. Or have you modified the log "
          "file?\n!\n");
      return -1;
    }
    if (count < 3 || !text.numbered()) continue;
    if (!text.is_frame(frame)) {
      std::fclose(text.fp);
      PK_WARNING(
          "Can not get drift parameters from log file. Check file format or parameters. Or have you modified the "
          "log file?\n!\n");
      return -1;
    }
    drift[frame] = make_float2(text.value(1), text.value(2));
    ++frame;
  }
  std::fclose(text.fp);
  return 0;
}

int get_ctfw_from_txt(float* table, int entries, const char* path) {
  for (int i = 0; i < entries; ++i) table[i] = 0.0f;
  LogLines text{PK_FOPEN_READ_OR_EXIT(path), {}, {}};
  for (int entry = 0; entry < entries;) {
    const int count = text.next();
    if (count < 0) {
      std::fclose(text.fp);
      PK_WARNING(
          "Can not get lines from CTF_W log file. Check file format or parameters. Or have you modified the log "
          "file?!\n");
      return -1;
    }
    if (count == 0 || (count < 3 && !text.numbered())) continue;  // blank lines and headings
    if (count < 3) {
      PK_WARNING("CTFw text line format error!!\n");
      continue;
    }
    if (!text.numbered()) continue;
    if (!text.is_frame(entry)) {
      std::fclose(text.fp);
      PK_WARNING(
          "Can not get CTF_W parameters from log file. Check file format or parameters. Or have you modified the "
          "log file?!\n");
      return -1;
    }
    table[entry++] = text.value(2);
  }
  std::fclose(text.fp);
  return 0;
}

void print_dose_drif_ctfw(const float* dose, const float2* drift, int frames, const float* ctfw, int entries) {
  std::printf("Frame        Dose      DriftX      DriftY\n");
  for (int z = 0; z < frames; ++z) std::printf("%5d%12.4f%12.4f%12.4f\n", z, dose[z], drift[z].x, drift[z].y);
  if (ctfw == nullptr) return;
  std::printf("Radius       CTFw\n");
  for (int i = 0; i < entries; ++i) std::printf("%6d%11.6f\n", i, ctfw[i]);
}
