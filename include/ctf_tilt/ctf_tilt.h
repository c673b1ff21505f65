// CTF of a tilted specimen: the defocus at a position shifts by its height above the focal
// plane, pixel size x (distance from the tilt axis) x tan(tilt). The axis runs through the
// image centre at `axis` degrees from x.
#pragma once

#include <cstdio>

#include "cuda_general/platform.h"
#include "ctf_core/ctf_core.h"

// The CTF at pixel (x, y): base with defU and defV shifted by the same delta; other fields
// kept. A tilt whose tangent is not finite (|tilt| of 90 degrees) is refused with a fatal
// report, as no defocus can be given there.
void get_tilt_local_def_one(CTF_INFO& out, int x, int y, const CTF_INFO& base, int nx, int ny, float apix,
                            float axis, float tilt);
void get_tilt_local_defs(CTF_INFO* out, const int2* pos, int n, const CTF_INFO& base, int nx, int ny, float apix,
                         float axis, float tilt);
// A table on `fp` (standard output in the toolkit); with positions, X and Y lead each row.
void print_tilt_local_defs(FILE* fp, const CTF_INFO* defs, int n, const int2* pos);
