// JSON on standard output.

#pragma once

#include "tools/vrxtool/output.h"

#include <nlohmann/json.hpp>

#include <string>

namespace vrxtool {

/// Keeps the order in which members are added.
using Json = nlohmann::ordered_json;

/// The text of `json`, indented unless that is -1; what is not UTF-8 becomes U+FFFD.
inline std::string jsonText(Json const& json, int indent) {
  return json.dump(indent, ' ', /*ensure_ascii=*/false, Json::error_handler_t::replace);
}

inline void writeJson(Output& output, Json const& json) { output.line(jsonText(json, 2)); }

}  // namespace vrxtool
