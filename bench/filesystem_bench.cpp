// Deleting a tree of 10,000 files: FileSystemUtils::deleteDirectory against
// std::filesystem::remove_all, on identical trees made afresh (untimed) for
// every iteration. Two shapes: one flat folder, and 100 folders of 100 files.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "ratio_reporter.h"
#include "zelkit3/filesystem.h"

namespace {

const int kFiles = 10000;

std::string makeRoot() {
  char templ[] = "/tmp/zk3-bench-fs-XXXXXX";
  if (mkdtemp(templ) == nullptr) std::abort();
  return templ;
}

void makeFiles(const std::string& folder, int count) {
  for (int i = 0; i < count; ++i) {
    const std::string file = folder + "/file-" + std::to_string(i);
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
    if (fd < 0) std::abort();
    close(fd);
  }
}

// Makes root/tree with 10,000 files in `folders` folders (1: all in tree).
std::string makeTree(const std::string& root, int folders) {
  const std::string tree = root + "/tree";
  if (mkdir(tree.c_str(), 0700) != 0) std::abort();
  if (folders == 1) {
    makeFiles(tree, kFiles);
  } else {
    for (int d = 0; d < folders; ++d) {
      const std::string folder = tree + "/dir-" + std::to_string(d);
      if (mkdir(folder.c_str(), 0700) != 0) std::abort();
      makeFiles(folder, kFiles / folders);
    }
  }
  return tree;
}

using Deleter = void (*)(const std::string& tree);

void deleteOurs(const std::string& tree) {
  int error = 0;
  if (!zelkit3::FileSystemUtils::deleteDirectory(tree.c_str(), &error)) std::abort();
}

void deleteRemoveAll(const std::string& tree) {
  if (std::filesystem::remove_all(tree) == 0) std::abort();
}

// One tree of 10,000 files in `folders` folders per iteration, made untimed.
void DeleteTree(benchmark::State& state, Deleter remove, int folders) {
  const std::string root = makeRoot();
  for (auto _ : state) {
    state.PauseTiming();
    const std::string tree = makeTree(root, folders);
    state.ResumeTiming();
    remove(tree);
  }
  rmdir(root.c_str());
  state.SetItemsProcessed(state.iterations() * kFiles);
}

void DeleteFlat(benchmark::State& state, Deleter remove) { DeleteTree(state, remove, 1); }
void DeleteNested(benchmark::State& state, Deleter remove) { DeleteTree(state, remove, 100); }

// Ours and the peer alternate, so that both meet the same state of the file
// system's caches and of the disk.
BENCHMARK_CAPTURE(DeleteFlat, ours, &deleteOurs)->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(DeleteFlat, remove_all, &deleteRemoveAll)->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(DeleteNested, ours, &deleteOurs)->Iterations(5)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(DeleteNested, remove_all, &deleteRemoveAll)->Iterations(5)->Unit(benchmark::kMillisecond);

}  // namespace

ZK3_BENCHMARK_MAIN();
