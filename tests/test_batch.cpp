// The batch recipe: two pickora processes under GNU parallel give, together, exactly the files
// of one run over the same micrographs, also named by absolute paths, and a second call resumes
// instead of redoing.
#include <gtest/gtest.h>

#include <string>

#include "support/run_command.h"
#include "support/temp_dir.h"

namespace {

TEST(BatchRecipe, TwoProcessesWithAbsolutePathsEqualOneRunAndResume) {
  if (std::string(PICKORA_TEST_BACKEND) == "cuda") GTEST_SKIP() << "the recipe runs the CPU executable";
  TempDir dir;
  const std::string bin = PICKORA_BIN_DIR, options = "--apixM 1.34 --diameter 250 --T templates.mrcs";
  std::string out, mics;
  ASSERT_EQ(run_command("cd '" + dir.path() + "' && " + bin +
                            "/pickora-simulate --out one --n 4 --size 1024 --apix 1.34 --diameter 250 --templates 2 "
                            "--snr 0.3 --lobe_width 0.5 --bg 0.25 --seed 3 && cp -r one two",
                        out), 0) << out;
  ASSERT_EQ(run_command("cd '" + dir.path() + "/one' && " + bin + "/pickora " + options + " mic_000?.mrc", out), 0) << out;
  // A name that starts with "/" must not be taken for the value of a flag, losing a micrograph.
  for (int k = 0; k < 4; ++k) mics += " '" + dir.file("two/mic_000" + std::to_string(k) + ".mrc") + "'";
  const std::string batch = "cd '" + dir.path() + "/two' && " + PICKORA_SOURCE_DIR + "/scripts/pickora-batch.sh -j 2 -b " +
                            bin + "/pickora -o '" + options + "'" + mics;
  ASSERT_EQ(run_command(batch, out), 0) << out;
  EXPECT_NE(out.find("done 4, remaining 0, failed jobs 0 of 2"), std::string::npos) << out;
  for (const char* stem : {"mic_0000", "mic_0001", "mic_0002", "mic_0003"})
    for (const char* suffix : {"_pickora.box", "_pickora.star"}) {
      const std::string name = std::string(stem) + suffix, single = read_file_text(dir.file("one/" + name));
      EXPECT_FALSE(single.empty()) << name;
      EXPECT_EQ(single, read_file_text(dir.file("two/" + name))) << name;
    }
  // Everything is finished: a second call skips every micrograph, and keeps its own logs.
  ASSERT_EQ(run_command(batch, out), 0) << out;
  const std::string logs = dir.path() + "/two/pickora-batch-logs/";
  EXPECT_EQ(run_command("cat '" + logs + "'latest/job_*.log | grep -c 'already been processed'", out), 0);
  EXPECT_EQ(out, "4\n");
  EXPECT_EQ(run_command("ls -d '" + logs + "'*-* | wc -l", out), 0);
  EXPECT_EQ(out, "2\n");
}

}  // namespace
