// Files of the CTF run: the summary STAR table and its rows, the readers of a CTF STAR table
// that give start values, the power-spectrum image, and a reader of micrographs that reports
// every failure as a value (it is used from the read-ahead thread, which must never end the
// process).
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "ctf/sorrel_epa.h"
#include "ctf/sorrel_para.h"
#include "mrcfile/mrcfile.h"

// Head of the summary table: "\ndata_\n", "\nloop_\n" and the eleven common labels, then
// _rlnFinalResolution #12 (log_ctfstar_ex_head) or _rlnCtfMaxResolution #12 and
// _rlnPhaseShift #13 (log_ctfstar_ex_head_phase_shift). log_ctfstar_head picks by the flag.
int log_ctfstar_ex_head(FILE* fp);
int log_ctfstar_ex_head_phase_shift(FILE* fp);
int log_ctfstar_head(FILE* fp, int phase_shift_mode);

// One row: "%s %s:mrc" with the micrograph and its ".ctf" image, then " %12.6f" for U, V,
// angle, kV, cs, ac, the magnification 10000 dstep / apix (computed in double), dstep, CCC,
// the resolution limit and (second form) the phase shift; a newline. Flushed at once, so that
// the rows already written survive a later stop of the run.
int log_ctfstar_ex_oneline(FILE* fp, const char* micrograph, const char* ctf_image, float U, float V, float A,
                           float kV, float cs, float ac, float apix, float dstep, float ccc, float res_limit);
int log_ctfstar_ex_oneline_phase_shift(FILE* fp, const char* micrograph, const char* ctf_image, float U, float V,
                                       float A, float kV, float cs, float ac, float apix, float dstep, float ccc,
                                       float res_limit, float phase_shift);

// Appends one input name and its start values per data row of a CTF STAR table: each row
// starts from kv 300, cs 2.7, ac 0.1, ps 0, defU and defV 20000, defA 0, bfac 150, and every
// column the table has overrides its field; valid is 0 where defU or defV is 0. Rows without
// a micrograph name are passed over. A table that can't be opened is fatal. Returns the number
// of rows added.
int get_all_initctf_from_ctfstar(const char* name, std::vector<std::string>& files, std::vector<CTF_INIT>& init);
// The same rows as whole CTF records, and as their defocus and angle alone.
int get_all_ctfinfo_from_ctfstar(const char* name, std::vector<std::string>& files, std::vector<CTF_INFO>& info);
int get_all_defocus_from_ctfstar(const char* name, std::vector<std::string>& files, std::vector<UVA_c>& defocus);

// The ".pow" image is box by box floats: the element in column box / 2 - 1 of row box / 2 is
// replaced by the mean of its four neighbours, a neighbour outside the image falling back to
// the element itself.
void sorrel_powf_fix_centre(float* image, int box);
// Writes the ".pow" file: mode 2, box by box by 1, cid 9986, statistics from the data.
int sorrel_write_powf_file(const char* name, const float* image, int box);
constexpr int SORREL_POW_CID = 9986;

// Outcome of reading one micrograph without ending the process.
enum SorrelRead {
  SORREL_READ_OK = 0,
  SORREL_READ_NO_ACCESS = -1,   // missing or not readable
  SORREL_READ_BAD_FILE = -2,    // not a readable MRC image (head, mode or length)
  SORREL_READ_OTHER_SIZE = -3,  // a good image of another size or mode than the first
};
// The head of a file that can be read as an MRC image: sane sizes, a readable mode (0, 1, 2,
// 6), data for every sample. Nothing is printed. Returns SORREL_READ_OK, _NO_ACCESS or
// _BAD_FILE.
SorrelRead sorrel_probe_mic(const char* name, MRC_HEAD* head);
// Reads the whole image into dst (nx ny nz floats of the expected head); with an expected head,
// a file of other sizes or mode gives SORREL_READ_OTHER_SIZE and leaves dst alone.
SorrelRead sorrel_read_mic(const char* name, const MRC_HEAD* expected, MRC_HEAD* head, float* dst);
// A sentence for a failed read, for the warnings.
const char* sorrel_read_text(SorrelRead result);
