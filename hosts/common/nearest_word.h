#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace hosts {

/// The known word that was most likely meant by another one; empty when none is near. Upper and lower case
/// count as the same.
std::string NearestWord(std::string_view word, const std::vector<std::string>& known);

}  // namespace hosts
