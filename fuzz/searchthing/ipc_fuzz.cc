// Arbitrary request streams into the forked engine's serving loop, run in
// this process against a small index directory. Nothing may crash.
//
// Input: records of [1 byte command][2 bytes little-endian length][payload];
// each becomes a request "32-bit command word + payload". The payload is
// passed as is, except that the sizes of options / autotune and the answer
// capacities of get / query / enum are clamped so a run can't ask for
// gigabytes; lengths, counts and strings stay arbitrary.
#include <dirent.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "searchthing/ipcver.h"

namespace {

std::string g_root, g_dir;

void emptyDir(const std::string& dir) {
  if (DIR* d = opendir(dir.c_str())) {
    while (struct dirent* e = readdir(d)) {
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) unlink((dir + "/" + e->d_name).c_str());
    }
    closedir(d);
  }
}

void removeScratch() {
  emptyDir(g_dir);
  rmdir(g_dir.c_str());
  emptyDir(g_root);  // lock files beside the index directory
  rmdir(g_root.c_str());
}

void resetDir() {
  if (g_dir.empty()) {
    char tmpl[] = "/tmp/ipc_fuzz_XXXXXX";
    if (!mkdtemp(tmpl)) abort();
    g_root = tmpl;
    g_dir = g_root + "/idx";
    mkdir(g_dir.c_str(), 0755);
    atexit(removeScratch);
  }
  emptyDir(g_dir);
  st_real_handle* h = REAL_st_open_wflags(g_dir.c_str(), 3);
  if (!h) abort();
  const char* terms[] = {"alpha", "beta", "gamma", "error", "mirror"};
  for (uint32_t i = 0; i < 40; ++i) {
    REAL_st_put(h, terms[i % 5], 1000 + static_cast<int32_t>(i), i + 1, i % 3, i % 7, 1, 2);
    REAL_st_put(h, terms[(i * 3) % 5], 1000 + static_cast<int32_t>(i), i + 1, i % 3, i % 7, 1, 2);
    if (i == 19) REAL_st_sync(h);
  }
  REAL_st_close(h);
}

void clamp32(std::vector<uint8_t>& p, size_t off, uint32_t max) {
  if (p.size() < off + 4) return;
  uint32_t v;
  memcpy(&v, p.data() + off, 4);
  v %= max + 1;
  memcpy(p.data() + off, &v, 4);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> stream;
  size_t i = 0;
  while (i + 3 <= size) {
    uint32_t cmd = data[i];
    size_t len = data[i + 1] | (static_cast<size_t>(data[i + 2]) << 8);
    i += 3;
    if (len > size - i) len = size - i;
    std::vector<uint8_t> p(data + i, data + i + len);
    i += len;
    switch (cmd) {
      case 0:  // options: pool, terms, postings, values
        for (size_t off = 0; off < 16; off += 4) clamp32(p, off, 65536);
        break;
      case 13:  // autotune budget
        if (p.size() >= 8) memset(p.data() + 2, 0, 6);
        break;
      case 4:
      case 5:  // capacity after start and end
        clamp32(p, 8, 4096);
        break;
      case 8:  // capacity after which
        clamp32(p, 4, 256);
        break;
    }
    stream.insert(stream.end(), reinterpret_cast<uint8_t*>(&cmd), reinterpret_cast<uint8_t*>(&cmd) + 4);
    stream.insert(stream.end(), p.begin(), p.end());
  }

  resetDir();
  int in = memfd_create("ipc_fuzz", 0);
  int out = open("/dev/null", O_WRONLY);
  if (in < 0 || out < 0) abort();
  size_t done = 0;
  while (done < stream.size()) {
    ssize_t w = write(in, stream.data() + done, stream.size() - done);
    if (w <= 0) abort();
    done += static_cast<size_t>(w);
  }
  lseek(in, 0, SEEK_SET);
  std::vector<char> block(4 + g_dir.size() + 1);
  uint32_t flags = 3;
  memcpy(block.data(), &flags, 4);
  memcpy(block.data() + 4, g_dir.c_str(), g_dir.size() + 1);
  st_engine_serve(in, out, block.data(), block.size());
  close(in);
  close(out);
  return 0;
}
