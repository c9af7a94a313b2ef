// Replays saved fuzz inputs through a target's entry point in ordinary builds, so every input that once
// crashed stays a test without libFuzzer. Arguments: files or directories of inputs. A crash, a sanitizer
// report or a hang fails the test; so does an argument that names no input at all.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; i++) {
    if (!fs::is_directory(argv[i])) {
      if (fs::exists(argv[i])) files.emplace_back(argv[i]);
      continue;
    }
    for (const fs::directory_entry &e : fs::recursive_directory_iterator(argv[i]))
      if (!e.is_directory() && e.path().filename().string()[0] != '.') files.push_back(e.path());
  }
  std::sort(files.begin(), files.end());
  if (files.empty()) {
    fprintf(stderr, "no inputs to replay\n");
    return 1;
  }
  for (const fs::path &f : files) {
    std::ifstream in(f, std::ios::binary);
    if (!in) {
      fprintf(stderr, "cannot read %s\n", f.c_str());
      return 1;
    }
    std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    fprintf(stderr, "replaying %s\n", f.c_str());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  fprintf(stderr, "%zu inputs replayed\n", files.size());
  return 0;
}
