#include "platform/assets.hpp"

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/error.hpp"
#include "platform/json.hpp"

#ifndef HERALD_ASSETS_SOURCE_DIR
#define HERALD_ASSETS_SOURCE_DIR ""
#endif

namespace platform {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDomain = "Assets";

std::optional<fs::path> executableDirectory() {
  std::array<char, 4096> buffer{};
  const auto n = ::readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  if (n <= 0) return std::nullopt;
  return fs::path(std::string(buffer.data(), static_cast<std::size_t>(n))).parent_path();
}

// Names come from code, never from a payload, but a name that climbs out of the catalogue
// would still be a mistake worth refusing.
bool isPlainName(std::string_view name) {
  return !name.empty() && name.find('/') == std::string_view::npos && name != "." && name != "..";
}

std::optional<std::string> readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

double component(const boost::json::object& components, const char* key, const fs::path& file) {
  const auto* value = components.if_contains(key);
  if (!value || !value->is_number())
    throw Error(kDomain, 2,
                "Colour asset " + file.string() + ": \"" + key + "\" is missing or not a number");
  const double v = value->to_number<double>();
  if (v < 0 || v > 1)
    throw Error(kDomain, 3,
                "Colour asset " + file.string() + ": \"" + key + "\" is " + std::to_string(v) +
                    ", outside 0…1");
  return v;
}

}  // namespace

fs::path assetsDirectory() {
  if (const char* env = std::getenv("HERALD_ASSETS_DIR"); env && *env) return env;
  std::error_code ec;
  if (auto dir = executableDirectory()) {
    // An installed program's own catalogue comes first, so that a stray assets/ folder near
    // the prefix is never taken for it.
    for (const char* relative : {"../share/herald/assets", "assets", "../assets", "../../assets"}) {
      auto candidate = (*dir / relative).lexically_normal();
      if (fs::is_directory(candidate, ec)) return candidate;
    }
  }
  return HERALD_ASSETS_SOURCE_DIR;
}

std::optional<Color> namedColor(std::string_view name) {
  if (!isPlainName(name)) return std::nullopt;
  const auto file = assetsDirectory() / "colors" / (std::string(name) + ".json");
  const auto text = readFile(file);
  if (!text) return std::nullopt;
  boost::json::value root;
  try {
    root = parseJSON(*text);
  } catch (const JSONSyntaxError& e) {
    throw Error(kDomain, 1, "Colour asset " + file.string() + " is not JSON: " + e.what());
  }
  const auto* object = root.if_object();
  const auto* components = object ? object->if_contains("components") : nullptr;
  if (!components || !components->is_object())
    throw Error(kDomain, 2, "Colour asset " + file.string() + " has no \"components\" object");
  if (const auto* space = object->if_contains("colorSpace");
      space && !(space->is_string() && space->get_string() == "srgb"))
    throw Error(kDomain, 4,
                "Colour asset " + file.string() + ": only the \"srgb\" colour space is supported");
  const auto& c = components->get_object();
  Color color{component(c, "red", file), component(c, "green", file), component(c, "blue", file),
              1};
  if (c.contains("alpha")) color.alpha = component(c, "alpha", file);
  return color;
}

Color namedColor(std::string_view name, Color fallback) {
  try {
    return namedColor(name).value_or(fallback);
  } catch (const std::exception&) {
    return fallback;
  }
}

std::optional<Image> namedImage(std::string_view name) {
  if (!isPlainName(name)) return std::nullopt;
  const auto bytes = readFile(assetsDirectory() / "images" / (std::string(name) + ".png"));
  if (!bytes) return std::nullopt;
  return Image::fromPNG(*bytes);
}

}  // namespace platform
