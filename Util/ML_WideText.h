#pragma once
// Conversions between the UTF-8 text of paths and the wide strings that cross the backend border.
// Independent of the process locale.
#include <filesystem>
#include <string>

namespace ML {

std::wstring widen(const std::string& utf8);  // invalid bytes become U+FFFD
std::string narrow(const std::wstring& wide);

inline std::wstring toWide(const std::filesystem::path& path) { return widen(path.string()); }
inline std::filesystem::path pathFromWide(const std::wstring& wide) { return std::filesystem::path(narrow(wide)); }

// A path's text for messages: UTF-8 with every backslash turned into a forward slash.
std::string displayPath(const std::filesystem::path& path);

}  // namespace ML
