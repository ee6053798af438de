#pragma once
// Wide text from the plug-in as UTF-8, whatever the process locale.
#include <string>

namespace ML::OrtBackend {

std::string toUtf8(const std::wstring& wide);

}  // namespace ML::OrtBackend
