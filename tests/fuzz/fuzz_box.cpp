// Fuzzes the coordinate reader with .box and .star files, as exclude files reach it.
#include <cstdint>
#include <vector>

#include "boxfile/ptcl_box.h"
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The first byte picks the suffix, so both grammars see every input.
  const char* suffix = size > 0 && (data[0] & 1) ? ".star" : ".box";
  const std::string path = fuzz_write_input(data, size, suffix);
  fuzz_run([&] {
    std::vector<PTCL_BOX> boxes(256);
    int n = read_all_ptcl_boxes(boxes.data(), static_cast<int>(boxes.size()), path.c_str());
    if (n > 0) resize_ptcl_boxes(boxes.data(), n < 256 ? n : 256, 64);
  });
  fuzz_run([&] {
    std::vector<int2> centres;
    read_all_box_vecxyi(centres, path.c_str());
  });
  return 0;
}
