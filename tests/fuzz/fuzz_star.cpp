// Fuzzes the STAR reader: head grammar, column index, row counting and row reading.
#include <cstdint>
#include <vector>

#include "harness.h"
#include "starfile/starfile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = fuzz_write_input(data, size, ".star");
  fuzz_run([&] {
    StarHead head;
    ParticleInfoIndex index;
    particle_info_index_init(&index);
    FuzzFile f = fuzz_open(path);
    if (!f) return;
    star_read_head(f.get(), &head);
    set_info_index_from_star_head(&head, &index);
    get_lineN_from_star(f.get());
    star_set_pointer(f.get(), 0);
    std::vector<char> line(1024);
    std::vector<char*> tokens(512);
    const int columns = head.column_count < 512 ? head.column_count : 512;
    for (int row = 0; row < 256; ++row) {
      int result = star_read_row(f.get(), line.data(), tokens.data(), columns);
      if (result < 0) break;
      if (result == 1) {
        star_row_field(tokens.data(), columns, index.coordinate_x);
        star_row_field(tokens.data(), columns, index.angle_psi);
      }
    }
  });
  return 0;
}
