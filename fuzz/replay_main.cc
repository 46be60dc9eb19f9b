// Replays a fuzz corpus without libFuzzer: every regular file named on the
// command line, or found directly inside a directory named there, is fed once
// to LLVMFuzzerTestOneInput. Used by ctest so that every input that ever
// crashed a parser stays a regression test.
#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static int runFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return 1;
  }
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return 0;
}

int main(int argc, char** argv) {
  int failures = 0, inputs = 0;
  for (int i = 1; i < argc; ++i) {
    struct stat st;
    if (::stat(argv[i], &st) != 0) {
      std::fprintf(stderr, "no such corpus: %s\n", argv[i]);
      return 1;
    }
    if (!S_ISDIR(st.st_mode)) {
      failures += runFile(argv[i]);
      ++inputs;
      continue;
    }
    DIR* d = ::opendir(argv[i]);
    if (d == nullptr) return 1;
    while (struct dirent* e = ::readdir(d)) {
      std::string path = std::string(argv[i]) + "/" + e->d_name;
      if (e->d_name[0] == '.' || ::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
      failures += runFile(path);
      ++inputs;
    }
    ::closedir(d);
  }
  std::printf("replayed %d inputs\n", inputs);
  return failures == 0 ? 0 : 1;
}
