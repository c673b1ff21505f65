#include "score_io.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

#include "boxfile/ptcl_box.h"
#include "cuda_general/report.h"
#include "starfile/starfile.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/txt_file.h"

namespace {

const char kTruthSuffix[] = "_truth.star";

bool ends_with(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

bool is_readable_file(const std::string& path) {
  std::error_code ec;
  return std::filesystem::is_regular_file(path, ec);
}

// An upper bound of the records: the number of lines.
int count_lines(const std::string& path) {
  std::FILE* fp = PK_FOPEN_READ_OR_EXIT(path.c_str());
  int lines = 1;
  for (int c; (c = std::fgetc(fp)) != EOF;)
    if (c == '\n') ++lines;
  std::fclose(fp);
  return lines;
}

bool star_has_psi(const std::string& path) {
  std::unique_ptr<StarHead, decltype(&std::free)> head(star_head_new(), &std::free);
  std::unique_ptr<ParticleInfoIndex, decltype(&std::free)> index(particle_info_index_new(), &std::free);
  starf_read_head_info_index(path.c_str(), head.get(), index.get());
  return index->angle_psi > 0;
}

bool box_has_psi(const std::string& path) {
  std::FILE* fp = PK_FOPEN_READ_OR_EXIT(path.c_str());
  char line[PICKORA_LINE_LEN];
  char* tokens[8];
  int columns = 0;
  while (columns == 0 && read_whole_line(line, fp, nullptr)) columns = strnsplit_inplace_byspace(tokens, line, 8);
  std::fclose(fp);
  return columns >= 7;
}

}  // namespace

std::vector<ScorePoint> read_coordinate_file(const std::string& path, bool* has_psi) {
  const int kind = get_boxf_suffixf(path.c_str());
  if (kind == 0) PK_FATAL("'%s' is neither a .star nor a .box file", path.c_str());
  if (!is_readable_file(path)) PK_FATAL("cannot read the coordinate file '%s'", path.c_str());
  const int capacity = count_lines(path);
  std::vector<PTCL_BOX> boxes(static_cast<size_t>(capacity));
  const int n = read_all_ptcl_boxes(boxes.data(), capacity, path.c_str());
  std::vector<ScorePoint> points;
  points.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i)
    points.push_back(ScorePoint{double(ptcl_box_center_x(boxes[i])), double(ptcl_box_center_y(boxes[i])), boxes[i].psi});
  if (has_psi != nullptr) *has_psi = kind == 1 ? star_has_psi(path) : box_has_psi(path);
  return points;
}

double truth_diameter_px(const std::string& truth_path) {
  std::FILE* fp = PK_FOPEN_READ_OR_EXIT(truth_path.c_str());
  char line[PICKORA_LINE_LEN];
  double diameter = -1;
  for (int i = 0; i < 8 && diameter < 0 && read_whole_line(line, fp, nullptr); ++i) {
    const char* key = std::strstr(line, "diameter_px=");
    if (line[0] == '#' && key != nullptr) diameter = std::strtod(key + std::strlen("diameter_px="), nullptr);
  }
  std::fclose(fp);
  return diameter > 0 ? diameter : -1;
}

std::string areas_for_truth(const std::string& truth_path) {
  if (!ends_with(truth_path, kTruthSuffix)) return "";
  const std::string areas = truth_path.substr(0, truth_path.size() - std::strlen(kTruthSuffix)) + "_areas.txt";
  return is_readable_file(areas) ? areas : "";
}

std::vector<ScoreFileSet> file_sets_from_folder(const std::string& dir, const std::string& picks_suffix) {
  std::error_code ec;
  std::vector<std::string> truths;
  for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string path = it->path().string();
    if (ends_with(path, kTruthSuffix)) truths.push_back(path);
  }
  if (ec) PK_FATAL("cannot read the folder '%s': %s", dir.c_str(), ec.message().c_str());
  std::sort(truths.begin(), truths.end());
  std::vector<ScoreFileSet> sets;
  for (const std::string& truth : truths) {
    const std::string stem = truth.substr(0, truth.size() - std::strlen(kTruthSuffix));
    ScoreFileSet s{std::filesystem::path(stem).filename().string(), stem + picks_suffix, truth, areas_for_truth(truth)};
    if (!is_readable_file(s.picks)) {
      PK_WARNING(" no picks file %s: counted as no picks", s.picks.c_str());
      s.picks.clear();
    }
    sets.push_back(s);
  }
  return sets;
}
