#include "base/file_io.h"

#include <cerrno>
#include <unistd.h>

#include "base/diag.h"

namespace vesk {

namespace {

template <class Buf, class Op>
void transfer(Op op, int fd, uint64_t offset, Buf *buf, size_t size, const char *verb, const char *what,
              const char *file) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = op(fd, buf + done, size - done, off_t(offset + done));
    if (n <= 0) {
      if (n == 0)
        errno = -1; // the file ends before the data does
      sysfatal("%s the %s of %s", verb, what, file);
    }
    done += size_t(n);
  }
}

} // namespace

void read_at(int fd, uint64_t offset, void *buf, size_t size, const char *what, const char *file) {
  transfer(pread, fd, offset, static_cast<uint8_t *>(buf), size, "reading", what, file);
}

void write_at(int fd, uint64_t offset, const void *buf, size_t size, const char *what, const char *file) {
  transfer(pwrite, fd, offset, static_cast<const uint8_t *>(buf), size, "writing", what, file);
}

} // namespace vesk
