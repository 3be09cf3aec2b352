// Feeds arbitrary bytes to the service client as the body of a refused request. Whatever a
// server sends (HTML from a proxy, half a JSON text, nesting deeper than the parser allows),
// the client must make an error of it without throwing; any exception, crash or sanitizer
// report is a finding, and so is an error that reads the body differently from the JSON
// parser every other part of the client uses.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "herald/herald_error.hpp"
#include "platform/json.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  // The status only travels through; it varies so that no code is special.
  const long status = 400 + static_cast<long>(size % 200);
  try {
    const auto error = herald::HeraldError::fromResponse(status, body);
    if (error.code != status) __builtin_trap();
    if (std::strcmp(error.what(), error.message.c_str()) != 0) __builtin_trap();

    const auto value = platform::tryParseJSON(body);
    const auto* object = value ? value->if_object() : nullptr;
    const auto* message = object ? object->if_contains("message") : nullptr;
    const auto* type = object ? object->if_contains("type") : nullptr;
    if (message && message->is_string() && error.message != message->get_string()) __builtin_trap();
    if (!(message && message->is_string()) && error.message != "Unknown Error") __builtin_trap();
    if (type && type->is_string() ? error.type != std::string_view(type->get_string())
                                  : error.type.has_value())
      __builtin_trap();
  } catch (...) {
    __builtin_trap();
  }
  return 0;
}
