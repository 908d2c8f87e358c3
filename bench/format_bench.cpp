// The framework's snprintf (which replaces the C library's in every executable of the
// project) against the C library's own, reached with dlsym(RTLD_NEXT), on the same formats
// and arguments into a 512-byte buffer: integers, strings, a mix, and floats apart.
#include <dlfcn.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {

using SnprintfFn = int (*)(char*, size_t, const char*, ...);

enum Impl { kZfw, kLibc };

SnprintfFn gLibc = nullptr;

SnprintfFn pick(Impl impl) {
    return impl == kZfw ? &snprintf : gLibc;
}

template <typename... Args>
void runFormat(benchmark::State& state, Impl impl, const char* format, Args... args) {
    const SnprintfFn fn = pick(impl);
    if (fn == nullptr) {
        state.SkipWithError("the C library's snprintf was not found");
        return;
    }
    char buf[512];
    int n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(format);
        n = fn(buf, sizeof buf, format, args...);
        benchmark::DoNotOptimize(buf);
    }
    state.counters["chars"] = n;
}

void BM_FormatInt(benchmark::State& state, Impl impl) {
    runFormat(state, impl, "%d %u %ld %lu %x %5d %-8d|", -123456, 4000000000u, -9876543210L,
              18446744073709551615UL, 0xdeadbeefu, 42, -7);
}
BENCHMARK_CAPTURE(BM_FormatInt, zfw, kZfw);
BENCHMARK_CAPTURE(BM_FormatInt, libc, kLibc);

void BM_FormatString(benchmark::State& state, Impl impl) {
    runFormat(state, impl, "%s %s: %-12s|%.5s|%20s", "zkv.cli.kvstop", "Unable to stop daemon",
              "audit", "truncated text", "right");
}
BENCHMARK_CAPTURE(BM_FormatString, zfw, kZfw);
BENCHMARK_CAPTURE(BM_FormatString, libc, kLibc);

void BM_FormatMixed(benchmark::State& state, Impl impl) {
    runFormat(state, impl, "%s %s (reference %s:%d rc: %d) %c %08x %lld", "IOException",
              "Unable to send lrpc2 message: 408 (Timeout during operation)", "lrpc2client.cpp",
              217, 408, 'x', 0xbeefu, 123456789012LL);
}
BENCHMARK_CAPTURE(BM_FormatMixed, zfw, kZfw);
BENCHMARK_CAPTURE(BM_FormatMixed, libc, kLibc);

void BM_FormatFloat(benchmark::State& state, Impl impl) {
    // Fixed-point only: the framework prints every floating conversion that way.
    runFormat(state, impl, "%f %.3f %.1f %f %.10f", 3.14159265358979, -2.5e-3, 602214.076,
              1.0 / 3.0, 123456.789);
}
BENCHMARK_CAPTURE(BM_FormatFloat, zfw, kZfw);
BENCHMARK_CAPTURE(BM_FormatFloat, libc, kLibc);

// One floating-point case printed by both formatters, as a table row.
void compareRow(const char* format, const char* shown, double value) {
    char ours[512];
    char theirs[512];
    snprintf(ours, sizeof ours, format, value);
    gLibc(theirs, sizeof theirs, format, value);
    printf("| `%s` | %s | `%s` | `%s` | %s |\n", format, shown, ours, theirs,
           strcmp(ours, theirs) == 0 ? "same" : "differs");
}

// The outputs of both for floating-point conversions, where the framework's formatter prints
// fixed point for every conversion, rounds half up in double precision and makes its digits by
// division in double precision.
void compareFloats() {
    printf("| Format | Value | Ours | C library | |\n|---|---|---|---|---|\n");
    compareRow("%f", "3.14159265358979", 3.14159265358979);
    compareRow("%.3f", "-2.5e-3", -2.5e-3);
    compareRow("%.10f", "123456.789", 123456.789);
    compareRow("%.1f", "0.25", 0.25);
    compareRow("%.0f", "2.5", 2.5);
    compareRow("%.2f", "1.005", 1.005);
    compareRow("%.17f", "0.1", 0.1);
    compareRow("%.20f", "0.1", 0.1);
    compareRow("%f", "1e22", 1e22);
    compareRow("%e", "1234.5", 1234.5);
    compareRow("%g", "0.0001", 0.0001);
}

}  // namespace

int main(int argc, char** argv) {
    gLibc = reinterpret_cast<SnprintfFn>(dlsym(RTLD_NEXT, "snprintf"));
    if (gLibc == &snprintf) {
        gLibc = nullptr;
    }
    if (argc == 2 && strcmp(argv[1], "--compare-floats") == 0 && gLibc != nullptr) {
        compareFloats();
        return 0;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
