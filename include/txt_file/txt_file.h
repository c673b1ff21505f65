// Text lines: a fixed, zeroed line buffer read by fgets, and line searches in text files.
//
// A text line buffer has 1024 bytes and a long text line buffer 10240 bytes. Each read clears
// the whole buffer first and takes at most 1023 (10239) characters; the newline stays in the
// buffer, and a longer line is continued by the next read.
#pragma once

#include <cstdio>

constexpr int PICKORA_LINE_LEN = 1024;
constexpr int PICKORA_LLINE_LEN = 10240;

// Clears 1024 bytes. Returns 0.
int empty_txt_line(char* line);
// Clears 1024 bytes, then reads at most 1023 characters. Returns 0; at end of file the line
// is left empty.
int read_one_line(char* line, FILE* fp);
// The same with 10240 bytes.
int empty_txt_lline(char* line);
int read_one_lline(char* line, FILE* fp);
// read_one_line that tells whether anything was read: 1 for a line (or the next piece of a
// long one), 0 at end of file or on a read error.
int next_text_line(char* line, FILE* fp);
// next_text_line that keeps a long line one line: of a line longer than 1023 characters the
// buffer keeps the first 1023 and the rest of the line is read and dropped; *cut (if given)
// tells whether that happened.
int read_whole_line(char* line, FILE* fp, bool* cut);

// Reads one line, splits it on whitespace into at most n tokens and stores each, converted by
// strtod and narrowed to float, into out[0] onward; entries beyond the tokens found are left
// alone. Returns 0.
int read_one_line_to_f32(float* out, unsigned int n, FILE* fp);
// The same, but the line must give n tokens (a longer line counts as n); otherwise prints the
// warning "Number of line columns must be at least the data points!", stores nothing and
// returns -1. Returns 0 on success.
int read_one_line_to_f32_strict(float* out, unsigned int n, FILE* fp);

// Rewinds (unless at offset 0) and returns the offset of the start of the first line that
// contains needle, leaving the stream there; -1 at end of file.
long FILE_find_str_line(FILE* fp, const char* needle);
// The same, giving up with -1 after n + 1 lines.
long FILE_Nfind_str_line(FILE* fp, const char* needle, int n);
// Opens the file, looks at up to n + 1 lines and returns the 1-based number of the first line
// that contains needle, or -1; closes the file. A file that can't be opened is fatal.
int f_Nfind_str_line(const char* name, const char* needle, int n);

// Opens a file for reading, or prints "Cannot open file %s. Permission denied or wrong file
// name.\n" and the fatal report "open file '%s' failed." of the calling function, and ends the
// process with status 1. Use through PK_FOPEN_READ_OR_EXIT.
FILE* fopen_read_or_exit(const char* name, const char* func, const char* file, int line);
#define PK_FOPEN_READ_OR_EXIT(name) fopen_read_or_exit((name), __func__, __FILE__, __LINE__)
