// The pickora command: everything happens in the driver; a fatal report ends it here.
#include "cuda_general/report.h"
#include "pickora56/pickora_driver.h"

int main(int argc, char** argv) { return report_run_main(pickora_main, argc, argv); }
