// Built-in particle shapes of the simulator: per view a few Gaussian lobes of distinct sizes
// (a body, an arm and a hook bent off the arm) so that the outline is neither round nor
// mirror-symmetric and the in-plane angle can be told from the image. Lengths are in units of
// the particle diameter; the shape lies within a disc of that diameter, with a soft rim.
#pragma once

#include <vector>

struct ShapeLobe {
  double x, y;   // centre, in diameters from the particle centre
  double sigma;  // in diameters
  double amp;
};

// The lobes of view `view` (0, 1, ...), scaled so that the shape's peak is 1.
std::vector<ShapeLobe> make_view_lobes(int view, double width_scale = 1.0);

// The shape at (u, v), in diameters from the particle centre: the lobes times the soft rim.
double shape_value(const std::vector<ShapeLobe>& lobes, double u, double v);

// A side-by-side image of the shape, centred on pixel (side / 2, side / 2), sampled at
// pixel_A Angstrom per pixel for a particle of diameter_A Angstrom.
std::vector<float> render_shape(const std::vector<ShapeLobe>& lobes, int side, double pixel_A, double diameter_A);

// Bilinear rotation of an nx by ny image by `degrees` about the centre of its pixel grid,
// ((nx - 1) / 2, (ny - 1) / 2). The picture turns from the +x axis toward the +y axis; what
// comes from outside the source is 0.
void rotate_bilinear(const float* src, float* dst, int nx, int ny, double degrees);
