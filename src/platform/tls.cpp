#include "platform/tls.hpp"

#include <mutex>

namespace platform {
namespace {

// Read by every connection as it starts, from the loader's thread and the web-socket thread
// alike, while a program's setup may still change it.
std::mutex trustMutex;
std::optional<std::filesystem::path> trustedFile;

}  // namespace

void setTrustedCertificates(std::optional<std::filesystem::path> caFile) {
  std::lock_guard lock(trustMutex);
  trustedFile = std::move(caFile);
}

std::optional<std::filesystem::path> trustedCertificates() {
  std::lock_guard lock(trustMutex);
  return trustedFile;
}

}  // namespace platform
