// Pieces of the local CTF refinement that stand apart from the run: the tiles about a position,
// and the growth of the coordinate and neighbour lists.
#pragma once

#include <cstdio>
#include <vector>

#include "boxfile/ptcl_box.h"

// All records of a coordinate file, however many (the reader is called again with twice the room
// while it fills what it was given). Fatal as read_all_ptcl_boxes is.
std::vector<PTCL_BOX> read_all_ptcl_boxes_grown(const char* name);
// The neighbour boxes of auto_generate_neighbor_boxes_circular about `center`, all of them: out
// grows until the generator leaves room to spare. Returns the count (out is resized to it).
int auto_generate_neighbor_boxes_grown(std::vector<PTCL_BOX>& out, const PTCL_BOX& center, float radius, int box_size,
                                       int step);

// The boxes that lie wholly in the nx by ny image: their corners and distances, in order.
// Returns how many.
int ptcl_boxes_inside(const std::vector<PTCL_BOX>& boxes, int nx, int ny, std::vector<int2>& corners,
                      std::vector<float>& distances);
// Cuts the boxes that lie wholly in the device image into the device stack (box_size squared
// floats each, in order) and their distances into the device array; returns how many. The
// stack must hold as many tiles as there are boxes.
int hcuda_2d_read_ptcls_to_2ds_from_boxes(float* d_stack, const std::vector<PTCL_BOX>& boxes, float* d_distances,
                                          int box_size, const float* d_image, int nx, int ny,
                                          std::vector<int2>& corners, std::vector<float>& distances);
