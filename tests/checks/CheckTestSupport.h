#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "bytes/DeviceError.h"
#include "checks/CheckTypes.h"
#include "devices/SimulatedDevice.h"
#include "devices/WriteError.h"
#include "support/ErrorText.h"
#include "support/FaultyDevice.h"

namespace vellum::testing {

using Overflow = SimulatedDevice::Overflow;
constexpr std::uint64_t kKiB = 1024, kMiB = 1024 * kKiB;
inline const std::string kStopped = "The test was stopped.";

// Reproducible noise, so a restored card can be told from a zeroed one.
inline Bytes noise(std::size_t count, std::uint32_t seed) {
  Bytes bytes(count);
  std::uint64_t state = seed;
  for (std::size_t i = 0; i < count; i += 8) {
    state = state * 6364136223846793005u + 1442695040888963407u;
    const std::uint64_t word = state ^ (state >> 29);
    std::memcpy(bytes.data() + i, &word, std::min<std::size_t>(8, count - i));
  }
  return bytes;
}

// Fills everything the card really stores with noise; returns the storage.
inline Bytes fillWithNoise(SimulatedDevice& device, std::uint32_t seed = 1) {
  const auto block = static_cast<std::uint64_t>(device.blockSize());
  device.write(0, noise(static_cast<std::size_t>(device.realCapacity() / block * block), seed));
  return device.storage();
}

// count bytes from offset.
inline Bytes part(const Bytes& bytes, std::uint64_t offset, std::uint64_t count) {
  const auto start = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
  return Bytes(start, start + static_cast<std::ptrdiff_t>(count));
}

// Arms a hook that runs act() when the counter reaches k (the read, write or
// synchronize about to happen), with the offset of that transfer.
inline void atStep(FaultyDevice& device, int FaultyDevice::*counter, int k,
                   std::function<void(std::uint64_t offset)> act) {
  auto hook = [&device, counter, k, act](std::uint64_t offset, std::size_t) {
    if (device.*counter == k) act(offset);
  };
  if (counter == &FaultyDevice::synchronizations)
    device.beforeSynchronize = [hook] { hook(0, 0); };
  else
    (counter == &FaultyDevice::writes ? device.beforeWrite : device.beforeRead) = hook;
}

// The k-th read, write or synchronize fails with EIO at its own offset.
inline void failAt(FaultyDevice& device, int FaultyDevice::*counter, int k) {
  atStep(device, counter, k, [counter](std::uint64_t offset) {
    if (counter == &FaultyDevice::reads) throw DeviceError::readFailed(offset, EIO);
    throw WriteError::writeFailed(offset, EIO);
  });
}

// What a test does to a run at step k of a counter: stop it (k = 0: before it
// starts), fail the transfer, or throw something unexpected.
enum class Act { cancel, fail, unplug };
struct Step {
  Act act;
  int FaultyDevice::*counter;
  int k;
  void arm(FaultyDevice& device, CancellationFlag& flag) const {
    if (act == Act::fail) return failAt(device, counter, k);
    if (act == Act::cancel && k == 0) return flag.cancel();
    atStep(device, counter, k, [&flag, act = act](std::uint64_t) {
      if (act == Act::unplug) throw std::runtime_error("unplugged");
      flag.cancel();
    });
  }
};
constexpr auto kReads = &FaultyDevice::reads, kWrites = &FaultyDevice::writes,
               kSyncs = &FaultyDevice::synchronizations;

}  // namespace vellum::testing
