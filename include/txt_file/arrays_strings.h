// Splitting, keyword matching, file-name handling, and two- and three-dimensional arrays
// carved out of one allocation.
//
// Text conventions of the whole program: a file name lives in a 1024-byte buffer (at most
// 1023 characters); a null name is written NULL or NONE; an option carries one or two
// leading dashes in any letter case.
#pragma once

#include <cstddef>

// Size of a file name buffer.
constexpr int PICKORA_NAME_LEN = 1024;

// Splitting. Each returns the number of tokens found and stores pointers to them in dest.
// Runs of separators count as one, so there is no empty token. A null or empty source or
// separator string gives 0. The limited forms (strn...) store at most n tokens and ignore
// the rest of the line; n below 1 gives 0.
//
// The plain forms split a private copy of src that stays allocated for the rest of the
// process (the tokens may be kept); the _inplace forms cut src itself. The _byspace forms
// split on space, tab, newline, carriage return, vertical tab and form feed.
//
// A null dest prints "Error in function strsplit()!Memory for 'dest' not allocated." (or the
// text naming strsplit_byspace or strnsplit) and gives 0; strnsplit_byspace ends the process
// with status 1 instead. The functions are reentrant (no shared strtok state), but dest must
// have room for every token stored: a 1024-byte line holds at most 512.
int strsplit(char** dest, const char* src, const char* separators);
int strnsplit(char** dest, const char* src, const char* separators, int n);
int strsplit_inplace(char** dest, char* src, const char* separators);
int strnsplit_inplace(char** dest, char* src, const char* separators, int n);
int strsplit_byspace(char** dest, const char* src);
int strnsplit_byspace(char** dest, const char* src, int n);
int strsplit_inplace_byspace(char** dest, char* src);
int strnsplit_inplace_byspace(char** dest, char* src, int n);

// The whitespace set of the _byspace splitters.
extern const char* const PICKORA_WHITESPACE;

// Two arguments, unlike the BSD/glibc function of the same name (a different overload, so
// the two can coexist): clears 1024 bytes of dst, copies src with its terminator and returns
// the length of src. A src of 1024 characters or more is cut to 1023 so that dst never
// overflows; the returned length then exceeds 1023. A null src copies nothing and gives 0.
int strlcpy(char* dst, const char* src);

// 1 if arg is "-" + keyword or "--" + keyword, letter case ignored; else 0.
int keywd_cmp(const char* arg, const char* keyword);
// 1 for "-h", "--h", "-help", "--help" in any letter case; else 0.
int is_keywd_help(const char* arg);
// 1 if s is NULL or NONE in any letter case, empty, begins with a newline, or is a null
// pointer; else 0.
int is_str_null(const char* s);
// After one optional sign, 1 if the rest holds only decimal digits and at most one '.'
// (an empty rest counts); no exponent. A null pointer gives 0.
int is_float_number(const char* s);
// The length of suffix if name is strictly longer than suffix and ends with it (exact case);
// else 0.
int get_file_suffixn(const char* name, const char* suffix);
// Clears 1024 bytes of dst and writes name, less old_suffix if it ends with it (by the rule of
// get_file_suffixn), followed by new_suffix; cut to 1023 characters. dst may be name itself.
// Returns 0.
int replace_file_suffix(char* dst, const char* new_suffix, const char* name, const char* old_suffix);

// Arrays. malloc2d gives one block: rows row pointers followed by rows * cols elements,
// contiguous and row-major, released by one free (free2d). malloc3d gives n0 pointers to
// pointer rows, n0 * n1 row pointers, then the n0 * n1 * n2 elements. A block must stay
// below 2 GiB: a size below 1 or a block that would reach 2 GiB gives null, like a failed
// allocation, after printing "Function 'malloc()' error in 'malloc2d()' ! Not enough memory!"
// (malloc3d: "\nFunction 'malloc()' error in 'malloc3d()' ! Not enough memory!").
void** malloc2d(int rows, int cols, int elem_size);
char** strmalloc2d(int rows, int cols);
void*** malloc3d(int n0, int n1, int n2, int elem_size);
void free2d(void* array);
void free3d(void* array);

// Clears each row of a 2D array. Returns 0; -1 on a null array.
int empty2d_array(void* array, int rows, int cols, int elem_size);
// Row-by-row copies between a flat buffer and a 2D / 3D array. Return 0; -1 on a null pointer.
int memcpy_1d_to_2d(void* dst2d, const void* src1d, int rows, int cols, int elem_size);
int memcpy_2d_to_1d(void* dst1d, const void* src2d, int rows, int cols, int elem_size);
int memcpy_1d_to_3d(void* dst3d, const void* src1d, int n0, int n1, int n2, int elem_size);
int memcpy_3d_to_1d(void* dst1d, const void* src3d, int n0, int n1, int n2, int elem_size);
