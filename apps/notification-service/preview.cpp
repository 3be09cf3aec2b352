#include "preview.hpp"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/constants.hpp"
#include "platform/assets.hpp"
#include "platform/canvas.hpp"
#include "platform/paths.hpp"
#include "platform/url_loading.hpp"

namespace host {
namespace {

using platform::Canvas;
using platform::Color;
using platform::Font;
using platform::Image;
using platform::Rect;

// Lock-screen proportions at twice the phone's points, so that text stays crisp.
constexpr double kWidth = 760;
constexpr double kMargin = 20;   // wallpaper around the card
constexpr double kPadding = 24;  // inside the card
constexpr double kAvatar = 88;
constexpr double kBadge = 30;
constexpr double kThumbnail = 112;
constexpr double kGap = 18;
constexpr int kMaxBodyLines = 4;

const Color kWallpaper{0.13, 0.16, 0.25, 1};
const Color kCard{0.97, 0.97, 0.98, 1};
const Color kPrimaryText{0.07, 0.07, 0.08, 1};
const Color kSecondaryText{0.45, 0.45, 0.48, 1};
const Color kPlaceholder{0.78, 0.78, 0.80, 1};

bool isContinuationByte(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Splits `text` into lines no wider than `width`, at spaces where it can and inside a word
// only when the word alone is too wide. At most `maxLines`; the last one ends in "…" when
// text was left over.
std::vector<std::string> wrap(const Canvas& canvas, const std::string& text, const Font& font,
                              double width, int maxLines) {
  std::vector<std::string> words;
  std::istringstream in(text);
  for (std::string word; in >> word;) words.push_back(word);
  auto fits = [&](const std::string& s) { return canvas.measureText(s, font).width <= width; };

  std::vector<std::string> lines;
  std::string line;
  bool truncated = false;
  for (std::size_t i = 0; i < words.size() && !truncated; ++i) {
    std::string word = words[i];
    const auto candidate = line.empty() ? word : line + " " + word;
    if (fits(candidate)) {
      line = candidate;
      continue;
    }
    if (!line.empty()) {
      lines.push_back(line);
      line.clear();
    }
    while (!fits(word)) {  // a word wider than the column: break it between characters
      std::size_t cut = word.size();
      while (cut > 1 && (!fits(word.substr(0, cut)) || isContinuationByte(word[cut]))) --cut;
      lines.push_back(word.substr(0, cut));
      word = word.substr(cut);
      if (static_cast<int>(lines.size()) >= maxLines) break;
    }
    line = word;
    truncated = static_cast<int>(lines.size()) >= maxLines;
  }
  if (!line.empty() && !truncated) lines.push_back(line);
  if (static_cast<int>(lines.size()) > maxLines) {
    lines.resize(static_cast<std::size_t>(maxLines));
    truncated = true;
  }
  if (truncated && !lines.empty()) {
    auto& last = lines.back();
    while (!last.empty() && !fits(last + "…")) {
      last.pop_back();
      while (!last.empty() && isContinuationByte(last.back())) last.pop_back();
    }
    last += "…";
  }
  return lines;
}

std::optional<Image> loadSenderPicture(const platform::CommunicationSender& sender) {
  if (sender.imagePNG) return Image::fromPNG(*sender.imagePNG);
  if (!sender.imageURL) return std::nullopt;
  try {
    auto request = platform::URLRequest::make(*sender.imageURL);
    request.timeout = std::chrono::seconds(3);
    request.addValue("notification-service-preview", "User-Agent");
    return Image::fromData(platform::URLSession::shared().dataSync(request).data);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<Image> loadThumbnail(const platform::NotificationContent& content) {
  for (const auto& attachment : content.attachments) {
    const auto path = platform::pathFromFileURL(attachment.url);
    if (!path) continue;
    std::ifstream in(*path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    if (auto image = Image::fromData(bytes.str())) return image;
  }
  return std::nullopt;
}

// The app icon: the brand colour with the app's initial.
void drawAppIcon(Canvas& canvas, Rect rect, std::string_view appName) {
  canvas.fillRoundedRect(
      rect, rect.width * 0.225,
      platform::namedColor(K::Colors::secondaryMoonGrape, K::Colors::secondaryMoonGrapeFallback));
  const std::string letter = appName.empty() ? "?" : std::string(appName.substr(0, 1));
  const auto font = Font::boldSystem(rect.width * 0.55);
  const auto size = canvas.measureText(letter, font);
  canvas.drawText(letter,
                  {rect.x + (rect.width - size.width) / 2, rect.y + (rect.height - size.height) / 2,
                   size.width, size.height},
                  font, Color::white());
}

struct TextLine {
  std::string text;
  Font font;
  Color color;
};

}  // namespace

void drawPreview(const platform::NotificationContent& content, std::string_view appName,
                 const std::filesystem::path& file) {
  const auto& sender = content.communication;
  const auto thumbnail = loadThumbnail(content);
  const double textX = kMargin + kPadding + kAvatar + kGap;
  const double textRight = kWidth - kMargin - kPadding - (thumbnail ? kThumbnail + kGap : 0);
  const double textWidth = textRight - textX;

  // Lay the texts out first: the card is as tall as they need.
  Canvas scratch({1, 1});
  std::vector<TextLine> lines;
  const Font bold = Font::boldSystem(26), regular = Font::system(24), small = Font::boldSystem(18);
  auto add = [&](const std::optional<std::string>& text, const Font& font, Color color, int max) {
    if (!text || text->empty()) return;
    for (auto& l : wrap(scratch, *text, font, textWidth, max)) lines.push_back({l, font, color});
  };
  if (sender && sender->displayName) add(sender->displayName, bold, kPrimaryText, 1);
  add(content.title, sender && sender->displayName ? Font::boldSystem(23) : bold, kPrimaryText, 2);
  add(content.subtitle, regular, kPrimaryText, 1);
  add(content.body, regular, kPrimaryText, kMaxBodyLines);
  if (lines.empty()) lines.push_back({"Notification", bold, kSecondaryText});

  const double headerHeight = scratch.measureText("K", small).height + 6;
  double textHeight = headerHeight;
  for (const auto& l : lines) textHeight += scratch.measureText(l.text, l.font).height + 2;
  const double top = kMargin + kPadding;
  const double contentHeight =
      std::max({kAvatar, textHeight, thumbnail ? kThumbnail + headerHeight : 0});
  const double height = top + contentHeight + kPadding + kMargin;

  Canvas canvas({kWidth, height});
  canvas.fill({0, 0, kWidth, height}, kWallpaper);
  canvas.fillRoundedRect({kMargin, kMargin, kWidth - 2 * kMargin, height - 2 * kMargin}, 30, kCard);

  // Avatar: the sender's picture as a circle with the app icon as a badge, or the app icon.
  const Rect avatar{kMargin + kPadding, top, kAvatar, kAvatar};
  if (sender) {
    if (auto picture = loadSenderPicture(*sender))
      canvas.drawImageAspectFill(*picture, avatar, kAvatar / 2);
    else
      canvas.fillRoundedRect(avatar, kAvatar / 2, kPlaceholder);
    const Rect badge{avatar.x + kAvatar - kBadge + 4, avatar.y + kAvatar - kBadge + 4, kBadge,
                     kBadge};
    canvas.fillRoundedRect({badge.x - 3, badge.y - 3, kBadge + 6, kBadge + 6}, 10, kCard);
    drawAppIcon(canvas, badge, appName);
  } else {
    drawAppIcon(canvas, avatar, appName);
  }

  // Header: the app's name on the left, the time on the right.
  const std::string name(appName);
  const auto nameSize = canvas.measureText(name, small);
  canvas.drawText(name, {textX, top, nameSize.width, nameSize.height}, small, kSecondaryText);
  const auto now = canvas.measureText("now", Font::system(18));
  canvas.drawText("now", {kWidth - kMargin - kPadding - now.width, top, now.width, now.height},
                  Font::system(18), kSecondaryText);

  double y = top + headerHeight;
  for (const auto& l : lines) {
    const auto size = canvas.measureText(l.text, l.font);
    canvas.drawText(l.text, {textX, y, size.width, size.height}, l.font, l.color);
    y += size.height + 2;
  }

  if (thumbnail)
    canvas.drawImageAspectFill(
        *thumbnail,
        {kWidth - kMargin - kPadding - kThumbnail, top + headerHeight, kThumbnail, kThumbnail}, 14);

  const auto png = canvas.pngData();
  std::ofstream out(file, std::ios::binary);
  if (!png || !out.write(png->data(), static_cast<std::streamsize>(png->size())) || !out.flush())
    throw std::runtime_error("cannot write the preview to " + file.string());
}

}  // namespace host
