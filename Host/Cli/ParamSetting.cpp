#include "Host/Cli/ParamSetting.h"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <optional>

#include "Host/CallSettings.h"
#include "Host/Cli/CliError.h"

namespace QCli {

namespace {

std::optional<long> wholeNumber(const std::string& text) {
    if (text.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value < INT_MIN || value > INT_MAX) return std::nullopt;
    return value;
}

std::optional<float> realNumber(std::string text) {
    if (!text.empty() && (text.back() == 'f' || text.back() == 'F')) text.pop_back();
    if (text.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const float value = std::strtof(text.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(value)) return std::nullopt;
    return value;
}

[[noreturn]] void bad(const std::string& text, const std::string& why) {
    throw UsageError("bad parameter '" + text + "': " + why + " (expected ID[.INDEX][:int|float|str]=VALUE)");
}

}  // namespace

ParamSetting parseParam(const std::string& text) {
    const auto eq = text.find('=');
    if (eq == std::string::npos) bad(text, "no '='");
    std::string key = text.substr(0, eq);
    ParamSetting p;
    p.text = text.substr(eq + 1);

    if (const auto colon = key.find(':'); colon != std::string::npos) {
        const std::string type = key.substr(colon + 1);
        key.resize(colon);
        if (type == "int") p.type = ParamType::Int;
        else if (type == "float") p.type = ParamType::Float;
        else if (type == "str" || type == "string") p.type = ParamType::String;
        else bad(text, "unknown type '" + type + "'");
    }
    std::optional<std::string> indexText;
    if (const auto dot = key.find('.'); dot != std::string::npos) {
        indexText = key.substr(dot + 1);
        key.resize(dot);
    }
    const auto id = wholeNumber(key);
    if (!id || *id < 0) bad(text, "the id must be a number");
    p.id = static_cast<int>(*id);
    if (indexText) {
        const auto index = wholeNumber(*indexText);
        if (!index || *index < -1) bad(text, "the index must be a number");
        p.index = static_cast<int>(*index);
    }

    switch (p.type) {
        case ParamType::Int: {
            const auto v = wholeNumber(p.text);
            if (!v) bad(text, "'" + p.text + "' is not a whole number");
            p.setsInt = true;
            p.intValue = static_cast<int>(*v);
            break;
        }
        case ParamType::Float: {
            const auto v = realNumber(p.text);
            if (!v) bad(text, "'" + p.text + "' is not a number");
            p.setsFloat = true;
            p.floatValue = *v;
            break;
        }
        case ParamType::String:
            p.setsString = true;
            break;
        case ParamType::Inferred:
            if (const auto w = wholeNumber(p.text)) {
                p.setsInt = p.setsFloat = true;
                p.intValue = static_cast<int>(*w);
                p.floatValue = static_cast<float>(*w);
            } else if (const auto r = realNumber(p.text)) {
                p.setsFloat = true;
                p.floatValue = *r;
            } else {
                p.setsString = true;
            }
            break;
    }
    return p;
}

void applyParam(QHost::CallSettings& settings, const ParamSetting& param) {
    if (param.setsInt) settings.setIntParam(param.id, param.index, param.intValue);
    if (param.setsFloat) settings.setFloatParam(param.id, param.index, param.floatValue);
    if (param.setsString) settings.setStringParam(param.id, param.index, param.text);
}

}  // namespace QCli
