// Runs a fuzz target over kept inputs: every file of the folders (or every file) named on the command line, and an
// empty input before them. A folder that does not exist holds nothing. A crash or a hang is the only way to fail.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

constexpr unsigned kSecondsPerInput = 60;

void Run(const std::string& name, const std::vector<uint8_t>& input) {
  std::fprintf(stderr, "%s (%zu bytes)\n", name.c_str(), input.size());  // the last line names what crashed
  alarm(kSecondsPerInput);
  // An input of 0 bytes still has an address, as under the engine.
  static const uint8_t kNothing = 0;
  LLVMFuzzerTestOneInput(input.empty() ? &kNothing : input.data(), input.size());
  alarm(0);
}

std::vector<uint8_t> Read(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path path = argv[i];
    if (std::filesystem::is_directory(path)) {
      for (const auto& entry : std::filesystem::directory_iterator(path)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
      }
    } else if (std::filesystem::exists(path)) {
      files.push_back(path);
    }
  }
  std::sort(files.begin(), files.end());
  Run("the empty input", {});
  for (const auto& file : files) Run(file.filename().string(), Read(file));
  return 0;
}
