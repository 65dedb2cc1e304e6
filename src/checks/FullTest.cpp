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

// The two passes over the card, sharing two chunk buffers for the whole run
// so memory does not grow with the card. All device access, progress and
// cancellation checks happen on the caller's thread; the worker only fills
// and verifies buffers.
class Passes {
 public:
  Passes(BlockDevice& device, std::uint64_t blocks, std::uint64_t perChunk,
         const SecondsClock& clock, const CancellationFlag& cancel,
         const ProgressCallback& progress)
      : device_(device),
        blocks_(blocks),
        perChunk_(perChunk),
        clock_(clock),
        cancel_(cancel),
        progress_(progress),
        buffers_{AlignedBuffer(bufferBytes()), AlignedBuffer(bufferBytes())},
        scratch_(kBlock) {}

  // Chunk k goes to the device while the worker builds chunk k + 1. A failed
  // write is counted and the pass goes on.
  std::int64_t write(std::vector<double>& samples) {
    std::int64_t writeErrors = 0;
    int current = 0;
    pattern_.fill(0, chunk(current, 0));
    for (std::uint64_t first = 0; first < blocks_; first += perChunk_) {
      cancel_.throwIfCancelled();
      const std::uint64_t next = first + perChunk_;
      if (next < blocks_) {
        worker_.submit(
            [this, target = chunk(1 - current, next), next] { pattern_.fill(next, target); });
      }
      const std::span<std::uint8_t> data = chunk(current, first);
      const double before = secondsNow(clock_);
      try {
        device_.write(first * kBlock, data);
      } catch (const WriteError&) {
        ++writeErrors;
      }
      const double sample =
          megabytesPerSecond(static_cast<double>(data.size()), secondsNow(clock_) - before);
      samples.push_back(sample);
      report(CheckProgress::Phase::writing, first * kBlock + data.size(), sample);
      if (next < blocks_) worker_.wait();
      current = 1 - current;
    }
    return writeErrors;
  }

  // Chunk k + 1 is read while the worker verifies chunk k; tallies and
  // progress are still taken chunk by chunk in order.
  Tally verify(std::vector<double>& samples) {
    Tally total;
    std::optional<double> latest;
    std::optional<Verified> previous;
    const auto settle = [&](Verified& done) {
      if (done.onWorker) {
        worker_.wait();
        done.tally = workerTally_;
      }
      if (done.sample) latest = done.sample;
      total.intact += done.tally.intact;
      total.aliased += done.tally.aliased;
      total.corrupt += done.tally.corrupt;
      if (!total.firstBad) total.firstBad = done.tally.firstBad;
      report(CheckProgress::Phase::verifying, done.end, latest);
    };

    int current = 0;
    for (std::uint64_t first = 0; first < blocks_; first += perChunk_) {
      cancel_.throwIfCancelled();
      const std::span<std::uint8_t> target = chunk(current, first);
      const std::uint64_t count = target.size() / kBlock;
      const double before = secondsNow(clock_);
      std::optional<std::size_t> got;
      try {
        got = device_.readInto(first * kBlock, target);
      } catch (const DeviceError&) {
      }
      const double elapsed = secondsNow(clock_) - before;
      if (previous) settle(*previous);

      Verified now;
      now.end = first * kBlock + target.size();
      if (got) {
        now.sample = megabytesPerSecond(static_cast<double>(*got), elapsed);
        samples.push_back(*now.sample);
        now.onWorker = true;
        worker_.submit([this, bytes = target.first(*got), first, count] {
          workerTally_ = verifyChunk(pattern_, bytes, first, count);
        });
      } else {
        now.tally = readBlockwise(device_, first, count, pattern_, scratch_.span());
      }
      previous = now;
      current = 1 - current;
    }
    if (previous) settle(*previous);
    return total;
  }

 private:
  // A chunk read back, waiting for its tally.
  struct Verified {
    std::uint64_t end = 0;  // byte offset just past the chunk
    std::optional<double> sample;
    Tally tally;
    bool onWorker = false;
  };

  std::size_t bufferBytes() const {
    return static_cast<std::size_t>(std::min(perChunk_, blocks_) * kBlock);
  }

  // Buffer `which`, cut to the length of the chunk starting at block first.
  std::span<std::uint8_t> chunk(int which, std::uint64_t first) {
    const std::uint64_t length = std::min(perChunk_, blocks_ - first) * kBlock;
    return buffers_[which].span().first(static_cast<std::size_t>(length));
  }

  void report(CheckProgress::Phase phase, std::uint64_t completed, std::optional<double> mbps) {
    if (!progress_) return;
    progress_(CheckProgress{phase, completed, blocks_ * kBlock,
                            mbps ? std::optional(*mbps * 1e6) : std::nullopt});
  }

  BlockDevice& device_;
  std::uint64_t blocks_;
  std::uint64_t perChunk_;
  const SecondsClock& clock_;
  const CancellationFlag& cancel_;
  const ProgressCallback& progress_;
  const TestPattern pattern_{randomNonZeroSeed()};
  AlignedBuffer buffers_[2];
  AlignedBuffer scratch_;
  Tally workerTally_;  // written by the worker's verification job
  Worker worker_;      // last: joined before the buffers it uses are freed
};

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
  Passes passes(device, blocks, perChunk, clock, cancel, progress);

  Result result;
  std::vector<double> writeSamples;
  std::vector<double> readSamples;
  writeSamples.reserve(static_cast<std::size_t>(blocks / perChunk + 1));
  readSamples.reserve(writeSamples.capacity());
  result.writeErrors = passes.write(writeSamples);
  device.synchronize();
  const Tally total = passes.verify(readSamples);

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
  const bool clean = bad == 0 && result.writeErrors == 0;
  if (clean) {
    result.verdict = Result::Verdict::genuine;
    result.speedClass = highestMet(result.write.sustainedMBps);
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
          {"write", result.write},
          {"read", result.read},
          {"duration", result.duration}};
  // Absent values are left out, not written as null.
  if (result.firstBadOffset) json["firstBadOffset"] = *result.firstBadOffset;
  if (result.speedClass) json["speedClass"] = *result.speedClass;
}

}  // namespace vellum
