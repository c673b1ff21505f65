// A 2D rigid motion: the rotation matrix by rows, then the translation, in pixels.
#pragma once

struct RT_Mat2D {
  float R11, R12, R21, R22, Tx, Ty;
};
