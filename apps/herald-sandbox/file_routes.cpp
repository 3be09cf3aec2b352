#include <fstream>
#include <sstream>

#include "media.hpp"
#include "platform/paths.hpp"
#include "routes.hpp"

namespace sandbox {
namespace {

// The decoded path must stay below the root: no ".." segment (however it was encoded), no
// NUL, nothing absolute.
void checkConfined(std::string_view relative) {
  if (relative.find('\0') != std::string_view::npos)
    throw BadRequest("a file path cannot hold a NUL character");
  std::size_t start = 0;
  while (start <= relative.size()) {
    auto end = relative.find('/', start);
    if (end == std::string_view::npos) end = relative.size();
    if (relative.substr(start, end - start) == "..")
      throw BadRequest("a file path cannot hold \"..\"");
    start = end + 1;
  }
}

Response serveFile(const std::optional<std::filesystem::path>& root, std::string_view relative) {
  if (!root) return Response::error(404, "the sandbox serves no files (start it with --files DIR)");
  checkConfined(relative);
  while (relative.starts_with('/')) relative.remove_prefix(1);
  const auto path = *root / std::filesystem::path(relative);
  std::error_code ec;
  if (relative.empty() || !std::filesystem::is_regular_file(path, ec))
    return Response::error(404, "no file /files/" + std::string(relative));
  std::ifstream in(path, std::ios::binary);
  std::ostringstream data;
  data << in.rdbuf();
  if (!in) return Response::error(500, "cannot read /files/" + std::string(relative), "api_error");
  return Response::bytes(contentTypeFor(platform::pathExtension(path.string())), data.str());
}

}  // namespace

void addFileRoutes(Router& router, std::optional<std::filesystem::path> root) {
  router.add("GET", "/files/*",
             [root](const Request&, std::string_view rest) { return serveFile(root, rest); });
}

}  // namespace sandbox
