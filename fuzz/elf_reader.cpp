// The input reader on a whole executable: ELF header, section headers and
// names, the sections it reads (.text, .dynamic, .reginfo, .MIPS.options,
// .got, .dynsym, a .MIPS.Xlate).
#include "com/reader.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vesk::fuzz::MemFile file(data, size);
  vesk::fuzz::in_fresh_run([&] {
    vesk::option.program = file.path();
    vesk::read_input();
  });
  return 0;
}
