// Pictures of micrographs: a grey panel made from an image (block means, percentile stretch),
// overlays drawn on it, and panels put side by side.
//
// Picture coordinates are continuous: pixel (px, py) covers [px, px + 1) x [py, py + 1), row 0
// at the top. A micrograph pixel (x, y) reduced by a factor f lands at ((x + 0.5) / f,
// (y + 0.5) / f), so overlays sit where the image's own pixels went.
#pragma once

#include <cstdint>
#include <vector>

struct Rgb {
  uint8_t r, g, b;
};

struct Picture {
  int width = 0, height = 0;
  std::vector<uint8_t> rgb;  // 3 bytes per pixel, rows from the top

  Picture() = default;
  Picture(int w, int h, Rgb fill);
  bool contains(int x, int y) const { return x >= 0 && y >= 0 && x < width && y < height; }
  Rgb at(int x, int y) const;
  void set(int x, int y, Rgb c);
};

// A float image, row-major, nx values per row.
struct FloatImage {
  int nx = 0, ny = 0;
  std::vector<float> v;
};

// The reduction factor that brings the longer side to at most max_side: ceil(longer / max_side).
int reduction_factor(int nx, int ny, int max_side);

// Means of factor x factor blocks; the last row and column of blocks may be partial and are
// averaged over the pixels they hold. Non-finite values are left out of a block's mean (a
// block of none of them is NaN).
FloatImage block_means(const float* data, int nx, int ny, int factor);

// The value at fraction q (0..1) of the finite values, by nearest rank; NaN if there is none.
float finite_percentile(const std::vector<float>& values, double q);

// lo .. hi mapped to black .. white; a flat range gives mid grey; non-finite values are black.
Picture grey_picture(const FloatImage& im, float lo, float hi);
// lo .. hi mapped along black, blue, red, yellow, white: peaks of a score map stand out.
Picture heat_picture(const FloatImage& im, float lo, float hi);

// A circle line of the given width (picture pixels) about (cx, cy).
void draw_ring(Picture& p, double cx, double cy, double radius, double width, Rgb c);
// A line of the given width from (x0, y0) to (x1, y1).
void draw_segment(Picture& p, double x0, double y0, double x1, double y1, double width, Rgb c);
// Blends colour c with weight alpha into every pixel whose mask entry is set (one per pixel).
void tint(Picture& p, const std::vector<bool>& mask, Rgb c, double alpha);

// Nearest-neighbour scaling to the given height, the aspect kept.
Picture scale_to_height(const Picture& p, int height);
// a and b next to each other, tops aligned, with a gap of the background colour between them.
Picture side_by_side(const Picture& a, const Picture& b, int gap, Rgb background);
