// A private directory for one test, removed with everything in it when the
// test ends.
#pragma once

#include <string>

namespace vesk::test {

class ScratchDir {
public:
  explicit ScratchDir(const std::string &stem);
  ~ScratchDir();
  ScratchDir(const ScratchDir &) = delete;
  ScratchDir &operator=(const ScratchDir &) = delete;

  const std::string &path() const { return path_; }
  // The path of name inside the directory.
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }
  // Copies the file src into the directory as name (keeping its mode);
  // returns the new path.
  std::string copy_in(const std::string &src, const std::string &name) const;

private:
  std::string path_;
};

} // namespace vesk::test
