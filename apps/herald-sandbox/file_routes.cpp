#include <algorithm>
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

// True when `path` is `root` or below it; both are canonical.
bool within(const std::filesystem::path& root, const std::filesystem::path& path) {
  return std::mismatch(root.begin(), root.end(), path.begin(), path.end()).first == root.end();
}

// `root` is canonical, so that the links in the path asked for can be judged by where they
// finally lead: a link within the folder is served, one that leads out of it is refused (403,
// not 400: the request is well-formed, the folder holds a way out).
Response serveFile(const std::optional<std::filesystem::path>& root, std::string_view relative) {
  if (!root) return Response::error(404, "the sandbox serves no files (start it with --files DIR)");
  checkConfined(relative);
  while (relative.starts_with('/')) relative.remove_prefix(1);
  std::error_code ec;
  const auto path = std::filesystem::canonical(*root / std::filesystem::path(relative), ec);
  if (relative.empty() || ec || !std::filesystem::is_regular_file(path, ec))
    return Response::error(404, "no file /files/" + std::string(relative));
  if (!within(*root, path))
    return Response::error(
        403, "/files/" + std::string(relative) + " is a symbolic link out of the served folder");
  std::ifstream in(path, std::ios::binary);
  std::ostringstream data;
  data << in.rdbuf();
  if (!in) return Response::error(500, "cannot read /files/" + std::string(relative), "api_error");
  return Response::bytes(contentTypeFor(platform::pathExtension(path.string())), data.str());
}

}  // namespace

void addFileRoutes(Router& router, std::optional<std::filesystem::path> root) {
  if (root) {
    std::error_code ec;
    auto real = std::filesystem::canonical(*root, ec);
    if (ec) throw std::filesystem::filesystem_error("--files", *root, ec);
    root = std::move(real);
  }
  router.add("GET", "/files/*",
             [root](const Request&, std::string_view rest) { return serveFile(root, rest); });
}

}  // namespace sandbox
