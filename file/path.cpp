#include <vrxutil/file.h>

#include <string_view>

namespace {

constexpr wchar_t kSeparator = L'/';

std::wstring_view orEmpty(wchar_t const* text) {
  return text != nullptr ? std::wstring_view(text) : std::wstring_view();
}

std::wstring joined(std::wstring_view folder, std::wstring_view name) {
  bool const between = !folder.empty() && !name.empty();
  bool const folderEnds = folder.ends_with(kSeparator);
  bool const nameBegins = name.starts_with(kSeparator);
  if (folderEnds && nameBegins) name.remove_prefix(1);
  std::wstring path;
  path.reserve(folder.size() + 1 + name.size());
  path = folder;
  if (between && !folderEnds && !nameBegins) path += kSeparator;
  return path += name;
}

}  // namespace

static_assert(sizeof(APath) == sizeof(AString));

bool splitPath(wchar_t const* path, AString* folder, AString* name) {
  AString whole(path);  // the outputs may own `path`
  std::size_t const last = whole.const_cpp_str().rfind(kSeparator);
  bool const found = last != std::wstring::npos;
  if (name != nullptr) *name = found ? whole + (last + 1) : L"";
  if (found) whole.shrinkTo(last);
  if (folder != nullptr) *folder = std::move(whole);
  return found;
}

wchar_t const* joinPath(AString* result, wchar_t const* folder, wchar_t const* name) {
  result->cpp_str() = joined(orEmpty(folder), orEmpty(name));
  return *result;
}

APath::APath(AString const& folder, AString const& name) { joinPath(this, folder, name); }
