// Speed of the card tests' inner loops and of whole runs on the demo cards.
// Run the release build: vellum-bench --benchmark_repetitions=5
#include <benchmark/benchmark.h>

#include "bytes/AlignedBuffer.h"
#include "checks/FullTest.h"
#include "checks/QuickCheck.h"
#include "checks/TestPattern.h"
#include "checks/Wipe.h"
#include "summary/Card.h"

namespace vellum {
namespace {

constexpr std::size_t kChunk = 8u << 20;

void patternBlocks(benchmark::State& state) {
  const TestPattern pattern(0x1234'5678'9ABC'DEF1);
  AlignedBuffer buffer(kChunk);
  std::uint64_t first = 0;
  for (auto _ : state) {
    pattern.fill(first, buffer.span());
    benchmark::DoNotOptimize(buffer.data());
    first += kChunk / TestPattern::blockSize;
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kChunk));
}
BENCHMARK(patternBlocks);

void patternVerify(benchmark::State& state) {
  const TestPattern pattern(0x1234'5678'9ABC'DEF1);
  AlignedBuffer buffer(kChunk);
  pattern.fill(0, buffer.span());
  constexpr std::uint64_t blocks = kChunk / TestPattern::blockSize;
  for (auto _ : state) {
    std::uint64_t intact = 0;
    for (std::uint64_t index = 0; index < blocks; ++index)
      intact += isIntact(pattern.verify(
          buffer.span().subspan(index * TestPattern::blockSize, TestPattern::blockSize), index));
    benchmark::DoNotOptimize(intact);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kChunk));
}
BENCHMARK(patternVerify);

void fullTestGenuineDemo(benchmark::State& state) {
  const auto device = makeDevice(SimulatedCard::genuine);
  for (auto _ : state) {
    CancellationFlag cancel;
    benchmark::DoNotOptimize(FullTest{}.run(*device, cancel));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(device->size()));
}
BENCHMARK(fullTestGenuineDemo)->Unit(benchmark::kMillisecond)->UseRealTime();

void quickCheckFakeDemo(benchmark::State& state) {
  const auto device = makeDevice(SimulatedCard::fake);
  for (auto _ : state) {
    CancellationFlag cancel;
    benchmark::DoNotOptimize(QuickCheck{}.run(*device, cancel));
  }
}
BENCHMARK(quickCheckFakeDemo)->Unit(benchmark::kMillisecond)->UseRealTime();

// The whole wipe of the 256 MiB demo card: write, verify and the carving pass
// over the wiped card (including its scratch folder).
void wipeGenuineDemo(benchmark::State& state) {
  const auto device = makeDevice(SimulatedCard::genuine);
  Wipe wipe;
  wipe.method = state.range(0) == 0 ? Wipe::Method::zeros : Wipe::Method::random;
  for (auto _ : state) {
    CancellationFlag cancel;
    benchmark::DoNotOptimize(wipe.run(*device, cancel));
  }
  state.SetLabel(std::string(rawValue(wipe.method)));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(device->size()));
}
BENCHMARK(wipeGenuineDemo)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace vellum

BENCHMARK_MAIN();
