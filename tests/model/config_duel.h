// One configuration file, read by the engine and by its model.
#pragma once

#include <optional>
#include <string>

// What either made of the file, if that is not the same: messages, switches,
// capacity, and every entry as text, number and switch.
std::optional<std::string> FindConfigDifference(const std::string& content);
