// Rebuilding a large version from its origin and a full delta chain: the
// one-pass PatchFile against the store's delta-by-delta Rebuild and a plain
// `cp` of the result (the floor). Usage: bench_patch_chain [work folder]
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "file-store.h"
#include "hv-file-utility.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kSize = 256u << 20;
constexpr int kDeltas = 8;

void Write(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc).write(content.data(), content.size());
}

template <typename F>
double Seconds(F&& f) {
  const auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string root = argc > 1 ? argv[1] : "/tmp/bench-patch-chain";
  fs::remove_all(root);
  fs::create_directories(root + "/work");
  filestore::Options options;
  options.max_delta_chain = kDeltas;
  std::unique_ptr<filestore::FileStore> store;
  if (filestore::FileStore::Open(root + "/store", true, options, store) < 0) return 1;

  std::mt19937_64 rng(42);
  std::string content(kSize, '\0');
  for (size_t i = 0; i + 8 <= kSize; i += 8) {
    const uint64_t v = rng();
    memcpy(&content[i], &v, 8);
  }
  const std::string input = root + "/input";
  filestore::Stored stored;
  Write(input, content);
  if (store->StoreNewFile(input, stored) < 0) return 1;
  // Each version changes 1% of the bytes in 4 KiB runs spread over the file.
  for (int d = 0; d < kDeltas; ++d) {
    for (size_t n = 0; n < kSize / 100 / 4096; ++n) {
      const size_t at = rng() % (kSize - 4096);
      for (size_t i = 0; i < 4096; ++i) content[at + i] = static_cast<char>(rng());
    }
    Write(input, content);
    if (store->StoreNewVersion(stored.file_id, input, stored) < 0) return 1;
  }
  std::string origin;
  std::vector<std::string> patches;
  store->GetPatchFiles(stored.file_id, origin, patches);
  std::printf("content %zu MiB, %zu deltas\n", kSize >> 20, patches.size());

  std::string out;
  int rc = 0;
  const double patch =
      Seconds([&] { rc = HVFileUtility::PatchFile(origin, patches, "", root + "/work", out); });
  if (rc < 0) return 1;
  // Again, now that every piece is in the page cache, as for cp below.
  fs::remove(out);
  const double patch_warm =
      Seconds([&] { rc = HVFileUtility::PatchFile(origin, patches, "", root + "/work", out); });
  if (rc < 0) return 1;
  const double rebuild =
      Seconds([&] { rc = store->Rebuild(stored.file_id, root + "/work/rebuilt"); });
  if (rc < 0) return 1;
  const std::string cp = "cp " + out + " " + root + "/work/copy";
  const double copy = Seconds([&] { rc = std::system(cp.c_str()); });
  if (rc != 0) return 1;
  std::printf("PatchFile (one pass)   %.3f s\n", patch);
  std::printf("PatchFile, warm cache  %.3f s\n", patch_warm);
  std::printf("Rebuild (delta chain)  %.3f s\n", rebuild);
  std::printf("cp of the result       %.3f s\n", copy);
  fs::remove_all(root);
  return 0;
}
