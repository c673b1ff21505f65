#include "score_match.h"

#include <algorithm>
#include <cmath>
#include <tuple>

double circular_angle_difference(double a_deg, double b_deg) {
  double d = std::fmod(std::fabs(a_deg - b_deg), 360.0);
  return d > 180.0 ? 360.0 - d : d;
}

std::vector<std::pair<int, int>> match_by_distance(const std::vector<ScorePoint>& picks,
                                                   const std::vector<ScorePoint>& truth, double radius) {
  std::vector<std::tuple<double, int, int>> near;
  for (int i = 0; i < static_cast<int>(picks.size()); ++i)
    for (int j = 0; j < static_cast<int>(truth.size()); ++j) {
      const double d = std::hypot(picks[i].x - truth[j].x, picks[i].y - truth[j].y);
      if (d <= radius) near.emplace_back(d, i, j);
    }
  std::sort(near.begin(), near.end());
  std::vector<char> pick_used(picks.size(), 0), truth_used(truth.size(), 0);
  std::vector<std::pair<int, int>> pairs;
  for (const auto& [d, i, j] : near) {
    if (pick_used[i] || truth_used[j]) continue;
    pick_used[i] = truth_used[j] = 1;
    pairs.emplace_back(i, j);
  }
  return pairs;
}

ScoreCounts score_picks(const std::vector<ScorePoint>& picks, const std::vector<ScorePoint>& truth,
                        const std::vector<ContaminationArea>& areas, double radius, bool compare_psi,
                        double psi_tolerance_deg) {
  ScoreCounts c;
  c.truth = static_cast<long>(truth.size());
  c.picks = static_cast<long>(picks.size());
  const std::vector<std::pair<int, int>> pairs = match_by_distance(picks, truth, radius);
  c.tp = static_cast<long>(pairs.size());
  c.fp = c.picks - c.tp;
  c.fn = c.truth - c.tp;
  for (const ScorePoint& p : picks)
    if (any_area_contains(areas, p.x, p.y)) ++c.in_contamination;
  if (compare_psi) {
    for (const auto& [i, j] : pairs) {
      ++c.psi_checked;
      if (circular_angle_difference(picks[i].psi, truth[j].psi) <= psi_tolerance_deg) ++c.psi_ok;
    }
  }
  return c;
}

void add_counts(ScoreCounts& t, const ScoreCounts& c) {
  t.truth += c.truth;
  t.picks += c.picks;
  t.tp += c.tp;
  t.fp += c.fp;
  t.fn += c.fn;
  t.in_contamination += c.in_contamination;
  t.psi_checked += c.psi_checked;
  t.psi_ok += c.psi_ok;
}

double precision_of(const ScoreCounts& c) { return c.picks > 0 ? double(c.tp) / c.picks : 0.0; }
double recall_of(const ScoreCounts& c) { return c.truth > 0 ? double(c.tp) / c.truth : 0.0; }
double f1_of(const ScoreCounts& c) {
  const long denominator = c.picks + c.truth;
  return denominator > 0 ? 2.0 * c.tp / denominator : 0.0;
}
