#include "ctfsim_render.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "ctf_core/ctf_core.h"
#include "cuda_fft/cuda_fft.h"
#include "random_utils/random_source.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;

double draw(const NumberRange& r) { return r.lo == r.hi ? r.lo : random_uniform(r.lo, r.hi); }

double rms(const std::vector<float>& a) {
  double ss = 0;
  for (float v : a) ss += static_cast<double>(v) * v;
  return a.empty() ? 0.0 : std::sqrt(ss / static_cast<double>(a.size()));
}

void scale_to_rms(std::vector<float>& a, double wanted) {
  const double now = rms(a);
  const float k = now > 0 ? static_cast<float>(wanted / now) : 0.0f;
  for (float& v : a) v *= k;
}

// Specimen amplitude at s (1/Angstrom): 1/f-like above 1/200 A, with a broad bump at 1/10 A.
double specimen_amplitude(double s) {
  const double bump = (s - 0.1) / 0.03;
  return (1.0 + 0.6 * std::exp(-0.5 * bump * bump)) / (s + 1.0 / 200.0);
}

std::vector<float> make_specimen(const CtfSimParams& p) {
  const unsigned nx = p.nx, ny = p.ny, nh = fft_half_width(nx);
  std::vector<float> image(std::size_t(nx) * ny);
  random_fill_normal(image.data(), image.size(), 0.0, 1.0);
  std::vector<float2> spectrum(std::size_t(nh) * ny);
  gpu_2d_fft_r2c(image.data(), spectrum.data(), nx, ny);
  for (unsigned y = 0; y < ny; ++y) {
    const double fy = (y < ny / 2 ? double(y) : double(y) - ny) / ny;
    for (unsigned x = 0; x < nh; ++x) {
      const double fx = double(x) / nx;
      const double s = std::sqrt(fx * fx + fy * fy) / p.apix;
      const float k = (x == 0 && y == 0) ? 0.0f : static_cast<float>(specimen_amplitude(s));
      float2& c = spectrum[std::size_t(y) * nh + x];
      c = make_float2(c.x * k, c.y * k);
    }
  }
  gpu_2d_fft_c2r(spectrum.data(), image.data(), nx, ny);
  scale_to_rms(image, 1.0);
  return image;
}

std::vector<float> make_background(const CtfSimParams& p) {
  std::vector<float> bg(std::size_t(p.nx) * p.ny, 0.0f);
  for (int wave = 0; wave < 3; ++wave) {
    const double periods = random_uniform(0.3, 1.5), dir = random_uniform(0.0, kTwoPi);
    const double phase = random_uniform(0.0, kTwoPi);
    const double kx = kTwoPi * periods * std::cos(dir) / p.nx, ky = kTwoPi * periods * std::sin(dir) / p.ny;
    for (int y = 0; y < p.ny; ++y)
      for (int x = 0; x < p.nx; ++x) bg[std::size_t(y) * p.nx + x] += static_cast<float>(std::cos(kx * x + ky * y + phase));
  }
  scale_to_rms(bg, p.bg);
  return bg;
}

// Half the range of the gradient's plane over the image, Angstrom.
double gradient_half_range(const CtfSimParams& p, const CtfSimTruth& t) {
  return std::fabs(t.grad_x) * (p.nx / 2) + std::fabs(t.grad_y) * (p.ny / 2);
}

// The defocus level of every pixel, 0 .. levels - 1.
std::vector<int> level_map(const CtfSimParams& p, const CtfSimTruth& t, int levels) {
  const double half = gradient_half_range(p, t);
  std::vector<int> map(std::size_t(p.nx) * p.ny, 0);
  for (int y = 0; y < p.ny; ++y)
    for (int x = 0; x < p.nx; ++x) {
      const double d = t.grad_x * (x - p.nx / 2) + t.grad_y * (y - p.ny / 2);
      const int k = static_cast<int>(std::floor((d + half) / (2.0 * half) * levels));
      map[std::size_t(y) * p.nx + x] = std::clamp(k, 0, levels - 1);
    }
  return map;
}

void apply_ctf(const CtfSimParams& p, const CtfSimTruth& t, const std::vector<float>& in, std::vector<float>& out,
               double offset) {
  gpu_apply_ctf_r2d_c(in.data(), out.data(), p.nx, p.ny, float(p.apix), float(p.kv), float(p.cs), float(p.ac),
                      float(t.phase), float(t.defU + offset), float(t.defV + offset), float(t.defA), float(t.bfac),
                      'F');
}

// The specimen through the CTF at the truth's defocus plus `offset`, the gradient by levels.
std::vector<float> ctf_image(const CtfSimParams& p, const CtfSimTruth& t, const std::vector<float>& specimen,
                             double offset) {
  std::vector<float> out(specimen.size());
  const double half = gradient_half_range(p, t);
  if (half == 0) {
    apply_ctf(p, t, specimen, out, offset);
    return out;
  }
  const int levels = p.grad_levels;
  const std::vector<int> map = level_map(p, t, levels);
  std::vector<float> level(specimen.size());
  for (int k = 0; k < levels; ++k) {
    const double middle = -half + (2.0 * k + 1.0) * half / levels;
    apply_ctf(p, t, specimen, level, offset + middle);
    for (std::size_t i = 0; i < out.size(); ++i)
      if (map[i] == k) out[i] = level[i];
  }
  return out;
}

}  // namespace

CtfSimTruth draw_truth(const CtfSimParams& p, const std::string& name) {
  CtfSimTruth t;
  t.name = name;
  const double mean = draw(p.defocus), astig = draw(p.astig);
  t.defU = mean + astig / 2;
  t.defV = mean - astig / 2;
  t.defA = draw(p.angle);
  t.bfac = draw(p.bfac);
  t.phase = draw(p.phase);
  t.grad_x = p.grad_x;
  t.grad_y = p.grad_y;
  if (p.grad_max > 0) {
    const double size = random_uniform(0.0, p.grad_max), dir = random_uniform(0.0, kTwoPi);
    t.grad_x = size * std::cos(dir);
    t.grad_y = size * std::sin(dir);
  }
  return t;
}

std::vector<float> render_images(const CtfSimParams& p, const CtfSimTruth& t) {
  const std::size_t n = std::size_t(p.nx) * p.ny;
  const int frames = p.frames;
  const std::vector<float> specimen = make_specimen(p);
  const std::vector<float> bg = make_background(p);
  std::vector<float> out(n * frames), shifted(specimen), noise(n);
  double signal_scale = 0;
  for (int f = 0; f < frames; ++f) {
    const double c = f - (frames - 1) / 2.0;
    // gpu_2d_shift gives out(x, y) = in(x + sx, y + sy): the content moves by (-sx, -sy).
    if (p.drift_x != 0 || p.drift_y != 0)
      gpu_2d_shift(specimen.data(), shifted.data(), p.nx, p.ny, float(-c * p.drift_x), float(-c * p.drift_y));
    const std::vector<float> image = ctf_image(p, t, shifted, c * p.drift_def);
    if (f == 0) signal_scale = std::sqrt(p.snr) / std::max(rms(image), 1e-30);
    random_fill_normal(noise.data(), n, 0.0, 1.0 / std::sqrt(double(frames)));
    float* frame = out.data() + std::size_t(f) * n;
    for (std::size_t i = 0; i < n; ++i)
      frame[i] = static_cast<float>((signal_scale * image[i] + bg[i]) / frames + noise[i]);
  }
  return out;
}
