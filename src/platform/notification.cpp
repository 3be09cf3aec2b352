#include "platform/notification.hpp"

#include <array>
#include <cctype>
#include <fstream>

#include "platform/error.hpp"
#include "platform/paths.hpp"
#include "platform/text.hpp"

namespace platform {
namespace {

constexpr std::uintmax_t MB = 1024 * 1024;

struct KnownType {
  const char* extension;
  const char* uniformType;
  std::uintmax_t maxBytes;
  const char* kind;
};

// The types and limits of the phone's notification attachments.
constexpr std::array<KnownType, 14> kTypes{{
    {"jpg", "public.jpeg", 10 * MB, "image"},
    {"jpeg", "public.jpeg", 10 * MB, "image"},
    {"gif", "com.compuserve.gif", 10 * MB, "image"},
    {"png", "public.png", 10 * MB, "image"},
    {"aif", "public.aiff-audio", 5 * MB, "audio"},
    {"aiff", "public.aiff-audio", 5 * MB, "audio"},
    {"wav", "com.microsoft.waveform-audio", 5 * MB, "audio"},
    {"mp3", "public.mp3", 5 * MB, "audio"},
    {"m4a", "com.apple.m4a-audio", 5 * MB, "audio"},
    {"mpg", "public.mpeg", 50 * MB, "video"},
    {"mpeg", "public.mpeg", 50 * MB, "video"},
    {"mpeg2", "public.mpeg-2-video", 50 * MB, "video"},
    {"mp4", "public.mpeg-4", 50 * MB, "video"},
    {"avi", "public.avi", 50 * MB, "video"},
}};

// Images are checked by their first bytes as well, so that a page of HTML saved as
// "photo.jpg" is refused here and not shown as a broken picture.
bool imageSignatureMatches(const std::filesystem::path& path, std::string_view uniformType) {
  std::ifstream in(path, std::ios::binary);
  unsigned char head[8] = {};
  in.read(reinterpret_cast<char*>(head), sizeof head);
  const auto n = in.gcount();
  if (uniformType == "public.jpeg")
    return n >= 3 && head[0] == 0xFF && head[1] == 0xD8 && head[2] == 0xFF;
  if (uniformType == "public.png")
    return n >= 8 && head[0] == 0x89 && head[1] == 'P' && head[2] == 'N' && head[3] == 'G';
  if (uniformType == "com.compuserve.gif")
    return n >= 4 && head[0] == 'G' && head[1] == 'I' && head[2] == 'F' && head[3] == '8';
  return true;
}

}  // namespace

std::optional<std::uintmax_t> attachmentSizeLimit(std::string_view extension) {
  const auto ext = lowercased(extension);
  for (const auto& t : kTypes)
    if (ext == t.extension) return t.maxBytes;
  return std::nullopt;
}

NotificationAttachment NotificationAttachment::make(std::string identifier, const std::string& url,
                                                    boost::json::object options) {
  using namespace attachment_error;
  auto path = pathFromFileURL(url);
  if (!path) throw Error(domain, invalidURL, "Attachment URL is not a file URL: " + url);
  std::error_code ec;
  if (!std::filesystem::is_regular_file(*path, ec))
    throw Error(domain, fileNotFound, "Attachment file does not exist: " + path->string());
  const auto extension = lowercased(pathExtension(path->string()));
  const KnownType* known = nullptr;
  for (const auto& t : kTypes)
    if (extension == t.extension) known = &t;
  if (!known)
    throw Error(
        domain, unrecognizedFileType,
        "Unrecognized attachment file type: \"" + extension + "\" (" + path->string() + ")");
  const auto size = std::filesystem::file_size(*path, ec);
  if (ec || size == 0 || size > known->maxBytes)
    throw Error(domain, invalidFileSize,
                "Invalid attachment file size: " + std::to_string(ec ? 0 : size) + " bytes; " +
                    known->kind + " attachments hold 1 to " + std::to_string(known->maxBytes) +
                    " bytes");
  if (!imageSignatureMatches(*path, known->uniformType))
    throw Error(domain, invalidContents,
                "Attachment contents do not match its type " + std::string(known->uniformType) +
                    ": " + path->string());
  if (identifier.empty()) identifier = newUUID();
  return NotificationAttachment{std::move(identifier), url, known->uniformType, std::move(options)};
}

std::shared_ptr<MutableNotificationContent> NotificationContent::mutableCopy() const {
  if (!copyable) return nullptr;
  auto copy = std::make_shared<MutableNotificationContent>();
  static_cast<NotificationContent&>(*copy) = *this;
  return copy;
}

std::shared_ptr<const NotificationContent> NotificationContent::copy() const {
  return std::make_shared<const NotificationContent>(*this);
}

}  // namespace platform
