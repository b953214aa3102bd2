#pragma once
// --key-file UUID=FILE: keys from files in front of the host's key cache.

#include <string>
#include <vector>

namespace tool {

/// Loads the files and puts them in the way of the library's key look-ups for as long as it lives; what they do not
/// hold is asked of the host as ever. At most one at a time. A file holds 64 bytes, or 128 hexadecimal digits.
class KeyFiles {
 public:
  explicit KeyFiles(const std::vector<std::string>& arguments);
  ~KeyFiles();
  KeyFiles(const KeyFiles&) = delete;
  KeyFiles& operator=(const KeyFiles&) = delete;

 private:
  static void Forget();
};

}  // namespace tool
