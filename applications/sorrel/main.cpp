// The sorrel command: CTF determination over micrographs; everything happens in the class.
#include "ctf/sorrel.h"

int main(int argc, char** argv) {
  SORREL_A s;
  return s.sorrel_run_all(argc, argv);
}
