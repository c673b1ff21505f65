// Stack operators from file to file: every slice of an MRC file through one operator, written as
// a mode 2 file. Each returns 0; failures to open or create a file are fatal (exit status 1).
#pragma once

// cuda_2ds_flip of every slice. Modes 4 to 7 write the file with nx and ny exchanged (mode 7 is a
// copy of the data under exchanged sides). A mode outside 0 to 7 is refused with a fatal report.
// Prints "Begin flipping %s " with the input name and "Swapping finished!".
int mrcf_cuda_2ds_flip(const char* in_path, const char* out_path, int mode);
// cuda_2ds_swap_xy (the transposition) of every slice, written with nx and ny exchanged.
int mrcf_cuda_2ds_swap_xy(const char* in_path, const char* out_path);
// hcuda_2ds_rm_hotpixels_inplace over the whole stack with the given factor.
int mrcsf_2ds_rm_hotpixels(const char* in_path, const char* out_path, float factor);
