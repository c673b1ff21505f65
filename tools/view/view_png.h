// PNG output of a picture, through libpng.
#pragma once

#include "view_picture.h"

// Writes the picture as an 8-bit RGB PNG; a file that cannot be written is fatal.
void write_png(const char* path, const Picture& p);
