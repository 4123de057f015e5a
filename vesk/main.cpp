#include "vesk/driver.h"

int main(int argc, char **argv) { return vesk::vesk_main(argc, argv, true); }
