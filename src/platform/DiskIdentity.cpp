#include "platform/DiskIdentity.h"

#include <nlohmann/json.hpp>

namespace vellum {

std::string_view rawValue(Allowance allowance) {
  return allowance == Allowance::standard ? "standard" : "claimedCapacity";
}

std::optional<Allowance> allowanceFromRawValue(std::string_view raw) {
  if (raw == "standard") return Allowance::standard;
  if (raw == "claimedCapacity") return Allowance::claimedCapacity;
  return std::nullopt;
}

void to_json(nlohmann::json& json, Allowance allowance) {
  json = rawValue(allowance);
}

void from_json(const nlohmann::json& json, Allowance& allowance) {
  const std::optional<Allowance> parsed = allowanceFromRawValue(json.get<std::string>());
  if (!parsed) {
    throw nlohmann::json::other_error::create(501, "unknown allowance " + json.dump(), &json);
  }
  allowance = *parsed;
}

void to_json(nlohmann::json& json, const DiskIdentity& identity) {
  json = {{"deviceIdentifier", identity.deviceIdentifier},
          {"sizeBytes", identity.sizeBytes},
          {"blockSize", identity.blockSize},
          {"mediaName", identity.mediaName},
          {"busProtocol", identity.busProtocol},
          {"ioRegistryPath", identity.ioRegistryPath},
          {"allowance", identity.allowance},
          {"serial", identity.serial}};
}

void from_json(const nlohmann::json& json, DiskIdentity& identity) {
  json.at("deviceIdentifier").get_to(identity.deviceIdentifier);
  // Integers only: converting an out-of-range floating-point number is
  // undefined behaviour.
  const nlohmann::json& size = json.at("sizeBytes");
  const nlohmann::json& block = json.at("blockSize");
  if (!size.is_number_unsigned() || !block.is_number_integer()) {
    throw nlohmann::json::type_error::create(302, "sizeBytes and blockSize must be integers",
                                             &json);
  }
  size.get_to(identity.sizeBytes);
  block.get_to(identity.blockSize);
  json.at("mediaName").get_to(identity.mediaName);
  json.at("busProtocol").get_to(identity.busProtocol);
  json.at("ioRegistryPath").get_to(identity.ioRegistryPath);
  json.at("allowance").get_to(identity.allowance);
  identity.serial = json.value("serial", "");
}

}  // namespace vellum
