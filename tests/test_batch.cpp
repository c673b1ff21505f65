// The batch recipe: two pickora processes under GNU parallel give, together, exactly the files
// of one run over the same micrographs, and a second call resumes instead of redoing.
#include <gtest/gtest.h>

#include <string>

#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

TEST(BatchRecipe, TwoProcessesEqualOneRunAndResume) {
  if (std::string(PICKORA_TEST_BACKEND) == "cuda") GTEST_SKIP() << "the recipe runs the CPU executable";
  TempDir dir;
  const std::string bin = PICKORA_BIN_DIR;
  const std::string options = "--apixM 1.34 --diameter 250 --T templates.mrcs";
  std::string out;
  ASSERT_EQ(run_command("cd '" + dir.path() + "' && " + bin +
                    "/pickora-simulate --out one --n 4 --size 1024 --apix 1.34 --diameter 250 --templates 2 "
                    "--snr 0.3 --lobe_width 0.5 --bg 0.25 --seed 3 && cp -r one two",
                out),
            0)
      << out;
  ASSERT_EQ(run_command("cd '" + dir.path() + "/one' && " + bin + "/pickora " + options + " mic_000?.mrc", out), 0) << out;
  const std::string batch = std::string(PICKORA_SOURCE_DIR) + "/scripts/pickora-batch.sh -j 2 -b " + bin +
                            "/pickora -o '" + options + "' mic_000?.mrc";
  ASSERT_EQ(run_command("cd '" + dir.path() + "/two' && " + batch, out), 0) << out;
  EXPECT_NE(out.find("done 4, remaining 0, failed jobs 0 of 2"), std::string::npos) << out;
  for (const char* stem : {"mic_0000", "mic_0001", "mic_0002", "mic_0003"})
    for (const char* suffix : {"_pickora.box", "_pickora.star"}) {
      const std::string name = std::string(stem) + suffix;
      const std::string single = read_file_text(dir.file("one/" + name));
      EXPECT_FALSE(single.empty()) << name;
      EXPECT_EQ(single, read_file_text(dir.file("two/" + name))) << name;
    }
  // Everything is finished: a second call skips every micrograph.
  ASSERT_EQ(run_command("cd '" + dir.path() + "/two' && " + batch, out), 0) << out;
  EXPECT_EQ(run_command("grep -c 'already been processed' '" + dir.path() + "/two/pickora-batch-logs/latest/job_0.log'", out), 0);
  EXPECT_EQ(out, "2\n");
}

}  // namespace
