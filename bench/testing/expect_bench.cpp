// App::expect waiting for the last line of an application that prints
// MEGABYTES of 20-byte lines first, as fast as a pipe takes them: the wait
// looks at each byte a bounded number of times, so the time grows with the
// output, not with its square. Run: bench_testing_expect (no driver needed).
#include <hmisvc/testing.h>

#include <benchmark/benchmark.h>

#include <string>

namespace {

void ExpectAfterOutput(benchmark::State &state)
{
    const std::string bytes = std::to_string(state.range(0) * 1000 * 1000);
    for (auto _ : state) {
        hmisvc::testing::App app({"sh", "-c", "yes 0123456789abcdefghi | head -c " + bytes + "; echo; echo done"});
        if (!app.expect("done", 3600))
            state.SkipWithError("no 'done'");
        app.stop();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * 1000 * 1000);
}
BENCHMARK(ExpectAfterOutput)->Arg(1)->Arg(10)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
