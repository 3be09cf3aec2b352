#pragma once
// The preferences screen: the user's topics grouped by section with their status, and a
// sheet per topic to switch it on or off and choose its channels, saved to the service.

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "herald/preference_client.hpp"
#include "herald_ui/app.hpp"

namespace herald_ui {

/// What the sheet of one topic holds while it is open.
struct TopicSheet {
  std::shared_ptr<const herald::HeraldUserPreferencesTopic> topic;
  bool on = true;
  bool ownChannels = false;
  /// In the order of `herald::kPreferencesChannelAllCases`.
  std::array<bool, herald::kPreferencesChannelAllCases.size()> channels{};
  /// The line the cursor is on: 0 the switch, 1 own channels, 2… the channels, then Save.
  int focus = 0;
  bool saving = false;
  std::optional<std::string> refusal;

  static TopicSheet of(std::shared_ptr<const herald::HeraldUserPreferencesTopic> topic);
  int lines() const { return 3 + static_cast<int>(channels.size()); }
  int saveLine() const { return lines() - 1; }
  /// What the service is asked to store: a required topic stays "REQUIRED" while on.
  herald::TopicDetails details() const;
};

/// The topics in sections (in the order the service lists them, each section where its
/// first topic is), as the rows of the screen.
struct PreferenceRow {
  std::string section;  ///< a section's heading when `topic` is none
  std::shared_ptr<const herald::HeraldUserPreferencesTopic> topic;
};
std::vector<PreferenceRow> preferenceRows(
    const std::vector<std::shared_ptr<const herald::HeraldUserPreferencesTopic>>& topics);

class PreferencesScreen : public Screen {
 public:
  explicit PreferencesScreen(App& app) : app_(app) {}
  /// Reads every page of topics again.
  void open();

  void draw(int top, int bottom, int cols) override;
  bool key(const Key& key) override;
  void drawTabs(int row, int cols) override;
  std::wstring help() const override;

 private:
  void drawSheet(int top, int bottom, int cols);
  bool sheetKey(const Key& key);
  void save();
  void moveCursor(int delta);

  App& app_;
  std::vector<std::shared_ptr<const herald::HeraldUserPreferencesTopic>> topics_;
  std::vector<PreferenceRow> rows_;
  bool loading_ = false;
  std::optional<std::string> failure_;
  /// Index into rows_ (always a topic's row when there is one).
  std::size_t selected_ = 0;
  std::size_t top_ = 0;
  std::optional<TopicSheet> sheet_;
  /// Counts the loads, so that an old one's answer is not taken for the last.
  unsigned generation_ = 0;
};

}  // namespace herald_ui
