#include "logwell/internal/output.hpp"

#include <boost/json/value.hpp>
#include <cmath>
#include <string>

#include "logwell/internal/text.hpp"

namespace logwell::detail {

void printLine(std::string_view text, std::FILE* stream) {
  // One write per line, so that lines of concurrent writers do not mix.
  thread_local std::string buffer;
  buffer.assign(text);
  buffer.push_back('\n');
  std::fwrite(buffer.data(), 1, buffer.size(), stream);
  std::fflush(stream);
  if (buffer.capacity() > 4096) std::string().swap(buffer);
}

bool isJSONSerializable(const boost::json::value& v) {
  switch (v.kind()) {
    case boost::json::kind::double_:
      return std::isfinite(v.get_double());
    case boost::json::kind::string: {
      const auto& s = v.get_string();
      return isValidUTF8(std::string_view(s.data(), s.size()));
    }
    case boost::json::kind::array:
      for (const auto& e : v.get_array())
        if (!isJSONSerializable(e)) return false;
      return true;
    case boost::json::kind::object:
      for (const auto& kv : v.get_object())
        if (!isValidUTF8(std::string_view(kv.key().data(), kv.key().size())) ||
            !isJSONSerializable(kv.value()))
          return false;
      return true;
    default:
      return true;
  }
}

}  // namespace logwell::detail
