#include "platform/device.hpp"

#include <fstream>
#include <mutex>

#include "platform/paths.hpp"

namespace platform {
namespace {

std::string firstLine(const char* path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  const auto end = line.find_last_not_of(" \t\r\n");
  return end == std::string::npos ? std::string() : line.substr(0, end + 1);
}

/// The machine's id, read once; empty when the machine has none.
const std::string& machineId() {
  static const std::string id = [] {
    auto text = firstLine("/etc/machine-id");
    return text.empty() ? firstLine("/var/lib/dbus/machine-id") : text;
  }();
  return id;
}

const std::string& productName() {
  static const std::string name = [] {
    auto text = firstLine("/sys/class/dmi/id/product_name");
    return text.empty() ? std::string("Linux") : text;
  }();
  return name;
}

/// A version-4-shaped UUID from the first 16 bytes of a digest given in hex: stable for
/// the same input and, being a digest, saying nothing about the machine id it came from.
std::string uuidFromDigest(const std::string& hexDigest) {
  auto nibble = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };
  unsigned char bytes[16];
  for (int i = 0; i < 16; ++i)
    bytes[i] =
        static_cast<unsigned char>(nibble(hexDigest[2 * i]) << 4 | nibble(hexDigest[2 * i + 1]));
  bytes[6] = (bytes[6] & 0x0F) | 0x40;  // version 4
  bytes[8] = (bytes[8] & 0x3F) | 0x80;  // variant 1
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    out.push_back(hex[bytes[i] >> 4]);
    out.push_back(hex[bytes[i] & 0x0F]);
  }
  return out;
}

struct Override {
  std::mutex mutex;
  std::optional<DeviceIdentity> identity;
};

Override& currentOverride() {
  static Override* o = new Override();
  return *o;
}

}  // namespace

DeviceIdentity DeviceIdentity::machine(std::optional<std::string> bundleIdentifier) {
  DeviceIdentity identity;
  if (!machineId().empty()) {
    // The separator keeps ("ab", "c") and ("a", "bc") apart.
    identity.vendorIdentifier =
        uuidFromDigest(sha256Hex(machineId() + "\n" + bundleIdentifier.value_or("")));
  }
  identity.bundleIdentifier = std::move(bundleIdentifier);
  identity.localizedModel = productName();
  return identity;
}

DeviceIdentity DeviceIdentity::current() {
  {
    auto& o = currentOverride();
    std::lock_guard lock(o.mutex);
    if (o.identity) return *o.identity;
  }
  return machine();
}

void DeviceIdentity::setCurrent(std::optional<DeviceIdentity> identity) {
  auto& o = currentOverride();
  std::lock_guard lock(o.mutex);
  o.identity = std::move(identity);
}

}  // namespace platform
