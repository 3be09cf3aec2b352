#pragma once
// One logged entry, shared by every destination that takes it. All its texts live in the
// same allocation as the entry itself, so that logging costs one allocation whatever the
// number of destinations.

#include <atomic>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "logwell/context.hpp"
#include "logwell/level.hpp"

namespace logwell::detail {

class Entry {
 public:
  Level level;
  int line;
  Context context;
  std::string_view message, thread, file, function;

  /// `function` is written as `functionBase` followed by "()" when `addParentheses`.
  static Entry* make(Level level, std::string_view message, std::string_view thread,
                     std::string_view file, std::string_view functionBase, bool addParentheses,
                     int line, Context&& context) {
    const std::size_t fnSize = functionBase.size() + (addParentheses ? 2 : 0);
    const std::size_t bytes = message.size() + thread.size() + file.size() + fnSize;
    void* raw = ::operator new(sizeof(Entry) + bytes);
    auto* e = new (raw) Entry(level, line, std::move(context));
    char* p = reinterpret_cast<char*>(e + 1);
    auto put = [&p](std::string_view text) {
      if (!text.empty()) std::memcpy(p, text.data(), text.size());
      std::string_view view(p, text.size());
      p += text.size();
      return view;
    };
    e->message = put(message);
    e->thread = put(thread);
    e->file = put(file);
    char* fn = p;
    put(functionBase);
    if (addParentheses) put("()");
    e->function = std::string_view(fn, fnSize);
    return e;
  }

  void retain() const noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }
  void release() const noexcept {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      this->~Entry();
      ::operator delete(const_cast<Entry*>(this));
    }
  }

 private:
  Entry(Level l, int ln, Context&& c) : level(l), line(ln), context(std::move(c)) {}
  ~Entry() = default;

  mutable std::atomic<int> refs_{1};
};

/// Owning handle of an `Entry`.
class EntryRef {
 public:
  EntryRef() = default;
  explicit EntryRef(Entry* adopted) noexcept : entry_(adopted) {}
  EntryRef(const EntryRef& other) noexcept : entry_(other.entry_) {
    if (entry_) entry_->retain();
  }
  EntryRef(EntryRef&& other) noexcept : entry_(std::exchange(other.entry_, nullptr)) {}
  EntryRef& operator=(EntryRef other) noexcept {
    std::swap(entry_, other.entry_);
    return *this;
  }
  ~EntryRef() {
    if (entry_) entry_->release();
  }

  explicit operator bool() const noexcept { return entry_ != nullptr; }
  const Entry& operator*() const noexcept { return *entry_; }
  const Entry* operator->() const noexcept { return entry_; }

 private:
  Entry* entry_ = nullptr;
};

}  // namespace logwell::detail
