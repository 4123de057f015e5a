// Whole transfers between a file and memory at a file offset.  A short or
// failed transfer ends the run: "reading the <what> of <file>" or "writing
// the <what> of <file>", with the system's cause.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>

namespace vesk {

void read_at(int fd, uint64_t offset, void *buf, size_t size, const char *what, const char *file);
void write_at(int fd, uint64_t offset, const void *buf, size_t size, const char *what, const char *file);
// Writes a whole file through a temporary file beside it, renamed over path
// only when every byte is written: a failure leaves no file and an existing
// one untouched.  path must not name anything but a regular file; the new
// file gets mode (less the umask).
void write_file_atomically(const std::string &path, const void *data, size_t size, mode_t mode);

} // namespace vesk
