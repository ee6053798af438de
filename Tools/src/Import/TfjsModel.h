#pragma once
// A TensorFlow.js model as stored on disk: "model.json" (graph model or layers model) and the
// weight shards named by its weights manifest, decoded into host arrays.
//
// The shards of each manifest group are concatenated in order and the group's weights read one
// after another: float32 and int32 take 4 bytes, bool 1, string a 4-byte little-endian length and
// the bytes. A weight may be quantised: "float16" (IEEE half) or "uint8" with "scale" and "min"
// (value = q * scale + min, rounded when the original type is int32).
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qpkg::tfjs {

enum class WeightType { Float32, Int32, Bool, String };

struct Weight {
    std::string name;
    WeightType type = WeightType::Float32;
    std::vector<int64_t> shape;  // empty: a scalar
    // Float32 weights: the values. When the file stored them as IEEE halves, half holds the
    // original bits too, so that a writer can keep them in F16.
    std::vector<float> f32;
    std::vector<uint16_t> half;
    std::vector<int32_t> i32;  // Int32 and Bool (0 or 1) weights
    std::vector<std::string> strings;

    int64_t elementCount() const;
    bool storedAsHalf() const { return !half.empty(); }
};

struct Model {
    std::filesystem::path file;  // the model.json read
    std::string format;          // "graph-model" or "layers-model"
    nlohmann::json topology;     // "modelTopology"
    nlohmann::json signature;    // top-level "signature" or userDefinedMetadata.signature; null if none
    nlohmann::json document;     // the whole model.json
    std::map<std::string, Weight> weights;

    // The weight of that name; ImportError naming it when there is none.
    const Weight& weight(const std::string& name) const;
    bool hasWeight(const std::string& name) const { return weights.count(name) != 0; }
};

// Reads model.json and its shards. Bad JSON, a missing, short or over-long shard, an unknown
// data type or quantisation end in ImportError naming the file.
Model readModel(const std::filesystem::path& modelJson);

// The same from the text of model.json; readShard gives the bytes of a shard named by the
// manifest (a path beside the model file) or throws ImportError.
using ShardReader = std::function<std::string(const std::filesystem::path& shard)>;
Model parseModel(const std::string& text, const std::filesystem::path& modelJson, const ShardReader& readShard);

// A whole number of a model file: a JSON integer, or a string of one as protobuf's JSON writes
// 64-bit values. ImportError naming what for anything else (a fraction, a number out of range).
int64_t jsonInteger(const nlohmann::json& j, const std::string& what);
// A JSON number that float can hold; ImportError naming what otherwise.
float jsonFloat32(const nlohmann::json& j, const std::string& what);

// IEEE half to float and back (round to nearest even).
float halfToFloat(uint16_t h);

}  // namespace qpkg::tfjs
