// Cost of the logger: a LogPEXMessage call and a trace guard (the entry and
// exit lines every library function writes) with logging and tracing off,
// and the lines a second the logger writes with both on.  See
// bench/README.md.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "orv_internal.hpp"
#include "pex_logger.h"
#include "pex_logger_internal.hpp"

namespace {

std::string g_off_dir, g_on_dir;

// A function as the library writes them: a trace guard and nothing else.
__attribute__((noinline)) int traced(int x) {
    ORV_TRACE();
    return x + 1;
}

void use_dir(const std::string& dir) {
    if (chdir(dir.c_str()) != 0) std::abort();
    orv::logger_reset_for_tests();
}

void BM_LogPEXMessageOff(benchmark::State& state) {
    use_dir(g_off_dir);
    for (auto _ : state)
        LogPEXMessage(__FILE__, __LINE__, "BM_LogPEXMessageOff", "DEBUG", 4, "Label", "value",
                      nullptr);
}

void BM_TraceGuardOff(benchmark::State& state) {
    use_dir(g_off_dir);
    int x = 0;
    for (auto _ : state) benchmark::DoNotOptimize(x = traced(x));
}

void BM_LogPEXMessageOn(benchmark::State& state) {
    use_dir(g_on_dir);
    for (auto _ : state)
        LogPEXMessage(__FILE__, __LINE__, "BM_LogPEXMessageOn", "DEBUG", 4, "Label", "value",
                      nullptr);
    state.counters["lines/s"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_TraceGuardOn(benchmark::State& state) {
    use_dir(g_on_dir);
    int x = 0;
    for (auto _ : state) benchmark::DoNotOptimize(x = traced(x));
    state.counters["lines/s"] = benchmark::Counter(static_cast<double>(2 * state.iterations()),
                                                   benchmark::Counter::kIsRate);
}

BENCHMARK(BM_LogPEXMessageOff);
BENCHMARK(BM_TraceGuardOff);
BENCHMARK(BM_LogPEXMessageOn)->UseRealTime();
BENCHMARK(BM_TraceGuardOn)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    char off[] = "/tmp/orv-logger-bench-off-XXXXXX";
    char on[] = "/tmp/orv-logger-bench-on-XXXXXX";
    if (!mkdtemp(off) || !mkdtemp(on)) return 1;
    g_off_dir = off;
    g_on_dir = on;
    // Logging and tracing on; files of 30 MB rotate over five numbers.
    FILE* f = std::fopen((g_on_dir + "/PEX_Log_Config.txt").c_str(), "w");
    if (!f) return 1;
    std::fputs("Product=Bench\nVersion=1\nSize=30\nMaxFiles=5\nLogLevel=4\nTraceLevel=6\n"
               "EnableLogging=1\nEnableTracing=1\n", f);
    std::fclose(f);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    orv::logger_reset_for_tests();
    const std::string cleanup = "rm -rf '" + g_off_dir + "' '" + g_on_dir + "'";
    return std::system(cleanup.c_str()) == 0 ? 0 : 1;
}
