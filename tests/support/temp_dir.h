#pragma once
// A folder of a test's own, gone with everything in it at the end.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kab_test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return path_; }
  /// A path in the folder; nothing is created.
  std::string File(std::string_view name) const { return path_ + "/" + std::string(name); }

 private:
  std::string path_;
};

std::vector<uint8_t> ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes);

}  // namespace kab_test
