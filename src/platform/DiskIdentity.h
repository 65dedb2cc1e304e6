#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vellum {

// Under which size limit a disk was inspected. `claimedCapacity` is granted
// only for a disk whose Quick Check proved its reported capacity fake, so such
// a card (which may claim many terabytes) can still be wiped.
enum class Allowance { standard, claimedCapacity };

// "standard" or "claimedCapacity".
std::string_view rawValue(Allowance allowance);
std::optional<Allowance> allowanceFromRawValue(std::string_view raw);

// What was seen of a disk when it was inspected. Compared again before any
// write: two identities are equal only when every field is equal, which is
// what it means for a disk not to have changed.
struct DiskIdentity {
  std::string deviceIdentifier;  // whole-disk kernel name, such as "sdb"
  std::uint64_t sizeBytes = 0;
  std::int64_t blockSize = 512;
  std::string mediaName;
  std::string busProtocol;
  // The device's sysfs path without "/sys", then "#diskseq=" and the disk
  // sequence number, which changes whenever the medium changes.
  std::string ioRegistryPath;  // the sysfs device path + "#diskseq=N"
  Allowance allowance = Allowance::standard;
  std::string serial;  // empty when unknown

  bool operator==(const DiskIdentity&) const = default;

  std::string devicePath() const { return "/dev/" + deviceIdentifier; }
};

// Field names as keys; the allowance as its raw value. Decoding throws
// nlohmann::json::exception on a missing key, a wrong type or an unknown
// allowance.
void to_json(nlohmann::json& json, Allowance allowance);
void from_json(const nlohmann::json& json, Allowance& allowance);
void to_json(nlohmann::json& json, const DiskIdentity& identity);
void from_json(const nlohmann::json& json, DiskIdentity& identity);

}  // namespace vellum
