// Describing the code addresses of an executable that carries no
// description yet, in memory, so that vesk reorders a program linked with
// -Wl,-q directly.
#pragma once

namespace vesk {

// When the executable open on bin.in_fd keeps its relocations of .text but
// has no .compact_rel (o32) or .MIPS.events (n32, n64) section, replaces
// bin.in_fd by an in-memory file holding exactly what vesk-annotate would
// write, which vesk then reads as its input.  Leaves any other file as it
// is, for the reader to take or refuse.
void describe_code_addresses_in_memory();

} // namespace vesk
