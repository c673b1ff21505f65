// Device choice, memory, fills, flag values, file access and the report forms.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "cuda_general/cuda_general.h"
#include "cuda_general/report.h"
#include "support/device_data.h"
#include "support/exit_report.h"

namespace {

TEST(DeviceChoice, ExistingIsSelectedMissingIsFatal) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(check_and_set_gid(0), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "using GPU 0 ...\n");
  EXPECT_EXIT_REPORT(check_and_set_gid(97), "");  // message goes to stdout; the status is what a pipeline sees
  EXPECT_EXIT_REPORT(check_gid(97), "");
}

TEST(DeviceMemory, FillWritesExactlyNElements) {
  const unsigned long n = 1025, pad = 64;
  float* d = device_zeros<float>(n + pad);
  DeviceFrees frees(d);
  hcuda_memset_f32(d, 2.5f, n);
  std::vector<float> want(n + pad, 0.0f);
  std::fill_n(want.begin(), n, 2.5f);
  EXPECT_EQ(to_host(d, n + pad), want);
}

struct Args {
  std::vector<std::string> words;
  std::vector<char*> ptrs;
  explicit Args(std::vector<std::string> w) : words(std::move(w)) {
    for (auto& s : words) ptrs.push_back(&s[0]);
  }
};

TEST(BoolKeyword, ValueRules) {
  Args a({"pickora", "--flag", "0", "--flag", "-x", "--flag", "2", "--flag", "--flag", "mic.mrc"});
  // {index of the flag, how many words the command line has, value after, index after}
  const int cases[][4] = {
      {1, 10, 0, 2},  // "0" consumed
      {3, 10, 1, 3},  // an option follows: nothing consumed
      {5, 10, 1, 6},  // "2" is a value and means on
      {7, 8, 1, 7},   // last argument
      {8, 10, 1, 8},  // a letter starts a file name, not a value
  };
  for (const auto& c : cases) {
    int value = 1 - c[2], index = c[0];
    get_bool_keyword(c[1], a.ptrs.data(), value, index);
    EXPECT_EQ(value, c[2]) << "flag at " << c[0];
    EXPECT_EQ(index, c[3]) << "flag at " << c[0];
  }
}

TEST(FileAccess, LettersAndMessages) {
  EXPECT_EQ(check_file_access("/definitely/not/here.mrc", ""), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(check_file_access("/definitely/not/here.mrc", "FR"), -1);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("the file /definitely/not/here.mrc does NOT exist! Automatically ignored!"), std::string::npos);
  EXPECT_EQ(out.find("NOT readable"), std::string::npos);
  EXPECT_EQ(out.rfind("\033[43m\033[1m\033[5mWarning in function check_file_access(), file src/cuda_general on line ", 0),
            0u)
      << out;

  char path[] = "/tmp/pickora_access_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  EXPECT_EQ(check_file_access(path, "fr"), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(check_file_access(path, "Fq"), -1);
  out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("the mode 'q' for checking access of file"), std::string::npos);
  EXPECT_NE(out.find("are NOT recoganized!"), std::string::npos);
  std::remove(path);
}

TEST(Reports, CufftTextsAndModulePaths) {
  EXPECT_STREQ(cufft_error_text(10), "CUFFT_INCOMPLETE_PARAMETER_LIST,  Missing parameters in call");
  EXPECT_STREQ(cufft_error_text(15), "CUFFT_LICENSE_ERROR, Used in previous versions.");  // the last known code
  EXPECT_STREQ(cufft_error_text(16), "Unknown error");
  EXPECT_STREQ(cufft_error_text(-1), "Unknown error");
  EXPECT_STREQ(report_module_path("/home/u/pickora/src/cuda_general/cuda_general.cu"), "src/cuda_general");
  EXPECT_STREQ(report_module_path("src/boxfile/boxfile.cpp"), "src/boxfile");
  EXPECT_STREQ(report_module_path("/x/applications/pickora56/main.cpp"), "applications/pickora56");
  // A checkout that itself sits below a folder named src keeps the innermost module.
  EXPECT_STREQ(report_module_path("/src/build/src/mrcfile/mrc_read.cpp"), "src/mrcfile");
}

TEST(Reports, FormsAndExitStatus) {
  testing::internal::CaptureStdout();
  report_warning("f", "/a/src/boxfile/x.cpp", 12, "Too small sum of mask!!");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\033[43mWarning in function f(), file src/boxfile on line 12:Too small sum of mask!!\n\033[m");
  testing::internal::CaptureStdout();
  report_strong_attention("g", "src/mrcfile/y.cpp", 7, "look");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "\033[41m\033[1m\033[5mWarning in function g(), file src/mrcfile on line 7: look\033[m\n\n");
  EXPECT_EXIT_REPORT(report_fatal("h", "src/txt_file/z.cpp", 3, "Cannot read %s", "a.mrc"),
                     "^\033\\[41mError in function h\\(\\), file src/txt_file on line 3: Cannot read a\\.mrc! Exit "
                     "now!\033\\[m\n$");
  EXPECT_EXIT_REPORT(report_cufft_check(static_cast<cufftResult>(16), "src/cuda_fft/f.cu", 9),
                     "^Error Unknown error at line 9 in file src/cuda_fft\n$");
  EXPECT_EXIT_REPORT(report_device_check(cudaErrorMemoryAllocation, "src/cuda_fft/f.cu", 9),
                     "^Error .* at line 9 in file src/cuda_fft\n$");
}

}  // namespace
