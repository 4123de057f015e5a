// Whole transfers between a file and memory at a file offset.  A short or
// failed transfer ends the run: "reading the <what> of <file>" or "writing
// the <what> of <file>", with the system's cause.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vesk {

void read_at(int fd, uint64_t offset, void *buf, size_t size, const char *what, const char *file);
void write_at(int fd, uint64_t offset, const void *buf, size_t size, const char *what, const char *file);

} // namespace vesk
