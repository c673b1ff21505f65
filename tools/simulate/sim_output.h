// Files of the simulator: micrographs and the template stack as MRC mode 2 with the pixel size
// in the head, the ground truth as a STAR table, and the contamination areas as text.
#pragma once

#include <string>
#include <vector>

#include "../common/tool_files.h"
#include "sim_scene.h"

// The truth table: a comment line with the particle diameter in pixels (the scorer's default
// radius comes from it), then _rlnCoordinateX, _rlnCoordinateY, _rlnAnglePsi and
// _rlnClassNumber (the template number from 0), one row per particle.
void write_truth_star(const std::string& path, const SimParams& p, const SimScene& s);

void write_areas_file(const std::string& path, const SimScene& s);

// Renders every view at the template pixel size and writes the stack; returns its side.
int write_template_stack(const std::string& path, const SimParams& p);
