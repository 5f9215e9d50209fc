#pragma once

#include <nlohmann/json.hpp>

namespace hosts {

/// Of the documents of corvel_cmdline and corvel_service, which begin with it: grows when a field goes or
/// changes its meaning; new fields may come without.
inline constexpr int kDocumentVersion = 1;

enum class JsonLayout { Indented, OneLine };

/// Prints one document on standard output, its version first. Text that is no UTF-8 does not spoil it.
void PrintJson(const nlohmann::ordered_json& fields, JsonLayout layout = JsonLayout::Indented,
               int version = kDocumentVersion);

}  // namespace hosts
