#include "Plugin/Models/SAM/RenderState.h"

#include <cstring>

#include "ML/Exception.h"
#include "Plugin/ModelBase.h"

namespace ML::SAM {

namespace {

i32 intParam(const nlohmann::json& params, const char* key) {
    if (!params.is_object() || !params.contains(key)) ML_THROW(std::string("SAM model params miss \"") + key + "\"");
    const nlohmann::json& value = params.at(key);
    if (!value.is_number_integer() || value.get<i64>() < 1 || value.get<i64>() > (1 << 16))
        ML_THROW(std::string("SAM model param \"") + key + "\" should be a whole number from 1 to 65536, got: " +
                 value.dump());
    return value.get<i32>();
}

Ptr<Buffer> inputBuffer(Host* host, u64 call, u32 frame, i32 id) {
    return checkResult(host->getInputBuffer(call, frame, ResourceId{id, -1}));
}

// x, y pairs of 32-bit floats; none for a missing or empty buffer.
std::vector<float> readPoints(const Ptr<Buffer>& buffer) {
    if (!buffer || buffer->getSize() == 0) return {};
    if (!buffer->getData()) ML_THROW("points buffer data pointer is nullptr!");
    if (buffer->getSize() % 8 != 0)
        ML_THROW("points buffer size mismatch! should be divisible by 8 (sizeof(float) * 2)");
    std::vector<float> points(buffer->getSize() / sizeof(float));
    std::memcpy(points.data(), buffer->getData(), buffer->getSize());
    return points;
}

std::vector<float> readBox(const Ptr<Buffer>& buffer) {
    if (!buffer || buffer->getSize() == 0) return {};
    if (buffer->getSize() != 16)
        ML_THROW("bounding box buffer size should be 16 bytes. (4 floats). got: " + std::to_string(buffer->getSize()));
    if (!buffer->getData()) ML_THROW("bounding box buffer data pointer is nullptr!");
    std::vector<float> box(4);
    std::memcpy(box.data(), buffer->getData(), 16);
    return box;
}

}  // namespace

ArchId parseArchId(const std::string& text) {
    if (text == "vit_l") return ARCH_VIT_L;
    if (text == "hiera_large") return ARCH_HIERA_LARGE;
    ML_THROW("Unexpected SAM arch id: " + text);
}

RenderState::RenderState(Host* host, u64 call, const ModelInfo& info, bool prepareOnly)
    : host(host), call(call), info(info) {
    const nlohmann::json& params = info.params;
    const nlohmann::json arch = params.is_object() ? params.value("archId", nlohmann::json()) : nlohmann::json();
    archId = parseArchId(arch.is_string() ? arch.get<std::string>() : arch.dump());
    if (info.availableTileSizes.empty()) ML_THROW("No tile size found for model!");
    if (info.availableTileSizes.size() > 1) ML_THROW("Model only supports one tile size!");
    execH = info.availableTileSizes.front().execH;
    execW = info.availableTileSizes.front().execW;
    if (execH % 16 != 0 || execW % 16 != 0) ML_THROW("Exec shape must be divisible by 16!");
    frame = host->getFrame(call);
    outputTileExecH = intParam(params, "outputTileExecH");
    outputTileExecW = intParam(params, "outputTileExecW");
    batchSz = intParam(params, "batchSz");
    singleMaxPoints = intParam(params, "singleMaxPoints");
    rect = readROI(host, call, frame);

    const nlohmann::json openVocab = params.value("open_vocab_info", nlohmann::json());
    if (!openVocab.is_null()) {
        const Ptr<Buffer> text = inputBuffer(host, call, frame, kTextPromptBuffer);
        if (text) ML_THROW("Text prompts are not supported by this build of the plug-in; give points or a box instead");
    }

    outputMask = checkResult(host->getOutputImage(call, frame, ResourceId{0, -1}));
    if (!outputMask) ML_THROW("SAM output mask is required!");
    if (outputMask->getChannelFormat() != Image::R)
        ML_THROW("SAM output image should be single channel mask! (ML::Image::ChannelFormat::R)");
    if (!prepareOnly && !covers(outputMask->getRect(), rect)) ML_THROW("Output must fully cover output rect");
    outputColorized = checkResult(host->getOutputImage(call, frame, ResourceId{1, -1}));
    if (outputColorized && !prepareOnly && !covers(outputColorized->getRect(), rect))
        ML_THROW("Output must fully cover output rect");

    const Ptr<Buffer> positive = inputBuffer(host, call, frame, kPositivePointsBuffer);
    const Ptr<Buffer> negative = inputBuffer(host, call, frame, kNegativePointsBuffer);
    const Ptr<Buffer> box = inputBuffer(host, call, frame, kBoxBuffer);
    positivePoints = readPoints(positive);
    negativePoints = readPoints(negative);
    boxes = readBox(box);
    if (positivePoints.empty() && boxes.empty())
        ML_THROW(
            "No positive points or bbox provided! Nothing to render! (we *could* set a default bbox from the image "
            "rect, but results dont seem good enough to enable this)");

    inputImage = checkResult(host->getInputImage(call, frame, &rect, ResourceId{0, -1}));
    if (!inputImage) ML_THROW("Input image is required!");
    if (!prepareOnly && !covers(inputImage->getRect(), rect)) ML_THROW("Input must fully cover output rect");
}

}  // namespace ML::SAM
