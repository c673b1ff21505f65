// Scoring picks against a simulated truth: one-to-one matching within a radius, greedy by
// distance, and the counts that precision, recall, F1, contamination hits and angle accuracy
// are made of.
#pragma once

#include <utility>
#include <vector>

#include "../common/contamination_areas.h"

struct ScorePoint {
  double x, y;  // centre, micrograph pixels
  double psi;   // degrees
};

struct ScoreCounts {
  long truth = 0, picks = 0;
  long tp = 0, fp = 0, fn = 0;
  long in_contamination = 0;  // picks inside a contamination area
  long psi_checked = 0;       // matched picks whose angle was compared
  long psi_ok = 0;            // of these, within the tolerance
};

// The absolute difference of two angles on the circle, in [0, 180].
double circular_angle_difference(double a_deg, double b_deg);

// Pairs (pick, truth) of a one-to-one matching: all pairs closer than or at `radius` are taken
// in order of distance (ties by pick, then truth index), each pick and each truth at most once.
std::vector<std::pair<int, int>> match_by_distance(const std::vector<ScorePoint>& picks,
                                                   const std::vector<ScorePoint>& truth, double radius);

// Counts of one micrograph. Angles are compared only when compare_psi is set.
ScoreCounts score_picks(const std::vector<ScorePoint>& picks, const std::vector<ScorePoint>& truth,
                        const std::vector<ContaminationArea>& areas, double radius, bool compare_psi,
                        double psi_tolerance_deg);

void add_counts(ScoreCounts& total, const ScoreCounts& one);

// Ratios of the counts; 0 where the denominator is 0.
double precision_of(const ScoreCounts& c);
double recall_of(const ScoreCounts& c);
double f1_of(const ScoreCounts& c);
