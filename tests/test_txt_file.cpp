// Text lines, splitting, keywords and file names.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "support/exit_report.h"
#include "support/temp_file.h"
#include "txt_file/arrays_strings.h"
#include "txt_file/txt_file.h"

// A 3-argument strlcpy as glibc 2.38 declares it, so that this file proves the two-argument
// overload compiles beside it and is the one chosen. Never called, so never linked.
#include <string.h>
#if !(defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 38)))
extern "C" size_t strlcpy(char* dst, const char* src, size_t size) noexcept;
#endif

namespace {

std::vector<std::string> first_tokens(char** tokens, int n) { return std::vector<std::string>(tokens, tokens + n); }

TEST(Strlcpy, TwoArgumentFormClearsCopiesAndNeverOverflows) {
  std::vector<char> dst(PICKORA_NAME_LEN + 16, 'g');
  static_assert(std::is_same<decltype(strlcpy(dst.data(), "a")), int>::value, "the two-argument overload is chosen");
  EXPECT_EQ(strlcpy(dst.data(), "stem_suffix"), 11);
  for (int i = 11; i < PICKORA_NAME_LEN; ++i) ASSERT_EQ(dst[i], '\0') << i;
  EXPECT_EQ(strlcpy(dst.data(), dst.data() + 5), 6);  // source inside the destination
  EXPECT_STREQ(dst.data(), "suffix");
  EXPECT_EQ(strlcpy(dst.data(), std::string(2000, 'a').c_str()), 2000);
  EXPECT_EQ(std::strlen(dst.data()), 1023u);
  for (int i = PICKORA_NAME_LEN; i < PICKORA_NAME_LEN + 16; ++i) ASSERT_EQ(dst[i], 'g');
}

TEST(Words, KeywordsAndNullNames) {
  // One or two dashes, any case, the whole word.
  for (const char* k : {"--BOXSIZE", "-BoxSize"}) EXPECT_EQ(keywd_cmp(k, "boxsize"), 1) << k;
  for (const char* k : {"---boxsize", "-xboxsize", "boxsize", "--boxsize2", "--box"})
    EXPECT_EQ(keywd_cmp(k, "boxsize"), 0) << k;
  EXPECT_EQ(keywd_cmp(nullptr, "boxsize"), 0);
  for (const char* h : {"-h", "--h", "-help", "--HELP", "-Help"}) EXPECT_EQ(is_keywd_help(h), 1) << h;
  for (const char* h : {"h", "help", "---help", "--helps", "-hel"}) EXPECT_EQ(is_keywd_help(h), 0) << h;

  for (const char* s : {"none", "NONE", "Null", "NULL", "", "\n", "\nabc"}) EXPECT_EQ(is_str_null(s), 1) << s;
  EXPECT_EQ(is_str_null(nullptr), 1);
  for (const char* s : {" ", "NULLS", "a.mrc", "NULL\n", " none"}) EXPECT_EQ(is_str_null(s), 0) << s;

}

TEST(FileNames, SuffixLengthAndReplacement) {
  EXPECT_EQ(get_file_suffixn("a.mrc", ".mrc"), 4);
  for (const char* name : {".mrc", "a.mrcs", "a.MRC"}) EXPECT_EQ(get_file_suffixn(name, ".mrc"), 0) << name;
  char dst[PICKORA_NAME_LEN];
  std::memset(dst, 'x', sizeof dst);
  EXPECT_EQ(replace_file_suffix(dst, "_pickora.box", "dir/mic_001.mrc", ".mrc"), 0);
  EXPECT_STREQ(dst, "dir/mic_001_pickora.box");
  EXPECT_EQ(dst[PICKORA_NAME_LEN - 1], '\0');
  replace_file_suffix(dst, ".star", "mic.tif", ".mrc");  // old suffix absent: whole name kept
  EXPECT_STREQ(dst, "mic.tif.star");
  replace_file_suffix(dst, ".box", ".mrc", ".mrc");  // not longer than the suffix: kept
  EXPECT_STREQ(dst, ".mrc.box");
  strlcpy(dst, "run/ctf.star");
  replace_file_suffix(dst, ".star", dst, ".star");  // in place
  EXPECT_STREQ(dst, "run/ctf.star");
  replace_file_suffix(dst, ".box", std::string(1100, 'n').c_str(), ".mrc");
  EXPECT_EQ(std::strlen(dst), 1023u);
}

TEST(Split, InPlaceForms) {
  char* tokens[16];
  char line[] = "  1 2\t3  4 5 6 7 8\n", line2[] = "a,,b,c,", line3[] = "x y", blank[] = " \t\r\v\f\n";
  EXPECT_EQ(strnsplit_inplace_byspace(tokens, line, 7), 7);  // the limit, and runs of separators
  EXPECT_EQ(first_tokens(tokens, 7), (std::vector<std::string>{"1", "2", "3", "4", "5", "6", "7"}));
  EXPECT_EQ(strnsplit_inplace(tokens, line2, ",", 8), 3);
  EXPECT_EQ(first_tokens(tokens, 3), (std::vector<std::string>{"a", "b", "c"}));
  for (int n : {0, -3}) EXPECT_EQ(strnsplit_inplace(tokens, line3, " ", n), 0) << n;
  EXPECT_EQ(strnsplit_inplace(tokens, line3, "", 5), 0);
  EXPECT_EQ(strnsplit_inplace(tokens, nullptr, " ", 5), 0);
  EXPECT_EQ(strnsplit_inplace_byspace(tokens, blank, 5), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(strnsplit_inplace(nullptr, line3, " ", 2), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error in function strnsplit()!Memory for 'dest' not allocated.\n");
}

TEST(Lines, LongLinesAreCut) {
  const std::string exact(1023, 'e');
  TempFile f(std::string(1500, 'a') + "\nsecond\n" + exact + "\nlast");
  FILE* fp = std::fopen(f.path.c_str(), "r");
  char line[PICKORA_LINE_LEN];
  // The whole-line form drops the rest of a long line and says so.
  bool cut = true;
  const auto whole = [&] {
    const int more = read_whole_line(line, fp, &cut);
    return std::to_string(more) + (cut ? " cut:" : ":") + line;
  };
  EXPECT_EQ(whole(), "1 cut:" + std::string(1023, 'a'));
  EXPECT_EQ(whole(), "1:second\n");
  EXPECT_EQ(whole(), "1:" + exact);  // exactly fills the buffer: still whole
  EXPECT_EQ(read_whole_line(line, fp, nullptr), 1);
  EXPECT_STREQ(line, "last");
  EXPECT_EQ(whole().substr(0, 2), "0:");
  EXPECT_EQ(next_text_line(line, fp), 0);
  std::fclose(fp);
}

TEST(Search, OffsetOfMatchingLine) {
  TempFile f("alpha\nbeta\nProcessing done successfully\ngamma\n");
  FILE* fp = std::fopen(f.path.c_str(), "r");
  char line[PICKORA_LINE_LEN];
  read_one_line(line, fp);  // away from the start: the search rewinds
  EXPECT_EQ(FILE_find_str_line(fp, "done successfully"), 11);
  read_one_line(line, fp);
  EXPECT_STREQ(line, "Processing done successfully\n");
  EXPECT_EQ(FILE_find_str_line(fp, "delta"), -1);
  std::fclose(fp);
}

}  // namespace
