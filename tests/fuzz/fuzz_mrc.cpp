// Fuzzes the MRC head and slice readers with whole files: every input must end in a clean
// return or a run-ending report, never a crash or a read past a buffer.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "fuzz_support.h"
#include "mrcfile/mrcfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = fuzz_write_input(data, size, ".mrc");
  MRC_HEAD head;
  {
    FuzzFile f = fuzz_open(path);
    if (!f) return 0;
    mrc_read_head(f.get(), &head);
  }
  mrc_check_head(&head);
  mrc_get_head_mode(&head);
  // Destinations are sized by the head, as the program sizes them, within a bound that keeps
  // the fuzzer fast; the readers must refuse whatever the file itself can't back.
  const int64_t volume = int64_t{head.nx} * head.ny * head.nz;
  if (head.nx < 1 || head.ny < 1 || head.nz < 1 || volume > (1 << 18)) {
    fuzz_run([&] { std::free(mrcf_get_data_sliceN(path.c_str(), 0)); });
    return 0;
  }
  std::vector<float> dst(static_cast<size_t>(volume));
  for (char axis : {'z', 'y', 'X', 'q'}) {
    fuzz_run([&] {
      FuzzFile f = fuzz_open(path);
      mrc_read_slice(f.get(), &head, static_cast<int>(size % 3), axis, dst.data());
    });
  }
  fuzz_run([&] {
    FuzzFile f = fuzz_open(path);
    mrc_read_all(f.get(), &head, dst.data());
  });
  return 0;
}
