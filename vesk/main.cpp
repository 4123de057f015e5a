#include "vesk/driver.h"

#if defined(__SANITIZE_ADDRESS__)
// The tool allocates once and leaves everything to process exit, so a leak
// report at exit says nothing; sanitizer builds look for real faults only.
extern "C" const char *__asan_default_options() { return "detect_leaks=0"; }
#endif

int main(int argc, char **argv) { return vesk::vesk_main(argc, argv); }
