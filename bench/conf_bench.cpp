// Configuration parsing, lines per second: a 10,000-line file of "key=value" lines (with a
// comment every tenth line) loaded by the properties store and opened by the simple
// reader, against reading the same file's lines with std::getline as the limit.
#include <stdlib.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <fstream>
#include <string>

#include "lrpc2/conf.h"
#include "zfw/properties.h"

namespace {

constexpr int kLines = 10000;
std::string gPath;

bool writeFile() {
    char path[] = "/tmp/kvbench-conf.XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) {
        return false;
    }
    close(fd);
    gPath = path;
    std::ofstream out(gPath);
    for (int i = 0; i < kLines; ++i) {
        if (i % 10 == 0) {
            out << "# section " << i / 10 << ": collector settings\n";
        } else {
            out << "kvd.collector" << i << ".option=value " << i << " of the audit collector\n";
        }
    }
    return static_cast<bool>(out.flush());
}

void BM_GetlineOnly(benchmark::State& state) {
    size_t bytes = 0;
    for (auto _ : state) {
        std::ifstream in(gPath);
        std::string line;
        while (std::getline(in, line)) {
            bytes += line.size();
        }
    }
    benchmark::DoNotOptimize(bytes);
    state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(BM_GetlineOnly);

void BM_PropertiesParse(benchmark::State& state) {
    const std::string last = "kvd.collector" + std::to_string(kLines - 1) + ".option";
    for (auto _ : state) {
        zfw::Properties props(true, false);
        props.load(gPath, true);
        if (props.get(last).empty()) {
            state.SkipWithError("the last key was not loaded");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(BM_PropertiesParse);

void BM_SimpleReader(benchmark::State& state) {
    const std::string last = "kvd.collector" + std::to_string(kLines - 1) + ".option";
    for (auto _ : state) {
        int32_t status = 0;
        conf_file* file = conf_open(gPath.c_str(), nullptr, &status);
        const char* value = conf_get_string(file, last.c_str(), nullptr, &status);
        if (value == nullptr) {
            state.SkipWithError("the last key was not read");
            conf_free(file);
            break;
        }
        conf_free(file);
    }
    state.SetItemsProcessed(state.iterations() * kLines);
}
BENCHMARK(BM_SimpleReader);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (!writeFile()) {
        perror("conf_bench: temporary file");
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    unlink(gPath.c_str());
    return 0;
}
