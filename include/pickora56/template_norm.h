// Bringing the template stack to the device in the form the matching expects, the area term
// that scales every correlation map, the optional file of the normalised templates, and the
// contrast inversion that is the last change a template undergoes.
#pragma once

// The file the normalised templates are written to, in the working directory.
constexpr const char* kNormedTemplatesFile = "pickora_normed_templates.mrcs";

// Copies the host stack (tnx by tny by tnz, left unchanged) to d_out, treating each slice by
// T_norm_type:
//   0  nothing (one copy of the whole stack);
//   1  the mean of all pixels subtracted (hm_submean_inplace);
//   2  pixels farther than r from the centre set to 0.0, then the sum of the slice over all
//      tnx * tny pixels subtracted from every pixel, outside the circle too;
//   3  cpu_2d_znorm_withRmask_applymask_inplace with R = (1 - m) r and soft = r m;
//   else the slice unchanged, with an "Invalid T_norm_type!" warning per slice.
// r is the particle radius in work pixels, m the edge ratio. Returns 0.
int normalize_template_data(float* d_out, const float* h_in, int tnx, int tny, int tnz, int T_norm_type, float r,
                            float m);

// The area term of the correlation scaling: cpu_2d_rmask_soft_sum((1 - m) r, m r) for type 3,
// otherwise pi r r in double, narrowed to float.
float pickora_template_area_term(int T_norm_type, float r, float m);

// Normalises to mean 0 and standard deviation 1 under the soft disc of
// cpu_2d_generate_rmask_soft (centre (cx, cy), flat radius R, soft edge `soft`), then
// multiplies by that disc.
void cpu_2d_znorm_withRmask_applymask_inplace(float* image, unsigned nx, unsigned ny, float cx, float cy, float R,
                                              float soft);

// Sum, in double and narrowed to float, of the soft disc over an n by n square centred on
// ((n - 1) / 2, (n - 1) / 2), n = trunc(R + soft) + 1. 0.0 when n is below 1.
float cpu_2d_rmask_soft_sum(float R, float soft);

// Writes the device stack to kNormedTemplatesFile (mode 2, tnz slices). Returns 0.
int pickora_write_normed_templates(const float* d_templates, int tnx, int tny, int tnz);

// Multiplies every device template value by -1.0: bright templates become dark, as the
// particles are in a cryo micrograph.
void pickora_invert_templates(float* d_templates, int tnx, int tny, int tnz);
