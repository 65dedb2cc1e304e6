#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "bytes/ByteSource.h"
#include "checks/CheckTypes.h"
#include "devices/SimulatedDevice.h"

namespace vellum::testing {

// Reproducible noise, so a restored card can be told from a zeroed one.
inline Bytes noise(std::size_t count, std::uint32_t seed) {
  std::mt19937_64 generator(seed);
  Bytes bytes(count);
  for (std::size_t i = 0; i < count; i += 8) {
    const std::uint64_t word = generator();
    std::memcpy(bytes.data() + i, &word, std::min<std::size_t>(8, count - i));
  }
  return bytes;
}

// Fills everything the card really stores with noise; returns the storage.
inline Bytes fillWithNoise(SimulatedDevice& device, std::uint32_t seed = 1) {
  const auto block = static_cast<std::uint64_t>(device.blockSize());
  const std::uint64_t length = device.realCapacity() / block * block;
  device.write(0, noise(static_cast<std::size_t>(length), seed));
  return device.storage();
}

// A clock that only moves when a test moves it.
struct FakeClock {
  double now = 1000;
  SecondsClock clock() {
    return [this] { return now; };
  }
};

// The text of what run() throws, or "no error".
inline std::string errorText(const std::function<void()>& run) {
  try {
    run();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "no error";
}

// Records every progress report.
struct ProgressLog {
  std::vector<CheckProgress> reports;
  ProgressCallback callback() {
    return [this](const CheckProgress& progress) { reports.push_back(progress); };
  }
};

}  // namespace vellum::testing
