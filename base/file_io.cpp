#include "base/file_io.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

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

ssize_t copy_file_bytes(int in, uint64_t from, int out, uint64_t to, size_t n) {
  loff_t src = loff_t(from), dst = loff_t(to);
  size_t done = 0;
  while (done < n) {
    ssize_t k = copy_file_range(in, &src, out, &dst, n - done, 0);
    if (k < 0 && errno == EINTR)
      continue;
    if (k < 0 && (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP))
      break; // no copy between these two files
    if (k < 0)
      return -1;
    if (k == 0)
      break; // in ends early (cut meanwhile)
    done += size_t(k);
  }
  return ssize_t(done);
}

void write_file_atomically(const std::string &path, const void *data, size_t size, mode_t mode) {
  write_file_atomically(path, {{data, size}}, mode);
}

void write_file_atomically(const std::string &path, std::initializer_list<FilePiece> pieces, mode_t mode) {
  write_file_atomically(path, std::vector<FilePiece>(pieces), mode);
}

void write_file_atomically(const std::string &path, const std::vector<FilePiece> &pieces, mode_t mode) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
    error("%s is not a regular file; name another output", path.c_str());
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string tmpl = dir + "/." + base + ".tmp-XXXXXX";
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back('\0');
  int fd = mkstemp(name.data());
  if (fd < 0)
    sysfatal("cannot write %s", path.c_str());
  mode_t mask = umask(0);
  umask(mask);
  bool ok = fchmod(fd, mode & ~mask) == 0;
  uint64_t at = 0;
  for (const FilePiece &piece : pieces) {
    const char *bytes = static_cast<const char *>(piece.data);
    ssize_t copied = piece.from_fd >= 0 && ok ? copy_file_bytes(piece.from_fd, piece.from, fd, at, piece.size) : 0;
    ok = ok && copied >= 0;
    for (size_t done = copied > 0 ? size_t(copied) : 0; ok && done < piece.size;) {
      ssize_t n = pwrite(fd, bytes + done, piece.size - done, off_t(at + done));
      if (n < 0 && errno == EINTR)
        continue;
      ok = n > 0;
      done += n > 0 ? size_t(n) : 0;
    }
    at += piece.size;
  }
  int e = errno;
  ok = close(fd) == 0 && ok;
  if (!ok || !replace_file(name.data(), path.c_str())) {
    e = ok ? errno : e;
    unlink(name.data());
    errno = e;
    sysfatal("cannot write %s", path.c_str());
  }
}

bool replace_file(const char *temp, const char *path) {
  if (renameat2(AT_FDCWD, temp, AT_FDCWD, path, RENAME_EXCHANGE) == 0) {
    unlink(temp); // the old file, now under the temporary name
    return true;
  }
  // No file to swap with, or a file system that cannot swap.
  return rename(temp, path) == 0;
}

PrivateMap::~PrivateMap() {
  if (p_ != nullptr)
    munmap(p_, n_);
  if (fd_ >= 0)
    close(fd_);
}

void PrivateMap::overwrite(size_t off, size_t n) {
  if (p_ == nullptr || off > n_ || n > n_ - off)
    return;
  size_t page = size_t(sysconf(_SC_PAGESIZE));
  uintptr_t lo = (reinterpret_cast<uintptr_t>(p_) + off + page - 1) / page * page;
  uintptr_t hi = (reinterpret_cast<uintptr_t>(p_) + off + n) / page * page;
  if (hi <= lo)
    return;
  // A failed fixed mapping may have unmapped the range already: nothing
  // could be written there.
  void *r = mmap(reinterpret_cast<void *>(lo), hi - lo, PROT_READ | PROT_WRITE,
                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED | MAP_POPULATE, -1, 0);
  if (r == MAP_FAILED)
    sysfatal("cannot map memory for the output");
}

void PrivateMap::modify(size_t off, size_t n) {
  if (p_ == nullptr || off > n_ || n > n_ - off || n == 0)
    return;
  size_t page = size_t(sysconf(_SC_PAGESIZE));
  uintptr_t lo = (reinterpret_cast<uintptr_t>(p_) + off) / page * page;
  uintptr_t hi = reinterpret_cast<uintptr_t>(p_) + off + n;
  // Only a speed-up: an older kernel without it leaves the faults to come.
  madvise(reinterpret_cast<void *>(lo), hi - lo, MADV_POPULATE_WRITE);
}

bool PrivateMap::map(int fd, size_t size) {
  if (p_ != nullptr || size == 0)
    return p_ != nullptr;
  void *p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0);
  if (p == MAP_FAILED)
    return false;
  p_ = static_cast<uint8_t *>(p);
  n_ = size;
  fd_ = fcntl(fd, F_DUPFD_CLOEXEC, 0); // -1 only costs the copies
  return true;
}

} // namespace vesk
