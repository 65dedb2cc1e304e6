#include "checks/FullTest.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stop_token>
#include <thread>
#include <vector>

#include "bytes/AlignedBuffer.h"
#include "bytes/Checked.h"
#include "bytes/DeviceError.h"
#include "checks/TestPattern.h"
#include "devices/WriteError.h"

namespace vellum {

namespace {

constexpr std::uint64_t kBlock = TestPattern::blockSize;

// Runs one job at a time beside the caller: pattern generation during a
// write, verification during the next read. The destructor waits for a
// running job and joins, so an exception on the caller's side never leaves
// the thread touching buffers that are gone.
class Worker {
 public:
  Worker() : thread_([this](std::stop_token stop) { loop(stop); }) {}
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  // REQUIRES: no job is running (wait() was called after the last submit).
  void submit(std::function<void()> job) {
    {
      std::lock_guard lock(mutex_);
      job_ = std::move(job);
      busy_ = true;
    }
    changed_.notify_all();
  }

  // Blocks until the submitted job is done; rethrows what it threw.
  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !busy_; });
    if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
  }

 private:
  void loop(std::stop_token stop) {
    std::unique_lock lock(mutex_);
    while (changed_.wait(lock, stop, [this] { return job_ != nullptr; })) {
      std::function<void()> job = std::exchange(job_, nullptr);
      lock.unlock();
      std::exception_ptr error;
      try {
        job();
      } catch (...) {
        error = std::current_exception();
      }
      lock.lock();
      error_ = error;
      busy_ = false;
      changed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::function<void()> job_;
  bool busy_ = false;
  std::exception_ptr error_;
  std::jthread thread_;  // last: stopped and joined before the rest goes
};

struct Tally {
  std::int64_t intact = 0;
  std::int64_t aliased = 0;
  std::int64_t corrupt = 0;
  std::optional<std::uint64_t> firstBad;  // block index

  void add(const TestPattern::Verdict& verdict, std::uint64_t index) {
    if (isIntact(verdict)) {
      ++intact;
      return;
    }
    if (isAliased(verdict)) {
      ++aliased;
    } else {
      ++corrupt;
    }
    if (!firstBad) firstBad = index;
  }
};

// Verdicts of count blocks read back into bytes (got of them valid); blocks
// the read did not return are corrupt.
Tally verifyChunk(const TestPattern& pattern, std::span<const std::uint8_t> bytes,
                  std::uint64_t first, std::uint64_t count) {
  Tally tally;
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t start = i * kBlock;
    if (start + kBlock <= bytes.size()) {
      tally.add(pattern.verify(bytes.subspan(static_cast<std::size_t>(start), kBlock), first + i),
                first + i);
    } else {
      tally.add(TestPattern::Corrupt{}, first + i);
    }
  }
  return tally;
}

// Reads each block of a chunk whose whole read failed on its own.
Tally readBlockwise(BlockDevice& device, std::uint64_t first, std::uint64_t count,
                    const TestPattern& pattern, std::span<std::uint8_t> scratch) {
  Tally tally;
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t index = first + i;
    try {
      const std::size_t got = device.readInto(index * kBlock, scratch.first(kBlock));
      tally.add(pattern.verify(scratch.first(got), index), index);
    } catch (const DeviceError&) {
      tally.add(TestPattern::Corrupt{}, index);
    }
  }
  return tally;
}

double megabytesPerSecond(double bytes, double elapsed) {
  return elapsed > 0 ? bytes / elapsed / 1e6 : 0;
}

}  // namespace

FullTest::Result FullTest::run(BlockDevice& device, const CancellationFlag& cancel,
                               const ProgressCallback& progress) const {
  const double start = secondsNow(clock);
  const std::uint64_t deviceBlock = toUnsigned(device.blockSize());
  VL_PRECONDITION(deviceBlock >= 1 && kBlock % deviceBlock == 0);
  const std::uint64_t size = device.size();
  if (size < kBlock) throw CheckError::deviceTooSmall();

  const std::uint64_t blocks = size / kBlock;
  const std::uint64_t tested = blocks * kBlock;
  const std::uint64_t perChunk =
      chunkBytes >= static_cast<std::int64_t>(kBlock) ? toUnsigned(chunkBytes) / kBlock : 1;
  const TestPattern pattern(randomNonZeroSeed());
  const auto chunkLength = [&](std::uint64_t first) {
    return std::min(perChunk, blocks - first) * kBlock;
  };

  // Two chunk buffers for the whole run; the worker is declared after them so
  // it is joined before they are freed.
  const auto bufferBytes = static_cast<std::size_t>(std::min(perChunk, blocks) * kBlock);
  AlignedBuffer buffers[2] = {AlignedBuffer(bufferBytes), AlignedBuffer(bufferBytes)};
  AlignedBuffer scratch(kBlock);
  Tally workerTally;  // written by the worker's verification job
  Worker worker;

  Result result;
  std::vector<double> writeSamples;
  writeSamples.reserve(static_cast<std::size_t>(blocks / perChunk + 1));

  // Write pass: chunk k goes to the device while the worker builds k + 1.
  int current = 0;
  pattern.fill(0, buffers[current].span().first(static_cast<std::size_t>(chunkLength(0))));
  for (std::uint64_t first = 0; first < blocks; first += perChunk) {
    cancel.throwIfCancelled();
    const std::uint64_t length = chunkLength(first);
    const std::uint64_t next = first + perChunk;
    if (next < blocks) {
      const std::span<std::uint8_t> target =
          buffers[1 - current].span().first(static_cast<std::size_t>(chunkLength(next)));
      worker.submit([&pattern, target, next] { pattern.fill(next, target); });
    }
    const double before = secondsNow(clock);
    try {
      device.write(first * kBlock, buffers[current].span().first(static_cast<std::size_t>(length)));
    } catch (const WriteError&) {
      ++result.writeErrors;
    }
    const double sample =
        megabytesPerSecond(static_cast<double>(length), secondsNow(clock) - before);
    writeSamples.push_back(sample);
    if (progress) {
      progress(CheckProgress{CheckProgress::Phase::writing, first * kBlock + length, tested,
                             sample * 1e6});
    }
    if (next < blocks) worker.wait();
    current = 1 - current;
  }

  device.synchronize();

  // Verify pass: chunk k + 1 is read while the worker verifies chunk k. A
  // chunk's tally and progress are taken in order, after its verification.
  struct Pending {
    std::uint64_t first = 0;
    std::uint64_t length = 0;
    std::optional<double> sample;
    Tally tally;
    bool onWorker = false;
  };
  std::vector<double> readSamples;
  readSamples.reserve(writeSamples.size());
  Tally total;
  std::optional<double> latestSample;
  std::optional<Pending> pending;

  const auto finish = [&](Pending& chunk) {
    if (chunk.onWorker) {
      worker.wait();
      chunk.tally = workerTally;
    }
    if (chunk.sample) latestSample = chunk.sample;
    total.intact += chunk.tally.intact;
    total.aliased += chunk.tally.aliased;
    total.corrupt += chunk.tally.corrupt;
    if (!total.firstBad) total.firstBad = chunk.tally.firstBad;
    if (progress) {
      progress(CheckProgress{CheckProgress::Phase::verifying, chunk.first * kBlock + chunk.length,
                             tested,
                             latestSample ? std::optional(*latestSample * 1e6) : std::nullopt});
    }
  };

  current = 0;
  for (std::uint64_t first = 0; first < blocks; first += perChunk) {
    cancel.throwIfCancelled();
    Pending chunk{first, chunkLength(first), std::nullopt, {}, false};
    const std::span<std::uint8_t> target =
        buffers[current].span().first(static_cast<std::size_t>(chunk.length));
    const double before = secondsNow(clock);
    std::optional<std::size_t> got;
    try {
      got = device.readInto(first * kBlock, target);
    } catch (const DeviceError&) {
    }
    const double elapsed = secondsNow(clock) - before;
    if (pending) finish(*pending);
    if (got) {
      chunk.sample = megabytesPerSecond(static_cast<double>(*got), elapsed);
      readSamples.push_back(*chunk.sample);
    } else {
      chunk.tally = readBlockwise(device, first, chunk.length / kBlock, pattern, scratch.span());
    }
    pending = std::move(chunk);
    if (got) {
      pending->onWorker = true;
      const std::span<const std::uint8_t> bytes = target.first(*got);
      const std::uint64_t count = pending->length / kBlock;
      worker.submit([&pattern, &workerTally, bytes, first, count] {
        workerTally = verifyChunk(pattern, bytes, first, count);
      });
    }
    current = 1 - current;
  }
  if (pending) finish(*pending);

  result.goodBlocks = total.intact;
  result.aliasedBlocks = total.aliased;
  result.corruptBlocks = total.corrupt;
  if (total.firstBad) result.firstBadOffset = *total.firstBad * kBlock;
  result.write = SpeedSummary(writeSamples);
  result.read = SpeedSummary(readSamples);
  result.claimedBytes = size;
  result.usableBytes = result.firstBadOffset.value_or(tested);
  result.holdsBytes = toUnsigned(result.goodBlocks) * kBlock;

  const std::int64_t bad = result.aliasedBlocks + result.corruptBlocks;
  if (bad == 0 && result.writeErrors == 0) {
    result.verdict = Result::Verdict::genuine;
  } else if (result.aliasedBlocks > 0) {
    result.verdict = Result::Verdict::counterfeit;
  } else if (bad > 0) {
    // Nearly everything from the first bad block on is bad: the real
    // capacity ends there.
    const std::uint64_t rest = blocks - *total.firstBad;
    const bool endsEarly = rest > 0 && static_cast<double>(bad) / static_cast<double>(rest) > 0.9;
    result.verdict = endsEarly ? Result::Verdict::counterfeit : Result::Verdict::failing;
  } else {
    result.verdict = Result::Verdict::failing;
  }
  if (bad == 0 && result.writeErrors == 0)
    result.speedClass = highestMet(result.write.sustainedMBps);
  result.duration = secondsNow(clock) - start;
  return result;
}

std::string_view toString(FullTest::Result::Verdict verdict) {
  switch (verdict) {
    case FullTest::Result::Verdict::genuine:
      return "genuine";
    case FullTest::Result::Verdict::counterfeit:
      return "counterfeit";
    case FullTest::Result::Verdict::failing:
      return "failing";
  }
  VL_PRECONDITION(false);
}

void to_json(nlohmann::json& json, const FullTest::Result& result) {
  json = {{"verdict", toString(result.verdict)},
          {"claimedBytes", result.claimedBytes},
          {"usableBytes", result.usableBytes},
          {"holdsBytes", result.holdsBytes},
          {"goodBlocks", result.goodBlocks},
          {"aliasedBlocks", result.aliasedBlocks},
          {"corruptBlocks", result.corruptBlocks},
          {"writeErrors", result.writeErrors},
          {"firstBadOffset", nullptr},
          {"write", result.write},
          {"read", result.read},
          {"speedClass", nullptr},
          {"duration", result.duration}};
  if (result.firstBadOffset) json["firstBadOffset"] = *result.firstBadOffset;
  if (result.speedClass) json["speedClass"] = *result.speedClass;
}

}  // namespace vellum
