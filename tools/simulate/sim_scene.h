// What one simulated micrograph holds: particle positions and angles, ice blobs, a carbon
// edge and a smooth background, planned from the seed before any pixel is drawn; then the
// drawing itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../common/contamination_areas.h"

struct SimParams {
  int nx = 1024, ny = 1024;   // micrograph sides, pixels
  int count = 1;              // micrographs
  double apix = 1.5;          // micrograph pixel size, Angstrom
  double apix_t = 0;          // template pixel size, Angstrom; 0: that of the micrographs
  double diameter_A = 150;    // particle diameter
  double min_dist_A = 0;      // least centre distance; 0: the diameter
  double edge_A = 0;          // least distance of a centre from the image edge; 0: the diameter
  int particles = 0;          // per micrograph; 0: a density that fills about a third of the area
  int templates = 3;          // views
  double snr = 0.1;           // particle power over noise power, per pixel inside the particle disc
  double lobe_width = 1.0;    // scales the widths of the shape's lobes: below 1, finer detail
  double bg_rms = 1.0;        // smooth background, in noise sigmas
  bool contamination = true;  // ice blobs and the carbon edge
  int ice = 2;                // ice blobs, alternately dark and bright
  double ice_amp = 4.0;       // in noise sigmas
  bool carbon = true;
  double carbon_step = 1.5;   // mean step onto the carbon, noise sigmas
  double carbon_noise = 1.8;  // noise sigma on the carbon, relative to the ice
  uint64_t seed = 1;
  std::string out_dir = "sim";
  std::string prefix = "mic";

  double diameter_px() const { return diameter_A / apix; }
  double min_dist_px() const { return (min_dist_A > 0 ? min_dist_A : diameter_A) / apix; }
  double edge_px() const { return (edge_A > 0 ? edge_A : diameter_A) / apix; }
  double template_apix() const { return apix_t > 0 ? apix_t : apix; }
};

struct SimParticle {
  int x, y;      // centre, micrograph pixels
  double psi;    // in-plane angle, degrees in [0, 360)
  int view;      // template number from 0
};

// Full strength within r, a cosine fade to 0 over the next `edge` pixels.
struct IceBlob {
  double cx, cy, r, edge, amp;
};

// Carbon where the projection of a pixel on (ux, uy) exceeds t; the step is smoothed over
// t - half_width .. t + half_width.
struct CarbonEdge {
  bool present = false;
  double ux = 1, uy = 0, t = 0, half_width = 1;
};

// One separable term of the background: amp cos(fx x + px) cos(fy y + py).
struct BackgroundTerm {
  double amp, fx, px, fy, py;
};

struct SimScene {
  std::vector<SimParticle> particles;
  std::vector<IceBlob> ice;
  CarbonEdge carbon;
  std::vector<BackgroundTerm> background;
  std::vector<ContaminationArea> areas;  // where nothing was placed and nothing should be picked
  int wanted = 0;                        // particles asked for (or the automatic count)
};

// Plans micrograph `mic` of the run; depends only on the parameters, the seed and `mic`.
SimScene plan_scene(const SimParams& p, int mic);

// Particle images at the micrograph's pixel size, one per view, each side by side pixels and
// centred on pixel side / 2, with their amplitudes for the requested SNR.
struct ParticleImages {
  int side = 0;
  std::vector<std::vector<float>> views;
  std::vector<double> amplitude;
};
ParticleImages make_particle_images(const SimParams& p);

// Draws the micrograph into out (nx * ny floats, row-major): background, carbon, ice and noise
// of sigma 1 on ice, minus the rotated particles (cryo contrast: particles are dark).
void render_micrograph(const SimParams& p, int mic, const SimScene& scene, const ParticleImages& images,
                       float* out);
