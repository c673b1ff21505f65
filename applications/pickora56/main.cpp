// The pickora command: everything happens in the driver.
#include "pickora56/pickora_driver.h"

int main(int argc, char** argv) { return pickora_main(argc, argv); }
