// Paths.
//
// "/" is the only separator. Nothing is normalised: "." and "..", repeated
// separators and backslashes are ordinary characters.
// Errors: only std::bad_alloc is thrown.
// Threads: the functions may run anywhere.

#pragma once

#include <vrxutil/export.h>
#include <vrxutil/text.h>

/// Splits at the last "/", which belongs to neither part, and returns true.
/// Without one, `folder` is the whole path, `name` is empty, and the result is
/// false. Either output may be null; either may own the characters of `path`.
VRXUTIL_EXPORT bool splitPath(wchar_t const* path, AString* folder, AString* name);

/// Joins two parts with one "/" between them, dropping at most one character:
/// the "/" that begins `name` where `folder` ends in one. An empty or null part
/// gives the other one alone. The parts may own the characters of `result`.
/// Returns the characters of `result`.
VRXUTIL_EXPORT wchar_t const* joinPath(AString* result, wchar_t const* folder, wchar_t const* name);

/// A path joined from folder and name by joinPath().
class VRXUTIL_EXPORT APath : public AString {
public:
  APath(AString const& folder, AString const& name);
};
