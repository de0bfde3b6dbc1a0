// SPDX-License-Identifier: Apache-2.0
// File copy, tree walk and tree removal against std::filesystem doing the same work.
// Everything lives in a scratch directory under /tmp that is removed at exit.

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/ratio_reporter.h"
#include "nuvra/utils/directory.h"
#include "nuvra/utils/filesystem.h"

namespace {

namespace stdfs = std::filesystem;

constexpr int64_t kCopyBytes = int64_t{64} << 20;
constexpr int kTreeDirectories = 100;
constexpr int kFilesPerDirectory = 199;  // with the directories: 20 000 entries

class Scratch {
  public:
    Scratch() {
        char name[] = "/tmp/nuvra_files_bench_XXXXXX";
        if (mkdtemp(name) == nullptr) {
            std::abort();
        }
        dir_ = name;
    }
    ~Scratch() {
        std::error_code ignored;
        stdfs::remove_all(dir_, ignored);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    const std::string& dir() const { return dir_; }

    // A 64 MiB file of non-zero bytes, made once.
    const std::string& bigFile() {
        if (bigFile_.empty()) {
            bigFile_ = dir_ + "/big.bin";
            const int fd = open(bigFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
            const std::vector<char> block(size_t{1} << 20, 'x');
            for (int64_t written = 0; written < kCopyBytes;
                 written += static_cast<int64_t>(block.size())) {
                if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) {
                    std::abort();
                }
            }
            close(fd);
        }
        return bigFile_;
    }

    // A tree of kTreeDirectories directories of kFilesPerDirectory empty files each.
    static void buildTree(const std::string& root) {
        stdfs::create_directories(root);
        for (int d = 0; d < kTreeDirectories; ++d) {
            const std::string sub = root + "/d" + std::to_string(d);
            stdfs::create_directory(sub);
            for (int f = 0; f < kFilesPerDirectory; ++f) {
                const std::string file = sub + "/f" + std::to_string(f);
                close(open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
            }
        }
    }

    const std::string& walkTree() {
        if (walkTree_.empty()) {
            walkTree_ = dir_ + "/walk";
            buildTree(walkTree_);
        }
        return walkTree_;
    }

  private:
    std::string dir_;
    std::string bigFile_;
    std::string walkTree_;
};

Scratch& scratch() {
    static Scratch instance;
    return instance;
}

void copyFileNuvra(benchmark::State& state) {
    const std::string source = scratch().bigFile();
    const std::string destination = scratch().dir() + "/copy.nuvra";
    for (auto _ : state) {
        if (nuvra::utils::copyFile(source.c_str(), destination.c_str(), false, false) != 0) {
            state.SkipWithError("copyFile failed");
        }
    }
    state.SetBytesProcessed(state.iterations() * kCopyBytes);
}
BENCHMARK(copyFileNuvra)->Name("copyFile/nuvra");

void copyFileBaseline(benchmark::State& state) {
    const std::string source = scratch().bigFile();
    const std::string destination = scratch().dir() + "/copy.baseline";
    for (auto _ : state) {
        stdfs::copy_file(source, destination, stdfs::copy_options::overwrite_existing);
    }
    state.SetBytesProcessed(state.iterations() * kCopyBytes);
}
BENCHMARK(copyFileBaseline)->Name("copyFile/baseline");

void iterateNuvra(benchmark::State& state) {
    const std::string root = scratch().walkTree();
    for (auto _ : state) {
        int64_t count = 0;
        for (nuvra::utils::DirectoryIterator it(true, true, root); !it.atEnd(); it.next()) {
            ++count;
        }
        benchmark::DoNotOptimize(count);
    }
}
BENCHMARK(iterateNuvra)->Name("iterate/nuvra");

void iterateBaseline(benchmark::State& state) {
    const std::string root = scratch().walkTree();
    for (auto _ : state) {
        int64_t count = 0;
        for (auto it = stdfs::recursive_directory_iterator(root);
             it != stdfs::recursive_directory_iterator(); ++it) {
            ++count;
        }
        benchmark::DoNotOptimize(count);
    }
}
BENCHMARK(iterateBaseline)->Name("iterate/baseline");

void removeTreeNuvra(benchmark::State& state) {
    const std::string root = scratch().dir() + "/remove.nuvra";
    for (auto _ : state) {
        state.PauseTiming();
        Scratch::buildTree(root);
        state.ResumeTiming();
        if (nuvra::utils::removeTree(root.c_str()) != 0) {
            state.SkipWithError("removeTree failed");
        }
    }
}
BENCHMARK(removeTreeNuvra)->Name("removeTree/nuvra");

void removeTreeBaseline(benchmark::State& state) {
    const std::string root = scratch().dir() + "/remove.baseline";
    for (auto _ : state) {
        state.PauseTiming();
        Scratch::buildTree(root);
        state.ResumeTiming();
        stdfs::remove_all(root);
    }
}
BENCHMARK(removeTreeBaseline)->Name("removeTree/baseline");

}  // namespace

int main(int argc, char** argv) { return nuvra::bench::runWithRatios(argc, argv); }
