#include "support/scratch.h"

#include <filesystem>
#include <stdexcept>

#include "support/synth_elf.h"

namespace vesk::test {

namespace fs = std::filesystem;

ScratchDir::ScratchDir(const std::string &stem) : path_(temp_path(stem)) {
  fs::remove_all(path_);
  if (!fs::create_directories(path_))
    throw std::runtime_error("cannot create " + path_);
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

std::string ScratchDir::copy_in(const std::string &src, const std::string &name) const {
  std::string dst = *this / name;
  fs::copy_file(src, dst, fs::copy_options::overwrite_existing);
  return dst;
}

} // namespace vesk::test
