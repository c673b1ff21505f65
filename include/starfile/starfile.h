// Reader of RELION STAR tables: one table per file, a fixed list of known labels.
//
// The head of a file is parsed into a StarHead; the head gives a ParticleInfoIndex, the
// column of each known label; star_set_pointer puts the stream at a data row, and the rows
// are split by the caller (star_read_row and star_row_field do it safely).
//
// Lines are read into a cleared 1024-byte buffer; of a line longer than 1023 characters only
// the first 1023 are looked at, and the rest of it is passed over, so that it stays one line.
//
// Head grammar. At most 512 lines are looked at, each split on space, tab, newline and carriage return into at most two tokens:
//   1. a line without tokens is skipped;
//   2. two tokens, the first a label of STAR_HEAD_KEYWORDS and the second beginning with "#",
//      make a label line: its number and label are added to the head;
//   3. any other line whose first token begins with "data_", "loop_" or "#" (a comment, such
//      as RELION's "# version 30001") is skipped;
//   4. any other line ends the head: the first data row, a label outside the table, a label of
//      the table without its "#" number.
// A file that isn't a STAR table gives a column_count of 0; the parser reports nothing.
#pragma once

#include <cstdio>

constexpr int STAR_HEAD_MAX_LINES = 512;
constexpr int STAR_LABEL_LEN = 256;
constexpr int STAR_HEAD_KEYWORD_COUNT = 228;

struct StarHead {
  int column_count;                                    // label lines accepted
  int column_number[STAR_HEAD_MAX_LINES];              // the number behind "#", as written
  char column_label[STAR_HEAD_MAX_LINES][STAR_LABEL_LEN];  // the label as read
};

// The 1-based column of each known label, 0 when absent.
struct ParticleInfoIndex {
  int bfactor;                      // _rlnBfactor
  int micrograph_name;              // _rlnMicrographName
  int image_name;                   // _rlnImageName
  int coordinate_x;                 // _rlnCoordinateX
  int coordinate_y;                 // _rlnCoordinateY
  int voltage;                      // _rlnVoltage
  int phase_shift;                  // _rlnPhaseShift
  int defocus_u;                    // _rlnDefocusU
  int defocus_v;                    // _rlnDefocusV
  int defocus_angle;                // _rlnDefocusAngle
  int spherical_aberration;         // _rlnSphericalAberration
  int detector_pixel_size;          // _rlnDetectorPixelSize
  int magnification;                // _rlnMagnification
  int amplitude_contrast;           // _rlnAmplitudeContrast
  int ctf_figure_of_merit;          // _rlnCtfFigureOfMerit
  int ctf_max_resolution;           // _rlnCtfMaxResolution
  int class_number;                 // _rlnClassNumber
  int group_number;                 // _rlnGroupNumber
  int random_subset;                // _rlnRandomSubset
  int norm_correction;              // _rlnNormCorrection
  int origin_x;                     // _rlnOriginX
  int origin_y;                     // _rlnOriginY
  int angle_rot;                    // _rlnAngleRot
  int angle_tilt;                   // _rlnAngleTilt
  int angle_psi;                    // _rlnAnglePsi
  int log_likeli_contribution;      // _rlnLogLikeliContribution
  int nr_of_significant_samples;    // _rlnNrOfSignificantSamples
  int max_value_prob_distribution;  // _rlnMaxValueProbDistribution
  int autopick_figure_of_merit;     // _rlnAutopickFigureOfMerit
};

// The labels that count in a head line, case sensitive, whole strings; an empty row ends
// the table. _rlnDataDimensionality stands in it twice.
extern const char STAR_HEAD_KEYWORDS[STAR_HEAD_KEYWORD_COUNT + 1][STAR_LABEL_LEN];

// Zeroed records on the heap; the caller frees them with free.
StarHead* star_head_new();
int star_head_empty(StarHead* head);
ParticleInfoIndex* particle_info_index_new();
int particle_info_index_init(ParticleInfoIndex* index);

// 1 if the word is a label of STAR_HEAD_KEYWORDS, else 0.
int is_star_head_keyword(const char* word);

// Clears the head, rewinds the file and parses the head. Returns 0. The stream position
// afterwards is of no use: call star_set_pointer.
int star_read_head(FILE* fp, StarHead* head);
// The same from a file name; a file that can't be opened is fatal (exit status 1).
int starf_read_head(const char* name, StarHead* head);

// Clears the index and stores the column number of each known label of the head; other
// labels are passed over. Returns 0.
int set_info_index_from_star_head(const StarHead* head, ParticleInfoIndex* index);
// Stores one entry; a label outside the index changes nothing. Returns 0.
int set_info_index_from_keyword_number(const char* label, int number, ParticleInfoIndex* index);
// The stored column number; 0 for a label outside the index.
int get_info_index_from_keyword(const char* label, const ParticleInfoIndex* index);
// Reads the head of the file (fatal if it can't be opened) and fills the index. Returns 0.
int set_info_index_from_starf(const char* name, ParticleInfoIndex* index);
int starf_read_head_info_index(const char* name, StarHead* head, ParticleInfoIndex* index);

// Rewinds and leaves the stream at the start of data row `row` (from 0): the lines that the
// head grammar skips (kinds 1 to 3, wherever they stand) are passed over, every other line is
// a data row. Rows of a second data block count on. If the file has fewer rows, the stream is
// left at its end. Returns 0.
int star_set_pointer(FILE* fp, long row);
// Reads and drops one line of at most 1023 characters. Returns 0.
int star_set_next_line(FILE* fp);

// 5 if the name ends in ".star", else 0.
int get_starf_suffixn(const char* name);

// The number of data rows, as star_set_pointer counts them: lines with at least one token
// after the head that the head grammar would not skip. An upper bound of the rows that
// star_read_row accepts.
long get_lineN_from_star(FILE* fp);
long get_lineN_from_starf(const char* name);

// 1 if count is 0; or count is below 3 and the first word is a label of the table; or the
// first word begins with "data_", "loop_" or "#"; else 0.
int is_words_starhead(char** words, int count);

// Reading rows. Reads the next line into the 1024-byte buffer `line` and splits it on
// whitespace into at most column_count tokens (tokens must have room for column_count, at most
// 512). Returns 1 for a data row that gives column_count tokens (further tokens are ignored),
// 0 for a line to pass over (a null line by is_str_null, a line of the head grammar's kinds 1
// to 3, a line longer than 1023 characters, a row of fewer tokens, or column_count below 1),
// -1 at end of file.
int star_read_row(FILE* fp, char* line, char** tokens, int column_count);
// The token of a 1-based column number, or null when the number is 0 (label absent) or
// outside 1..count.
const char* star_row_field(char* const* tokens, int count, int column_number);

// A malloc2d table of strings of 1024 bytes holding the _rlnMicrographName column, one per
// row read by star_read_row, in row order, and one empty string after the last; free it with
// free2d. Null (after the allocation message) when the table would reach 2 GiB. A file that
// can't be opened is fatal.
char** get_all_micrographs_from_ctfstar(const char* name);

// Output of the CTF toolkit: the head "\ndata_\n", "\nloop_\n" and the labels
// _rlnMicrographName #1 ... _rlnPhaseShift #14, then rows of the name followed by thirteen
// numbers in "%12.6f", each behind one blank so that wide values stay apart.
int particle_star_write_head(FILE* fp);
int particle_star_write_oneline(FILE* fp, const char* micrograph_name, float coordinate_x, float coordinate_y,
                                float voltage, float defocus_u, float defocus_v, float defocus_angle,
                                float spherical_aberration, float detector_pixel_size, float ctf_figure_of_merit,
                                float magnification, float amplitude_contrast, float autopick_figure_of_merit,
                                float phase_shift);
