#include "content_json.hpp"

#include <boost/json/array.hpp>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "platform/paths.hpp"

namespace host {
namespace {

template <class T>
boost::json::value orNull(const std::optional<T>& value) {
  if (!value) return nullptr;
  return boost::json::value(*value);
}

// 64-bit FNV-1a as 16 hex digits. The name only has to tell the pictures of one process
// apart; a SHA-256 here made OpenSSL load its algorithm tables (a millisecond and 300 KB of
// the host's memory) for nothing else.
std::string digestName(std::string_view bytes) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const unsigned char c : bytes) hash = (hash ^ c) * 0x100000001b3;
  static constexpr char hex[] = "0123456789abcdef";
  std::string out(16, '0');
  for (int i = 15; i >= 0; --i, hash >>= 4) out[static_cast<std::size_t>(i)] = hex[hash & 0xF];
  return out;
}

// A drawn picture is written once, named by its digest, beside the attachment files, so
// that a person can open it; the JSON line carries its path.
std::string writeSenderPNG(const std::string& png) {
  const auto dir = platform::temporaryDirectory() / platform::processGloballyUniqueString();
  const auto file = dir / ("sender-" + digestName(png) + ".png");
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (!std::filesystem::exists(file, ec)) {
    std::ofstream out(file, std::ios::binary);
    out.write(png.data(), static_cast<std::streamsize>(png.size()));
    if (!out.flush()) return "(not written: " + file.string() + ")";
  }
  return file.string();
}

boost::json::value communicationJSON(const std::optional<platform::CommunicationSender>& c) {
  if (!c) return nullptr;
  boost::json::value image = nullptr;
  if (c->imageURL)
    image = boost::json::object{{"url", *c->imageURL}};
  else if (c->imagePNG)
    image = boost::json::object{{"png", writeSenderPNG(*c->imagePNG)}};
  return boost::json::object{
      {"sender", boost::json::object{{"displayName", orNull(c->displayName)}, {"image", image}}}};
}

}  // namespace

boost::json::object contentJSON(const platform::NotificationContent& content) {
  boost::json::array attachments;
  for (const auto& a : content.attachments)
    attachments.push_back(boost::json::object{
        {"identifier", a.identifier}, {"url", a.url}, {"type", a.type}, {"options", a.options}});

  boost::json::object json;
  json["title"] = orNull(content.title);
  json["subtitle"] = orNull(content.subtitle);
  json["body"] = orNull(content.body);
  json["badge"] = orNull(content.badge);
  json["sound"] = orNull(content.sound);
  json["threadIdentifier"] = orNull(content.threadIdentifier);
  json["categoryIdentifier"] = orNull(content.categoryIdentifier);
  json["userInfo"] = content.userInfo;
  json["attachments"] = std::move(attachments);
  json["communication"] = communicationJSON(content.communication);
  return json;
}

}  // namespace host
