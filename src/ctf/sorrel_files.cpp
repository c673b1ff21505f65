// Files of the CTF run: summary table, start values from a table, power image, safe reading.
#include "ctf/sorrel_files.h"

#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "starfile/starfile.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/txt_file.h"

namespace {

const char* const kCommonLabels[] = {
    "_rlnMicrographName",    "_rlnCtfImage",        "_rlnDefocusU",           "_rlnDefocusV",
    "_rlnDefocusAngle",      "_rlnVoltage",         "_rlnSphericalAberration", "_rlnAmplitudeContrast",
    "_rlnMagnification",     "_rlnDetectorPixelSize", "_rlnCtfFigureOfMerit"};

void write_common_head(FILE* fp) {
  std::fprintf(fp, "\ndata_\n");
  std::fprintf(fp, "\nloop_\n");
  int number = 1;
  for (const char* label : kCommonLabels) std::fprintf(fp, "%s #%d\n", label, number++);
}

void write_row(FILE* fp, const char* micrograph, const char* ctf_image, const float* values, int n) {
  std::fprintf(fp, "%s %s:mrc", micrograph, ctf_image);
  for (int k = 0; k < n; ++k) std::fprintf(fp, " %12.6f", static_cast<double>(values[k]));
  std::fprintf(fp, "\n");
  std::fflush(fp);
}

float field_or(char* const* tokens, int count, int column, float fallback) {
  const char* token = star_row_field(tokens, count, column);
  return token != nullptr ? static_cast<float>(std::strtod(token, nullptr)) : fallback;
}

}  // namespace

int log_ctfstar_ex_head(FILE* fp) {
  write_common_head(fp);
  std::fprintf(fp, "_rlnFinalResolution #12\n");
  std::fflush(fp);
  return 0;
}

int log_ctfstar_ex_head_phase_shift(FILE* fp) {
  write_common_head(fp);
  std::fprintf(fp, "_rlnCtfMaxResolution #12\n");
  std::fprintf(fp, "_rlnPhaseShift #13\n");
  std::fflush(fp);
  return 0;
}

int log_ctfstar_head(FILE* fp, int phase_shift_mode) {
  return phase_shift_mode ? log_ctfstar_ex_head_phase_shift(fp) : log_ctfstar_ex_head(fp);
}

int log_ctfstar_ex_oneline(FILE* fp, const char* micrograph, const char* ctf_image, float U, float V, float A,
                           float kV, float cs, float ac, float apix, float dstep, float ccc, float res_limit) {
  const float magnification = static_cast<float>(10000.0 * static_cast<double>(dstep) / static_cast<double>(apix));
  const float values[] = {U, V, A, kV, cs, ac, magnification, dstep, ccc, res_limit};
  write_row(fp, micrograph, ctf_image, values, 10);
  return 0;
}

int log_ctfstar_ex_oneline_phase_shift(FILE* fp, const char* micrograph, const char* ctf_image, float U, float V,
                                       float A, float kV, float cs, float ac, float apix, float dstep, float ccc,
                                       float res_limit, float phase_shift) {
  const float magnification = static_cast<float>(10000.0 * static_cast<double>(dstep) / static_cast<double>(apix));
  const float values[] = {U, V, A, kV, cs, ac, magnification, dstep, ccc, res_limit, phase_shift};
  write_row(fp, micrograph, ctf_image, values, 11);
  return 0;
}

int get_all_initctf_from_ctfstar(const char* name, std::vector<std::string>& files, std::vector<CTF_INIT>& init) {
  FILE* fp = PK_FOPEN_READ_OR_EXIT(name);
  StarHead* head = star_head_new();
  ParticleInfoIndex index;
  star_read_head(fp, head);
  set_info_index_from_star_head(head, &index);
  char line[PICKORA_LINE_LEN];
  char* tokens[PICKORA_LINE_LEN / 2];
  const int count = head->column_count;
  int added = 0;
  star_set_pointer(fp, 0);
  for (int got; (got = star_read_row(fp, line, tokens, count)) >= 0;) {
    if (got != 1) continue;
    const char* micrograph = star_row_field(tokens, count, index.micrograph_name);
    if (micrograph == nullptr) continue;
    CTF_INIT c{};
    c.kv = field_or(tokens, count, index.voltage, 300.0f);
    c.cs = field_or(tokens, count, index.spherical_aberration, 2.7f);
    c.ac = field_or(tokens, count, index.amplitude_contrast, 0.1f);
    c.ps = field_or(tokens, count, index.phase_shift, 0.0f);
    c.defU = field_or(tokens, count, index.defocus_u, 20000.0f);
    c.defV = field_or(tokens, count, index.defocus_v, 20000.0f);
    c.defA = field_or(tokens, count, index.defocus_angle, 0.0f);
    c.bfac = field_or(tokens, count, index.bfactor, 150.0f);
    c.valid = (c.defU == 0.0f || c.defV == 0.0f) ? 0.0f : 1.0f;
    files.emplace_back(micrograph);
    init.push_back(c);
    ++added;
  }
  std::free(head);
  std::fclose(fp);
  return added;
}

int get_all_ctfinfo_from_ctfstar(const char* name, std::vector<std::string>& files, std::vector<CTF_INFO>& info) {
  std::vector<CTF_INIT> rows;
  const int added = get_all_initctf_from_ctfstar(name, files, rows);
  for (const CTF_INIT& c : rows) info.push_back(CTF_INFO{c.kv, c.cs, c.ac, c.ps, c.defU, c.defV, c.defA, c.bfac});
  return added;
}

int get_all_defocus_from_ctfstar(const char* name, std::vector<std::string>& files, std::vector<UVA_c>& defocus) {
  std::vector<CTF_INIT> rows;
  const int added = get_all_initctf_from_ctfstar(name, files, rows);
  for (const CTF_INIT& c : rows) defocus.push_back(UVA_c{c.defU, c.defV, c.defA});
  return added;
}

void sorrel_powf_fix_centre(float* a, int box) {
  const int x = box / 2 - 1, y = box / 2;
  if (x < 0 || y >= box) return;
  auto at = [&](int xx, int yy) {
    if (xx < 0 || xx >= box || yy < 0 || yy >= box) return a[y * box + x];
    return a[yy * box + xx];
  };
  const float mean = (at(x - 1, y) + at(x + 1, y) + at(x, y - 1) + at(x, y + 1)) * 0.25f;
  a[y * box + x] = mean;
}

int sorrel_write_powf_file(const char* name, const float* image, int box) {
  MRC_HEAD head;
  mrc_init_head(&head);
  mrc_set_head_xyz_mode(&head, box, box, 1, MRC_MODE_FLOAT);
  head.cid = SORREL_POW_CID;
  return mrcf_write_head_data(name, &head, image);
}

SorrelRead sorrel_probe_mic(const char* name, MRC_HEAD* head) {
  if (access(name, F_OK) != 0 || access(name, R_OK) != 0) return SORREL_READ_NO_ACCESS;
  FILE* fp = std::fopen(name, "rb");
  if (fp == nullptr) return SORREL_READ_NO_ACCESS;
  mrc_init_head(head);
  const size_t got = std::fread(head, 1, sizeof(MRC_HEAD), fp);
  std::fseek(fp, 0, SEEK_END);
  const int64_t length = std::ftell(fp);
  std::fclose(fp);
  if (got < sizeof(MRC_HEAD)) return SORREL_READ_BAD_FILE;
  const int64_t nx = head->nx, ny = head->ny, nz = head->nz;
  const int64_t bytes = mrc_sample_bytes(head->mode);
  // The same bounds as the reader's own checks, which would end the process.
  if (nx < 1 || ny < 1 || nz < 1 || bytes == 0) return SORREL_READ_BAD_FILE;
  if (nx * ny >= INT_MAX / 4 || nx * ny * nz >= static_cast<int64_t>(UINT_MAX)) return SORREL_READ_BAD_FILE;
  if (length < 1024 + nx * ny * nz * bytes) return SORREL_READ_BAD_FILE;
  return SORREL_READ_OK;
}

SorrelRead sorrel_read_mic(const char* name, const MRC_HEAD* expected, MRC_HEAD* head, float* dst) {
  const SorrelRead probe = sorrel_probe_mic(name, head);
  if (probe != SORREL_READ_OK) return probe;
  if (expected != nullptr && (head->nx != expected->nx || head->ny != expected->ny || head->nz != expected->nz ||
                              head->mode != expected->mode))
    return SORREL_READ_OTHER_SIZE;
  FILE* fp = std::fopen(name, "rb");
  if (fp == nullptr) return SORREL_READ_NO_ACCESS;
  const int result = mrc_read_all_nocheck(fp, head, dst);
  std::fclose(fp);
  return result == 0 ? SORREL_READ_OK : SORREL_READ_BAD_FILE;
}

const char* sorrel_read_text(SorrelRead result) {
  switch (result) {
    case SORREL_READ_OK: return "read";
    case SORREL_READ_NO_ACCESS: return "does NOT exist or is NOT readable";
    case SORREL_READ_BAD_FILE: return "is not a readable MRC image (head, mode or file length)";
    case SORREL_READ_OTHER_SIZE: return "has another size or mode than the first micrograph";
  }
  return "unknown";
}
