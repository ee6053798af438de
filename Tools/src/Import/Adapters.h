#pragma once
// Adapters: an imported network wrapped into the contract of a model family, in one graph.
//
// A family fixes what the plug-in feeds and reads: one image input and one image output, their
// element type, layout, channels and value range. An adapter says how one network differs: the
// value ranges it takes and gives, its scale, a fixed execution size (the image is resized to it
// and the result back), and an area downscale before it (a same-size enhancement made from an
// upscaler). The adapter's nodes run in F32:
//
//   input -> F32 -> N,C,H,W -> network input range -> [area downscale] -> [resize to the fixed
//   size] -> network -> [resize back | crop to the family's size] -> family range, clipped ->
//   family layout -> family type -> output
//
// The face-detector family (FaceDetector.h) has its own graph: a detector adapter gives the
// network's square input size (fixedHeight), its input range and its anchor levels; the NMS
// adapter writes the family's suppression network, which holds no weights of the network.
#include <string>
#include <vector>

#include "FaceDetector.h"
#include "FaceEmbedding.h"
#include "Importer.h"

namespace qpkg::tfjs {

struct FamilyContract {
    std::string family;  // "upscaling", "enhancement", "face-detector", "face-embedding"
    std::string inputName = "image";
    std::string outputName = "output";
    ML::u32 type = ML::F16;     // U8, F16 or F32, for input and output alike
    bool channelsLast = false;  // N,H,W,C instead of N,C,H,W
    int64_t channels = 3;
    float low = 0.0f, high = 1.0f;  // value range of input and output; outputs are clipped to it
    bool sameSize = false;          // the output has the input's size (otherwise input x scale)
};

struct Adapter {
    std::string name;  // "esrgan-medium-x2"
    std::string family;
    float inLow = 0.0f, inHigh = 1.0f;        // what the network takes for the family's low..high
    float outLow = 0.0f, outHigh = 1.0f;      // what the network gives for the family's low..high
    int64_t scale = 1;                        // network output extent / network input extent
    int64_t fixedHeight = 0, fixedWidth = 0;  // execution size; 0: the image's own
    int64_t areaDownscale = 1;                // area-average by this factor before the network
    std::string output;                       // network output to take; empty: its only 4-D one
    std::vector<AnchorLevel> anchors;         // face detectors: the anchor levels, finest first
    bool nms = false;                         // face detectors: the suppression network instead
};

// The families and their adapters, one table per family.
const std::vector<FamilyContract>& familyContracts();
const std::vector<Adapter>& adapters();

// The adapter of that name, or ImportError listing the names.
const Adapter& adapterNamed(const std::string& name);
const FamilyContract& familyOf(const Adapter& adapter);

// The network imported behind the adapter: inputs and outputs are the family's.
onnx::ModelProto importAdapted(const Model& model, const Adapter& adapter, const ImportOptions& options = {});

}  // namespace qpkg::tfjs
