// Files of the scorer: picks and truth as coordinate files (.star or .box, read through the
// project's coordinate reader, so box centres are taken as the picker's own files mean them),
// and the pairing of picks with truth files.
#pragma once

#include <string>
#include <vector>

#include "score_match.h"

struct ScoreFileSet {
  std::string name;   // a label for the report: the truth file's stem
  std::string picks;  // empty: no picks file (counted as no picks)
  std::string truth;
  std::string areas;  // empty: no contamination file
};

// Centres (box corner plus half the box for .box, the coordinates themselves for .star) and
// psi. has_psi tells whether the file carries angles: a .star with _rlnAnglePsi, or a .box
// whose rows have seven columns. A name that is neither .star nor .box is fatal.
std::vector<ScorePoint> read_coordinate_file(const std::string& path, bool* has_psi);

// The particle diameter in pixels from the truth file's comment line, or -1 without one.
double truth_diameter_px(const std::string& truth_path);

// STEM_truth.star -> STEM_areas.txt when that file exists, else empty.
std::string areas_for_truth(const std::string& truth_path);

// Every STEM_truth.star of the folder, sorted by name, with STEM + picks_suffix as its picks
// (left empty, with a warning, when that file is missing).
std::vector<ScoreFileSet> file_sets_from_folder(const std::string& dir, const std::string& picks_suffix);
