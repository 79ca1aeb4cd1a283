// Formatted fields, before they become part of an AString.

#pragma once

#include <vrxutil/text.h>

#include <string>

namespace vrxutil::detail {

/// Appends `number` in decimal.
void appendDecimal(std::wstring& text, long number);
void appendDecimal(std::wstring& text, unsigned long number);

/// Appends the low 32 bits of `pointer` as eight hexadecimal digits.
void appendPointer(std::wstring& text, void const* pointer);

/// Appends the field. Its text must not be part of `text`.
void appendField(std::wstring& text, AFormat const& field);

}  // namespace vrxutil::detail
