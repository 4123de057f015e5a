// Whole transfers between a file and memory at a file offset.  A short or
// failed transfer ends the run: "reading the <what> of <file>" or "writing
// the <what> of <file>", with the system's cause.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace vesk {

void read_at(int fd, uint64_t offset, void *buf, size_t size, const char *what, const char *file);
void write_at(int fd, uint64_t offset, const void *buf, size_t size, const char *what, const char *file);
// Copies n bytes at offset from of in to offset to of out inside the
// kernel, never through this process's memory.  Returns the bytes copied:
// fewer than n where the two files allow no copy or in ends early (the
// caller writes the rest from memory), -1 with errno set on a failure.
ssize_t copy_file_bytes(int in, uint64_t from, int out, uint64_t to, size_t n);
// Writes a whole file through a temporary file beside it, renamed over path
// only when every byte is written: a failure leaves no file and an existing
// one untouched.  path must not name anything but a regular file; the new
// file gets mode (less the umask).
void write_file_atomically(const std::string &path, const void *data, size_t size, mode_t mode);
// The same for a file made of pieces, written one behind the other.
struct FilePiece {
  const void *data;
  size_t size;
  // Where the same bytes lie in an open file, if they do: they are copied
  // from there by the kernel, so that their pages are never mapped into
  // this process (and written from data where the two files allow no copy).
  int from_fd = -1;
  uint64_t from = 0;
};
void write_file_atomically(const std::string &path, std::initializer_list<FilePiece> pieces, mode_t mode);
void write_file_atomically(const std::string &path, const std::vector<FilePiece> &pieces, mode_t mode);

// Puts the finished file temp in the place of path (same directory),
// atomically: path names the old file or the new one, never neither.  An
// existing path is swapped with temp and then removed, not replaced by a
// rename: on ext4, a rename over an existing file makes the kernel write
// the new file's data out at once (a guard for programs that do not sync
// what they replace), which costs more than the whole rest of the write.
// Returns false with errno set when the swap fails.
bool replace_file(const char *temp, const char *path);

// A private, writable mapping of a whole file: the pages nobody writes stay
// shared with the file's cache, a page written is copied then.  The output
// image starts from the input's contents this way, so what a run leaves
// as it was is never copied.
class PrivateMap {
public:
  PrivateMap() = default;
  PrivateMap(const PrivateMap &) = delete;
  PrivateMap(PrivateMap &&o) noexcept
      : p_(std::exchange(o.p_, nullptr)), n_(std::exchange(o.n_, 0)), fd_(std::exchange(o.fd_, -1)) {}
  PrivateMap &operator=(PrivateMap &&o) noexcept {
    std::swap(p_, o.p_);
    std::swap(n_, o.n_);
    std::swap(fd_, o.fd_);
    return *this;
  }
  ~PrivateMap();
  // False when the file cannot be mapped (the caller copies instead).
  bool map(int fd, size_t size);
  uint8_t *data() const { return p_; }
  size_t size() const { return n_; }
  // The mapped file, open as long as the map (-1 when there is none): the
  // pages nobody wrote can be copied from it without touching them.
  int file() const { return fd_; }
  // Bytes [off, off + n) will be written whole before they are read: the
  // pages inside them become zero pages, present at once.  A write to a
  // page of the map otherwise faults and copies the file's page first.
  void overwrite(size_t off, size_t n);
  // Bytes [off, off + n) will be read and then partly written: their pages
  // are copied from the file, writable, at once.  A page first read and
  // then written is mapped twice, and the second time every other core
  // running the process must drop the first mapping (an interrupt each).
  void modify(size_t off, size_t n);

private:
  uint8_t *p_ = nullptr;
  size_t n_ = 0;
  int fd_ = -1;
};

} // namespace vesk
