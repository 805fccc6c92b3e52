// Property tree benchmarks against nlohmann::json and msgpack-cxx on the same data.
#include <benchmark/benchmark.h>

BENCHMARK_MAIN();
