// Describing the code addresses of a whole executable from its kept
// relocations, as vesk does in memory and vesk-annotate into a copy:
// the reader, the description (o32, or n32/n64 events) and the annotated
// file's bytes.
#include "com/annotate/describe.h"
#include "com/annotate/image.h"
#include "com/annotate/write.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vesk::fuzz::MemFile file(data, size);
  vesk::fuzz::in_fresh_run([&] {
    vesk::annotate::Image im = vesk::annotate::read_image(file.path());
    vesk::annotate::Description d = vesk::annotate::describe(im);
    vesk::annotate::annotated_file(im, d, vesk::annotate::annotation_sections(im, d));
  });
  return 0;
}
