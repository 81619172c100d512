// Replays a fuzz target's corpus through the target's own entry point, without
// libFuzzer, so that an ordinary build (g++ too) runs every seed and every
// input that ever found a problem as one CTest test. Usage:
// replay DIR_OR_FILE... ; the exit status is 0 when every input came through.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool isDirectory(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// The files of a folder in name order, so that a run is the same on every machine.
bool listFiles(const std::string& folder, std::vector<std::string>& files) {
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return false;
  std::vector<std::string> names;
  while (struct dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != ".." && !isDirectory(folder + "/" + name)) names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) files.push_back(folder + "/" + name);
  return true;
}

bool readInput(const std::string& path, std::vector<uint8_t>& bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: %s DIR_OR_FILE...\n", argv[0]);
    return 2;
  }
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    if (!isDirectory(argv[i])) {
      files.push_back(argv[i]);
    } else if (!listFiles(argv[i], files)) {
      fprintf(stderr, "%s: cannot read the folder %s\n", argv[0], argv[i]);
      return 2;
    }
  }
  if (files.empty()) {
    fprintf(stderr, "%s: no input to replay\n", argv[0]);
    return 2;
  }

  LLVMFuzzerInitialize(&argc, &argv);
  std::vector<uint8_t> bytes;
  for (const std::string& file : files) {
    if (!readInput(file, bytes)) {
      fprintf(stderr, "%s: cannot read %s\n", argv[0], file.c_str());
      return 2;
    }
    // A crash names the input that caused it.
    fprintf(stderr, "replaying %s (%zu bytes)\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  printf("%zu inputs replayed\n", files.size());
  return 0;
}
