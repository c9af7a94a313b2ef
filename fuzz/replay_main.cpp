// Replays saved fuzz inputs through a target's entry point in ordinary
// builds, so every input that once crashed stays a test without libFuzzer.
// Arguments: files or directories of inputs. A crash, a sanitizer report or a
// hang fails the test; so does an argument that names no input at all.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

bool read_file(const std::string &path, std::vector<uint8_t> &bytes) {
  FILE *f = fopen(path.c_str(), "rb");
  if (f == nullptr) return false;
  bytes.clear();
  uint8_t buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) bytes.insert(bytes.end(), buffer, buffer + n);
  fclose(f);
  return true;
}

void collect(const std::string &path, std::vector<std::string> &files) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return;
  if (!S_ISDIR(st.st_mode)) {
    files.push_back(path);
    return;
  }
  DIR *d = opendir(path.c_str());
  if (d == nullptr) return;
  std::vector<std::string> names;
  while (dirent *e = readdir(d))
    if (e->d_name[0] != '.') names.push_back(e->d_name);
  closedir(d);
  std::sort(names.begin(), names.end());
  for (const std::string &n : names) collect(path + "/" + n, files);
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> files;
  for (int i = 1; i < argc; i++) collect(argv[i], files);
  if (files.empty()) {
    fprintf(stderr, "no inputs to replay\n");
    return 1;
  }
  std::vector<uint8_t> bytes;
  for (const std::string &f : files) {
    if (!read_file(f, bytes)) {
      fprintf(stderr, "cannot read %s\n", f.c_str());
      return 1;
    }
    fprintf(stderr, "replaying %s\n", f.c_str());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  fprintf(stderr, "%zu inputs replayed\n", files.size());
  return 0;
}
