// pickora-image: every subcommand once on small files, the results read back with mrcfile and
// compared with numpy (tests/python/image_toolkit_check.py), and the refusals of bad input.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mrcfile/mrcfile.h"
#include "support/device_data.h"
#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

class ImageCommand : public testing::Test {
 protected:
  TempDir dir;
  std::string out;
  std::string f(const std::string& name) const { return dir.file(name); }
  // Runs pickora-image in the test's folder, so that the arguments name its files plainly.
  int run(const std::string& args) {
    return run_command("cd " + dir.path() + " && " + PICKORA_BIN_DIR + "/pickora-image " + args, out);
  }
  void write(const std::string& name, const std::vector<float>& data, int nx, int ny, int nz) const {
    mrcf_write_xyz_data(f(name).c_str(), data.data(), nx, ny, nz);
  }
  void SetUp() override {
    write("img.mrc", random_image(16 * 16, 1), 16, 16, 1);
    write("stack.mrcs", random_image(7 * 5 * 3, 2), 7, 5, 3);
    auto hot = random_image(12 * 10 * 2, 3);
    hot[120 + 5 * 12 + 4] = 1000.0f;
    write("hot.mrcs", hot, 12, 10, 2);
    write("movie.mrcs", random_image(16 * 12 * 4, 4), 16, 12, 4);
    write_file_text(f("dose.txt"), "# frame dose dx dy\n0 1.0 0.0 0.0\n1 2.0 0.5 0.1\n2 3.0 0.9 0.2\n3 4.0 1.2 0.4\n");
    write("image.mrc", random_image(32 * 32, 5), 32, 32, 1);
    write("mask.mrc", std::vector<float>(8 * 6, 1.0f), 8, 6, 1);
    write_file_text(f("syms.txt"), ".ncs_symmetry_operators\n1 0\n0 1\n0 0\n");
  }
};

TEST_F(ImageCommand, EverySubcommandMatchesNumpy) {
  for (const char* args :
       {"rotate --in img.mrc --out rot.mrc --angle 90", "flip --in stack.mrcs --out flip.mrcs --mode 1",
        "hotpixels --in hot.mrcs --out clean.mrcs --factor 3",
        "dose --in movie.mrcs --out mean.mrc --log dose.txt --apix 1.2 --scheme 0 --device 2",
        "ncs-average --image image.mrc --mask mask.mrc --syms syms.txt --ox 20 --oy 28 --gpu 999 --out patch.mrc",
        "ncs-cccs --ref patch.mrc --image image.mrc --mask mask.mrc --syms syms.txt --ox 20 --oy 28"})
    ASSERT_EQ(run(args), 0) << args << "\n" << out;
  EXPECT_NE(out.find("ccc = 1.000000 \n"), std::string::npos) << out;
  const std::string check = std::string(PICKORA_SOURCE_DIR) + "/tests/python/image_toolkit_check.py ";
  EXPECT_EQ(run_command("/usr/bin/python3 " + check + dir.path(), out), 0) << out;
}

TEST_F(ImageCommand, HelpPerSubcommandAndRefusals) {
  for (const char* sub : {"rotate", "flip", "hotpixels", "dose", "ncs-average", "ncs-cccs"}) {
    EXPECT_EQ(run(std::string(sub) + " --help"), 0) << sub;
    EXPECT_NE(out.find(std::string("Usage: pickora-image ") + sub + " [options]"), std::string::npos) << out;
  }
  EXPECT_EQ(run(""), 0);
  EXPECT_NE(out.find("ncs-cccs"), std::string::npos);
  // A refused run: status 1, the red form, and an earlier file of the output's name (img.mrc) intact.
  const std::string before = read_file_text(f("img.mrc"));
  write_file_text(f("short.txt"), "0 1 0 0\n1 2 0 0\n2 3 0 0\n");
  write("one.mrc", random_image(16 * 12, 6), 16, 12, 1);
  struct Refusal {
    const char *args, *message;
  };
  const Refusal refusals[] = {
      {"dose --in movie.mrcs --out img.mrc --log short.txt --apix 1", "Can not get lines from dose/drift log file"},
      {"dose --in movie.mrcs --out img.mrc --log short.txt --apix 1",
       "does not give dose and drift for each of the 4 frames! Exit now!"},
      {"dose --in one.mrc --out img.mrc --log dose.txt --apix 1", "Too few Movie frames!! Exit now!"},
      {"ncs-average --image mask.mrc --mask image.mrc --syms syms.txt --ox 0 --oy 0 --out img.mrc",
       "is larger than the image (8 x 6)! Exit now!"},
      {"rotate --in img.mrc --out r.mrc", "pickora-image rotate needs --angle (see --help)! Exit now!"},
      {"flip --in img.mrc --out r.mrc --mode 9", "option --mode takes a whole number from 0 to 7, not '9'"},
      {"rotate --bogus 1", "unknown option '--bogus' of pickora-image rotate"},
      {"resize", "unknown subcommand 'resize'"}};
  for (const Refusal& r : refusals) {
    EXPECT_EQ(run(r.args), 1) << r.args;
    EXPECT_NE(out.find(r.message), std::string::npos) << r.args << "\n" << out;
  }
  EXPECT_EQ(read_file_text(f("img.mrc")), before);
}

}  // namespace
