#pragma once
// One logged entry as the destinations see it: views of texts owned by the logging call (when
// written synchronously) or by a queue slot (when queued).

#include <string_view>

#include "logwell/context.hpp"
#include "logwell/level.hpp"

namespace logwell::detail {

struct Entry {
  Level level;
  std::string_view message, thread, file, function;
  int line;
  const Context* context;  // never null
};

}  // namespace logwell::detail
