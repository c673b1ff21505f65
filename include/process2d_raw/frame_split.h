// Splitting the counts of an image over frames at random, as a detector would have recorded
// them: every pixel goes whole into one frame drawn from the toolkit's random source, and is 0
// in all the others, so the frames add up to the image exactly.
#pragma once

// frames: n images of nx by ny, cleared first. n must be at least 1.
void cpu_2d_simulate_split(const float* image, float* frames, unsigned nx, unsigned ny, unsigned n);
// Every slice of a stack of nz images: n frames per slice, one slice's frames after the other's.
void cpu_2ds_simulate_frame_split(const float* stack, float* frames, unsigned nx, unsigned ny, unsigned nz,
                                  unsigned n);
