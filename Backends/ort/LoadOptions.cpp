#include "LoadOptions.h"

#include <nlohmann/json.hpp>

#include <cmath>

#include "BackendError.h"

namespace ML::OrtBackend {

namespace {

int64_t positiveInteger(const nlohmann::json& value, const char* key, int64_t maximum) {
    const std::string prefix = std::string("Load option \"") + key + "\" ";
    if (!value.is_number()) throw BackendError(prefix + "must be a number, not " + value.dump());
    // Compared as double first, so that no conversion below can overflow.
    const double number = value.get<double>();
    if (!(number >= 1 && number <= static_cast<double>(maximum)) || number != std::floor(number))
        throw BackendError(prefix + "must be a whole number from 1 to " + std::to_string(maximum) + ", not " +
                           value.dump());
    return value.is_number_float() ? static_cast<int64_t>(number) : value.get<int64_t>();
}

}  // namespace

LoadOptions LoadOptions::parse(const std::string& text) {
    LoadOptions options;
    if (text.empty()) return options;
    nlohmann::json json;
    try {
        json = nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception& e) {
        throw BackendError(std::string("Load options are not valid JSON: ") + e.what());
    }
    if (json.is_null()) return options;
    if (!json.is_object()) throw BackendError("Load options must be a JSON object: " + text);

    if (json.contains("enable_refit")) {
        const auto& refit = json["enable_refit"];
        if (!refit.is_boolean()) throw BackendError("Load option \"enable_refit\" must be true or false");
        options.enableRefit = refit.get<bool>();
    }
    if (json.contains("free_dim_overrides")) {
        const auto& dims = json["free_dim_overrides"];
        if (!dims.is_object()) throw BackendError("Load option \"free_dim_overrides\" must be an object");
        constexpr int64_t kLargestExtent = int64_t(1) << 31;
        if (dims.contains("height")) options.height = positiveInteger(dims["height"], "height", kLargestExtent);
        if (dims.contains("width")) options.width = positiveInteger(dims["width"], "width", kLargestExtent);
    }
    if (json.contains("intra_op_threads"))
        options.intraOpThreads = static_cast<int>(positiveInteger(json["intra_op_threads"], "intra_op_threads", 1024));
    return options;
}

}  // namespace ML::OrtBackend
