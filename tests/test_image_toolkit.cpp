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

const std::string kExe = std::string(PICKORA_BIN_DIR) + "/pickora-image";

class ImageCommand : public testing::Test {
 protected:
  TempDir dir;
  std::string f(const std::string& name) const { return dir.file(name); }
  int run(const std::string& args, std::string& out) const { return run_command(kExe + " " + args, out); }
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
  std::string out;
  ASSERT_EQ(run("rotate --in " + f("img.mrc") + " --out " + f("rot.mrc") + " --angle 90", out), 0) << out;
  ASSERT_EQ(run("flip --in " + f("stack.mrcs") + " --out " + f("flip.mrcs") + " --mode 1", out), 0) << out;
  ASSERT_EQ(run("hotpixels --in " + f("hot.mrcs") + " --out " + f("clean.mrcs") + " --factor 3", out), 0) << out;
  ASSERT_EQ(run("dose --in " + f("movie.mrcs") + " --out " + f("mean.mrc") + " --log " + f("dose.txt") +
                    " --apix 1.2 --scheme 0 --device 2",
                out),
            0)
      << out;
  ASSERT_EQ(run("ncs-average --image " + f("image.mrc") + " --mask " + f("mask.mrc") + " --syms " + f("syms.txt") +
                    " --ox 20 --oy 28 --gpu 999 --out " + f("patch.mrc"),
                out),
            0)
      << out;
  ASSERT_EQ(run("ncs-cccs --ref " + f("patch.mrc") + " --image " + f("image.mrc") + " --mask " + f("mask.mrc") +
                    " --syms " + f("syms.txt") + " --ox 20 --oy 28",
                out),
            0)
      << out;
  EXPECT_NE(out.find("ccc = 1.000000 \n"), std::string::npos) << out;
  const std::string cmd =
      "/usr/bin/python3 " + std::string(PICKORA_SOURCE_DIR) + "/tests/python/image_toolkit_check.py " + dir.path();
  std::string check;
  EXPECT_EQ(run_command(cmd, check), 0) << check;
}

TEST_F(ImageCommand, HelpPerSubcommandAndRefusals) {
  std::string out;
  for (const char* sub : {"rotate", "flip", "hotpixels", "dose", "ncs-average", "ncs-cccs"}) {
    EXPECT_EQ(run(std::string(sub) + " --help", out), 0) << sub;
    EXPECT_NE(out.find(std::string("Usage: pickora-image ") + sub + " [options]"), std::string::npos) << out;
  }
  EXPECT_EQ(run("", out), 0);
  EXPECT_NE(out.find("ncs-cccs"), std::string::npos);

  // A refused run: status 1, the red form, and an earlier file of the output's name intact.
  const std::string kept = f("img.mrc");
  const std::string before = read_file_text(kept);
  write_file_text(f("short.txt"), "0 1 0 0\n1 2 0 0\n2 3 0 0\n");
  EXPECT_EQ(run("dose --in " + f("movie.mrcs") + " --out " + kept + " --log " + f("short.txt") + " --apix 1", out), 1);
  EXPECT_NE(out.find("Can not get lines from dose/drift log file"), std::string::npos) << out;
  EXPECT_NE(out.find("does not give dose and drift for each of the 4 frames! Exit now!"), std::string::npos) << out;
  write("one.mrc", random_image(16 * 12, 6), 16, 12, 1);
  EXPECT_EQ(run("dose --in " + f("one.mrc") + " --out " + kept + " --log " + f("dose.txt") + " --apix 1", out), 1);
  EXPECT_NE(out.find("Too few Movie frames!! Exit now!"), std::string::npos) << out;
  EXPECT_EQ(run("ncs-average --image " + f("mask.mrc") + " --mask " + f("image.mrc") + " --syms " + f("syms.txt") +
                    " --ox 0 --oy 0 --out " + kept,
                out),
            1);
  EXPECT_NE(out.find("is larger than the image (8 x 6)! Exit now!"), std::string::npos) << out;
  EXPECT_EQ(read_file_text(kept), before);

  EXPECT_EQ(run("rotate --in " + kept + " --out " + f("r.mrc"), out), 1);
  EXPECT_NE(out.find("pickora-image rotate needs --angle (see --help)! Exit now!"), std::string::npos) << out;
  EXPECT_EQ(run("flip --in " + kept + " --out " + f("r.mrc") + " --mode 9", out), 1);
  EXPECT_NE(out.find("option --mode takes a whole number from 0 to 7, not '9'"), std::string::npos) << out;
  EXPECT_EQ(run("rotate --bogus 1", out), 1);
  EXPECT_NE(out.find("unknown option '--bogus' of pickora-image rotate"), std::string::npos) << out;
  EXPECT_EQ(run("resize", out), 1);
  EXPECT_NE(out.find("unknown subcommand 'resize'"), std::string::npos) << out;
}

}  // namespace
