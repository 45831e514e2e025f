// Reproducible contents for the restore benchmark, faster than dd and
// /dev/urandom and the same from run to run:
//   bench_restore_data random FILE MIB SEED   a file of MIB MiB of random bytes
//   bench_restore_data mutate FILE SEED       rewrites ~1% of FILE in 4 KiB runs
//                                             at scattered places
//   bench_restore_data tree DIR FILES SEED    FILES files of 4 to 64 KiB in
//                                             DIR/dNN/sN/fNNNN (100 per folder)
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// xoshiro256**: fast and good enough for incompressible, undeltable bytes.
class Rng {
 public:
  explicit Rng(uint64_t seed) {
    for (auto& word : s_) {
      seed += 0x9e3779b97f4a7c15ull;
      uint64_t z = seed;
      z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
      z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
      word = z ^ (z >> 31);
    }
  }
  uint64_t Next() {
    const uint64_t result = Rotl(s_[1] * 5, 7) * 9;
    const uint64_t t = s_[1] << 17;
    s_[2] ^= s_[0];
    s_[3] ^= s_[1];
    s_[1] ^= s_[2];
    s_[0] ^= s_[3];
    s_[2] ^= t;
    s_[3] = Rotl(s_[3], 45);
    return result;
  }
  void Fill(char* data, size_t size) {
    size_t i = 0;
    for (; i + 8 <= size; i += 8) {
      const uint64_t v = Next();
      memcpy(data + i, &v, 8);
    }
    if (i < size) {
      const uint64_t v = Next();
      memcpy(data + i, &v, size - i);
    }
  }

 private:
  static uint64_t Rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
  uint64_t s_[4];
};

int Fail(const std::string& what) {
  fprintf(stderr, "bench_restore_data: %s: %s\n", what.c_str(), strerror(errno));
  return 1;
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

int Random(const std::string& path, uint64_t mib, uint64_t seed) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return Fail(path);
  Rng rng(seed);
  std::vector<char> block(1 << 20);
  for (uint64_t i = 0; i < mib; ++i) {
    rng.Fill(block.data(), block.size());
    if (!WriteAll(fd, block.data(), block.size())) return Fail(path);
  }
  return close(fd) == 0 ? 0 : Fail(path);
}

int Mutate(const std::string& path, uint64_t seed) {
  constexpr size_t kRun = 4096;
  const int fd = open(path.c_str(), O_WRONLY);
  if (fd < 0) return Fail(path);
  struct stat st {};
  if (fstat(fd, &st) != 0) return Fail(path);
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  if (size < 100 * kRun) {
    fprintf(stderr, "bench_restore_data: %s is too small to mutate\n", path.c_str());
    return 1;
  }
  Rng rng(seed);
  char run[kRun];
  for (uint64_t n = 0; n < size / 100 / kRun; ++n) {
    const uint64_t at = rng.Next() % (size - kRun);
    rng.Fill(run, kRun);
    if (pwrite(fd, run, kRun, static_cast<off_t>(at)) != static_cast<ssize_t>(kRun)) {
      return Fail(path);
    }
  }
  return close(fd) == 0 ? 0 : Fail(path);
}

int Tree(const std::string& dir, uint64_t files, uint64_t seed) {
  Rng rng(seed);
  std::vector<char> content(64 << 10);
  for (uint64_t i = 0; i < files; ++i) {
    // 100 files per folder, 10 folders per top folder.
    const std::string top = dir + "/d" + std::to_string(i / 1000);
    const std::string sub = top + "/s" + std::to_string(i / 100 % 10);
    if (i % 1000 == 0 && mkdir(top.c_str(), 0755) != 0 && errno != EEXIST) return Fail(top);
    if (i % 100 == 0 && mkdir(sub.c_str(), 0755) != 0 && errno != EEXIST) return Fail(sub);
    const size_t size = (4 << 10) + rng.Next() % ((60 << 10) + 1);
    rng.Fill(content.data(), size);
    const std::string path = sub + "/f" + std::to_string(i) + ".bin";
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || !WriteAll(fd, content.data(), size) || close(fd) != 0) return Fail(path);
  }
  return 0;
}

uint64_t Number(const char* text) { return strtoull(text, nullptr, 10); }

}  // namespace

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  if (verb == "random" && argc == 5) return Random(argv[2], Number(argv[3]), Number(argv[4]));
  if (verb == "mutate" && argc == 4) return Mutate(argv[2], Number(argv[3]));
  if (verb == "tree" && argc == 5) {
    if (mkdir(argv[2], 0755) != 0 && errno != EEXIST) return Fail(argv[2]);
    return Tree(argv[2], Number(argv[3]), Number(argv[4]));
  }
  fprintf(stderr,
          "usage: bench_restore_data random FILE MIB SEED | mutate FILE SEED |"
          " tree DIR FILES SEED\n");
  return 2;
}
