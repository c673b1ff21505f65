// Fuzzes the MRC head and slice readers with whole files: every input must end in a clean
// return or a run-ending report, never a crash or a read past a buffer.
#include <cstdint>
#include <vector>

#include "harness.h"
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
  const bool small = head.nx > 0 && head.ny > 0 && head.nz > 0 && head.nx <= 4096 && head.ny <= 4096 &&
                     head.nz <= 4096 && int64_t{head.nx} * head.ny * head.nz <= (1 << 18);
  if (!small) {
    fuzz_run([&] {
      FuzzFile f = fuzz_open(path);
      mrc_check_fsize(f.get(), &head);
    });
    return 0;
  }
  std::vector<float> dst(static_cast<size_t>(head.nx) * head.ny * head.nz);
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
