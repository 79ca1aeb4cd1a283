// Wide strings with recycled memory, so that the texts of log records and trace
// scopes, which come and go all the time, cost no allocation.

#pragma once

#include <cstddef>
#include <string>

namespace vrxutil::detail {

/// An empty string, with the memory of one that was given back on this thread
/// where there is one.
std::wstring takeSpareText();

/// Keeps the memory of `text` for this thread, within bounds. Usable to the very
/// end of a thread, where nothing is kept any more.
void giveSpareText(std::wstring&& text) noexcept;

/// A text for the length of a scope. Texts in use are not in the store, so that
/// whoever is called meanwhile may take others.
class SpareText {
public:
  explicit SpareText(wchar_t const* text) : text_(takeSpareText()) { text_ = text; }

  ~SpareText() { giveSpareText(std::move(text_)); }

  SpareText(SpareText const&) = delete;
  SpareText& operator=(SpareText const&) = delete;

  std::wstring& operator*() { return text_; }

private:
  std::wstring text_;
};

}  // namespace vrxutil::detail
