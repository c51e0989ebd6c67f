#pragma once

#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

#include "platform/unique_fd.h"

// A directory of its own for one test, gone with it.
class ScratchDir {
 public:
  ScratchDir() : path_(testing::TempDir() + "httpXXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) std::abort();
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  // Writes a file in place: the inode of one that exists stays. Returns its path.
  std::string write(const std::string& name, const std::string& bytes) const {
    const std::string path = *this / name;
    const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    EXPECT_EQ(::write(fd.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size())) << path;
    return path;
  }
  // Puts a new file in the place of an old one, as careful writers do.
  std::string replace(const std::string& name, const std::string& bytes) const {
    const std::string path = write(name + ".new", bytes);
    EXPECT_EQ(rename(path.c_str(), (*this / name).c_str()), 0);
    return *this / name;
  }
  std::string makeDir(const std::string& name) const {
    const std::string path = *this / name;
    std::filesystem::create_directories(path);
    return path;
  }

 private:
  std::string path_;
};

// Descriptors of this process.
inline int openDescriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

// Bytes without a pattern that a shifted copy would repeat.
inline std::string sampleBytes(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 12345;
  for (char& c : bytes) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return bytes;
}
