#include "TfjsModel.h"

#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

#include <Imath/half.h>

#include "ImportError.h"

namespace fs = std::filesystem;

namespace qpkg::tfjs {

namespace {

std::string readFile(const fs::path& path, const std::string& what) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw ImportError("Cannot open " + what + " " + path.string());
    std::ostringstream s;
    s << in.rdbuf();
    if (in.bad()) throw ImportError("Cannot read " + what + " " + path.string());
    return s.str();
}

// Bytes of the shards of one manifest group, in order.
std::string readGroup(const fs::path& folder, const nlohmann::json& paths, const fs::path& modelFile,
                      const ShardReader& readShard) {
    if (!paths.is_array() || paths.empty())
        throw ImportError(modelFile.string() + ": a weights manifest group has no \"paths\"");
    std::string bytes;
    for (const nlohmann::json& p : paths) {
        if (!p.is_string()) throw ImportError(modelFile.string() + ": a shard path is not a string");
        bytes += readShard(folder / p.get<std::string>());
    }
    return bytes;
}

int64_t shapeCount(const std::vector<int64_t>& shape, const std::string& name) {
    int64_t n = 1;
    for (int64_t d : shape) {
        if (d < 0 || (d > 0 && n > (int64_t{1} << 40) / d)) throw ImportError("weight " + name + " has a bad shape");
        n *= d;
    }
    return n;
}

// Reads one weight from bytes at offset; advances offset.
Weight decodeWeight(const nlohmann::json& entry, const std::string& bytes, size_t& offset, const std::string& where) {
    Weight w;
    w.name = entry.at("name").get<std::string>();
    for (const nlohmann::json& d : entry.at("shape")) w.shape.push_back(jsonInteger(d, where + ": shape of weight " + w.name));
    const std::string dtype = entry.at("dtype").get<std::string>();
    if (dtype == "float32") w.type = WeightType::Float32;
    else if (dtype == "int32") w.type = WeightType::Int32;
    else if (dtype == "bool") w.type = WeightType::Bool;
    else if (dtype == "string") w.type = WeightType::String;
    else throw ImportError(where + ": weight " + w.name + " has unknown data type \"" + dtype + "\"");
    const int64_t count = shapeCount(w.shape, w.name);

    auto take = [&](size_t n) {
        if (n > bytes.size() - offset)
            throw ImportError(where + ": weight shards are too short for weight " + w.name + " (need " +
                              std::to_string(offset + n) + " bytes, have " + std::to_string(bytes.size()) + ")");
        const char* p = bytes.data() + offset;
        offset += n;
        return p;
    };

    if (w.type == WeightType::String) {
        for (int64_t i = 0; i < count; ++i) {
            uint32_t len = 0;
            std::memcpy(&len, take(4), 4);
            w.strings.emplace_back(take(len), len);
        }
        return w;
    }

    const nlohmann::json quant = entry.value("quantization", nlohmann::json());
    const std::string qtype = quant.is_object() ? quant.value("dtype", std::string()) : std::string();
    const size_t n = static_cast<size_t>(count);
    if (qtype.empty()) {
        const size_t size = w.type == WeightType::Bool ? 1 : 4;
        const char* p = take(n * size);
        if (w.type == WeightType::Float32) {
            w.f32.resize(n);
            if (n) std::memcpy(w.f32.data(), p, n * 4);
        } else if (w.type == WeightType::Int32) {
            w.i32.resize(n);
            if (n) std::memcpy(w.i32.data(), p, n * 4);
        } else {
            w.i32.resize(n);
            for (size_t i = 0; i < n; ++i) w.i32[i] = p[i] != 0;
        }
    } else if (qtype == "float16") {
        if (w.type != WeightType::Float32)
            throw ImportError(where + ": weight " + w.name + " is float16-quantised but not float32");
        w.half.resize(n);
        const char* p = take(n * 2);
        if (n) std::memcpy(w.half.data(), p, n * 2);
        w.f32.resize(n);
        for (size_t i = 0; i < n; ++i) w.f32[i] = halfToFloat(w.half[i]);
    } else if (qtype == "uint8" || qtype == "uint16") {
        if (!quant.contains("scale") || !quant.contains("min"))
            throw ImportError(where + ": weight " + w.name + " is quantised without \"scale\" and \"min\"");
        const float scale = jsonFloat32(quant.at("scale"), where + ": scale of weight " + w.name);
        const float minimum = jsonFloat32(quant.at("min"), where + ": min of weight " + w.name);
        const size_t size = qtype == "uint8" ? 1 : 2;
        const unsigned char* p = reinterpret_cast<const unsigned char*>(take(n * size));
        std::vector<float> values(n);
        for (size_t i = 0; i < n; ++i) {
            const unsigned q = size == 1 ? p[i] : unsigned(p[2 * i]) | unsigned(p[2 * i + 1]) << 8;
            values[i] = float(q) * scale + minimum;
        }
        if (w.type == WeightType::Float32) {
            w.f32 = std::move(values);
        } else {
            w.i32.resize(n);
            for (size_t i = 0; i < n; ++i) w.i32[i] = static_cast<int32_t>(std::lround(values[i]));
            if (w.type == WeightType::Bool)
                for (int32_t& v : w.i32) v = v != 0;
        }
    } else {
        throw ImportError(where + ": weight " + w.name + " has unknown quantisation \"" + qtype + "\"");
    }
    return w;
}

}  // namespace

int64_t jsonInteger(const nlohmann::json& j, const std::string& what) {
    if (j.is_number_integer()) return j.get<int64_t>();  // unsigned values above 2^63 wrap: refused by the callers' ranges
    if (j.is_string()) {
        const std::string text = j.get<std::string>();
        size_t used = 0;
        try {
            const long long v = std::stoll(text, &used);
            if (used == text.size()) return v;
        } catch (const std::exception&) {
        }
    }
    throw ImportError(what + " is not a whole number: " + j.dump());
}

float jsonFloat32(const nlohmann::json& j, const std::string& what) {
    if (!j.is_number()) throw ImportError(what + " is not a number: " + j.dump());
    const double v = j.get<double>();
    if (std::isfinite(v) && std::fabs(v) > static_cast<double>(std::numeric_limits<float>::max()))
        throw ImportError(what + " is out of range: " + j.dump());
    return static_cast<float>(v);
}

int64_t Weight::elementCount() const { return shapeCount(shape, name); }

const Weight& Model::weight(const std::string& name) const {
    const auto it = weights.find(name);
    if (it == weights.end()) throw ImportError(file.string() + ": no weight named " + name);
    return it->second;
}

float halfToFloat(uint16_t h) {
    Imath::half v;
    v.setBits(h);
    return static_cast<float>(v);
}

Model readModel(const fs::path& modelJson) {
    return parseModel(readFile(modelJson, "model file"), modelJson, [&](const fs::path& shard) {
        if (!fs::is_regular_file(shard))
            throw ImportError(modelJson.string() + ": weight shard " + shard.string() + " is missing");
        return readFile(shard, "weight shard");
    });
}

Model parseModel(const std::string& text, const fs::path& modelJson, const ShardReader& readShard) {
    Model m;
    m.file = modelJson;
    try {
        m.document = nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception& e) {
        throw ImportError(modelJson.string() + " is not valid JSON: " + e.what());
    }
    const std::string where = modelJson.string();
    try {
        if (!m.document.is_object() || !m.document.contains("modelTopology"))
            throw ImportError(where + " has no \"modelTopology\": not a TensorFlow.js model");
        m.topology = m.document.at("modelTopology");
        m.format = m.document.value("format", std::string());
        if (m.format.empty())  // older converters leave the format out
            m.format = m.topology.contains("node") ? "graph-model" : "layers-model";
        if (m.format != "graph-model" && m.format != "layers-model")
            throw ImportError(where + ": unknown model format \"" + m.format + "\"");
        if (m.document.contains("signature")) m.signature = m.document.at("signature");
        else if (m.document.contains("userDefinedMetadata") && m.document["userDefinedMetadata"].contains("signature"))
            m.signature = m.document["userDefinedMetadata"]["signature"];

        const fs::path folder = modelJson.parent_path();
        for (const nlohmann::json& group : m.document.value("weightsManifest", nlohmann::json::array())) {
            const std::string bytes = readGroup(folder, group.at("paths"), modelJson, readShard);
            size_t offset = 0;
            for (const nlohmann::json& entry : group.at("weights")) {
                Weight w = decodeWeight(entry, bytes, offset, where);
                m.weights[w.name] = std::move(w);
            }
            if (offset != bytes.size())
                throw ImportError(where + ": weight shards " + group.at("paths").dump() + " hold " +
                                  std::to_string(bytes.size()) + " bytes, the manifest describes " +
                                  std::to_string(offset));
        }
    } catch (const nlohmann::json::exception& e) {
        throw ImportError(where + " is not a well-formed TensorFlow.js model: " + e.what());
    }
    return m;
}

}  // namespace qpkg::tfjs
