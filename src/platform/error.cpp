#include "platform/error.hpp"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

namespace platform {

Error::Error(std::string domain, long code, std::string description, boost::json::object userInfo)
    : std::runtime_error(description),
      domain_(std::move(domain)),
      code_(code),
      description_(std::move(description)),
      userInfo_(std::move(userInfo)) {}

Error invalidURLError() { return Error("Invalid URL", -1, "The text is not a valid URL."); }

std::string typeName(const std::exception& e) {
  const char* mangled = typeid(e).name();
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(mangled);
}

}  // namespace platform
