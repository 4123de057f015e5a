// The .MIPS.events / .MIPS.content record decoder on the bytes of a
// section: every record from the first to the end, each one read inside
// the stream and leaving the cursor further on.
#include "events/reader.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  vesk::fuzz::in_fresh_run([&] {
    vesk::EventStream s{data, data + size, ".MIPS.events"};
    vesk::EventEntry record;
    for (const uint8_t *p = data; p < s.end;) {
      const uint8_t *next = vesk::event_get_next_rec(s, p, record.address, &record);
      if (next <= p || next > s.end)
        __builtin_trap();
      vesk::event_kind_string(record.kind);
      p = next;
    }
    // The search the update makes, from the start, for a kind that may not be there.
    const uint8_t *p = data;
    record = {};
    while (vesk::event_find_record(s, p, &record, vesk::EK_GOT_OFST) != 0)
      if (p > s.end)
        __builtin_trap();
  });
  return 0;
}
