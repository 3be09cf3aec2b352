#include "platform/paths.hpp"

#include <openssl/evp.h>

#include <boost/url/parse.hpp>
#include <boost/url/url.hpp>
#include <cstdlib>
#include <random>

namespace platform {
namespace {

std::optional<std::filesystem::path> fromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  if (value && *value) return std::filesystem::path(value);
  return std::nullopt;
}

std::optional<std::filesystem::path> home() { return fromEnvironment("HOME"); }

}  // namespace

std::optional<std::filesystem::path> cachesDirectory() {
  if (auto dir = fromEnvironment("XDG_CACHE_HOME")) return dir;
  if (auto h = home()) return *h / ".cache";
  return std::nullopt;
}

std::filesystem::path temporaryDirectory() {
  return fromEnvironment("TMPDIR").value_or(std::filesystem::path("/tmp"));
}

std::filesystem::path configDirectory() {
  if (auto dir = fromEnvironment("XDG_CONFIG_HOME")) return *dir;
  return home().value_or(temporaryDirectory()) / ".config";
}

std::string newUUID() {
  thread_local std::mt19937_64 engine{std::random_device{}()};
  std::uniform_int_distribution<unsigned> byte(0, 255);
  unsigned char b[16];
  for (auto& x : b) x = static_cast<unsigned char>(byte(engine));
  b[6] = (b[6] & 0x0F) | 0x40;  // version 4
  b[8] = (b[8] & 0x3F) | 0x80;  // variant 1
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(36);
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back('-');
    out.push_back(hex[b[i] >> 4]);
    out.push_back(hex[b[i] & 0x0F]);
  }
  return out;
}

const std::string& processGloballyUniqueString() {
  static const std::string value = newUUID();
  return value;
}

std::string fileURL(const std::filesystem::path& path) {
  boost::urls::url url;
  url.set_scheme("file");
  url.set_encoded_host("");
  url.set_path(std::filesystem::absolute(path).lexically_normal().string());
  return std::string(url.buffer());
}

std::optional<std::filesystem::path> pathFromFileURL(std::string_view text) {
  auto parsed = boost::urls::parse_uri(text);
  if (!parsed || parsed->scheme() != "file") return std::nullopt;
  return std::filesystem::path(std::string(parsed->path()));
}

std::string sha256Hex(std::string_view text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr);
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  out.reserve(length * 2);
  for (unsigned i = 0; i < length; ++i) {
    out.push_back(hex[digest[i] >> 4]);
    out.push_back(hex[digest[i] & 0x0F]);
  }
  return out;
}

std::string pathExtension(std::string_view urlOrPath) {
  std::string path;
  if (auto parsed = boost::urls::parse_uri_reference(urlOrPath); parsed && parsed->has_scheme())
    path = std::string(parsed->path());
  else
    path = std::string(urlOrPath.substr(0, urlOrPath.find_first_of("?#")));
  const auto name = std::filesystem::path(path).filename().string();
  const auto dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) return {};
  return name.substr(dot + 1);
}

bool isValidURL(std::string_view text) {
  return !text.empty() && boost::urls::parse_uri_reference(text).has_value();
}

}  // namespace platform
