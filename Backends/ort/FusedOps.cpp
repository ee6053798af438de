#include "FusedOps.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ImageKernels.h"

namespace ML::OrtBackend {

namespace {

ONNXTensorElementDataType onnxType(PixelType t) {
    switch (t) {
        case PixelType::U8: return ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8;
        case PixelType::F16: return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16;
        default: return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;
    }
}

const char* typeName(PixelType t) { return t == PixelType::U8 ? "U8" : t == PixelType::F16 ? "F16" : "F32"; }

bool planar(const std::string& layout) {
    if (layout == "CHW") return true;
    if (layout == "HWC") return false;
    throw Ort::Exception("unknown layout '" + layout + "'", ORT_INVALID_ARGUMENT);
}

struct ConvertKernel {
    ImageConversion conversion;
    int threads;

    ConvertKernel(const OrtKernelInfo* info, PixelType from, PixelType to, int threads) : threads(threads) {
        const Ort::ConstKernelInfo k(info);
        conversion.from = from;
        conversion.to = to;
        conversion.fromPlanar = planar(k.GetAttribute<std::string>("from_layout"));
        conversion.toPlanar = planar(k.GetAttribute<std::string>("to_layout"));
        for (int64_t s : k.GetAttributes<int64_t>("sources")) conversion.sources.push_back(static_cast<int>(s));
        conversion.fills = k.GetAttributes<float>("fills");
        if (conversion.sources.empty() || conversion.sources.size() > 4 ||
            conversion.fills.size() != conversion.sources.size())
            throw Ort::Exception("ConvertImage: 1 to 4 output channels, with one fill each", ORT_INVALID_ARGUMENT);
    }

    void Compute(OrtKernelContext* context) {
        Ort::KernelContext ctx(context);
        const Ort::ConstValue input = ctx.GetInput(0);
        const std::vector<int64_t> shape = input.GetTensorTypeAndShapeInfo().GetShape();
        if (shape.size() != 4) throw Ort::Exception("ConvertImage: the input must be 4D", ORT_INVALID_ARGUMENT);
        const int64_t n = shape[0];
        const int64_t c = conversion.fromPlanar ? shape[1] : shape[3];
        const int64_t h = conversion.fromPlanar ? shape[2] : shape[1];
        const int64_t w = conversion.fromPlanar ? shape[3] : shape[2];
        if (c < 1 || c > 4) throw Ort::Exception("ConvertImage: 1 to 4 input channels", ORT_INVALID_ARGUMENT);
        for (int s : conversion.sources)
            if (s >= c) throw Ort::Exception("ConvertImage: a source channel is out of range", ORT_INVALID_ARGUMENT);
        ImageConversion run = conversion;
        run.fromChannels = static_cast<int>(c);
        const int64_t outC = static_cast<int64_t>(conversion.sources.size());
        const std::vector<int64_t> outShape =
            conversion.toPlanar ? std::vector<int64_t>{n, outC, h, w} : std::vector<int64_t>{n, h, w, outC};
        Ort::UnownedValue output = ctx.GetOutput(0, outShape.data(), outShape.size());
        convertImage(run, input.GetTensorRawData(), output.GetTensorMutableRawData(), n, h, w, threads);
    }
};

struct ConvertOp : Ort::CustomOpBase<ConvertOp, ConvertKernel> {
    PixelType from, to;
    std::string name;
    int threads;

    ConvertOp(PixelType from, PixelType to, int threads)
        : from(from), to(to), name(std::string("ConvertImage_") + typeName(from) + "_" + typeName(to)), threads(threads) {}

    void* CreateKernel(const OrtApi&, const OrtKernelInfo* info) const { return new ConvertKernel(info, from, to, threads); }
    const char* GetName() const { return name.c_str(); }
    size_t GetInputTypeCount() const { return 1; }
    ONNXTensorElementDataType GetInputType(size_t) const { return onnxType(from); }
    size_t GetOutputTypeCount() const { return 1; }
    ONNXTensorElementDataType GetOutputType(size_t) const { return onnxType(to); }
};

struct ResizeKernel {
    PixelType type;
    bool planar;
    int threads;

    ResizeKernel(const OrtKernelInfo* info, PixelType type, int threads)
        : type(type), planar(::ML::OrtBackend::planar(Ort::ConstKernelInfo(info).GetAttribute<std::string>("layout"))),
          threads(threads) {}

    void Compute(OrtKernelContext* context) {
        Ort::KernelContext ctx(context);
        const Ort::ConstValue input = ctx.GetInput(0);
        const Ort::ConstValue target = ctx.GetInput(1);
        const std::vector<int64_t> shape = input.GetTensorTypeAndShapeInfo().GetShape();
        if (shape.size() != 4 || target.GetTensorTypeAndShapeInfo().GetElementCount() != 4)
            throw Ort::Exception("ResizeImage: a 4D input and a target shape of 4 values", ORT_INVALID_ARGUMENT);
        // The target shape is N, C, H, W whatever the layout; only H and W are used.
        const int64_t* wanted = target.GetTensorData<int64_t>();
        const int64_t outH = wanted[2], outW = wanted[3];
        if (outH < 0 || outW < 0) throw Ort::Exception("ResizeImage: negative target size", ORT_INVALID_ARGUMENT);
        const int64_t n = shape[0];
        const int64_t c = planar ? shape[1] : shape[3];
        const int64_t h = planar ? shape[2] : shape[1];
        const int64_t w = planar ? shape[3] : shape[2];
        const std::vector<int64_t> outShape =
            planar ? std::vector<int64_t>{n, c, outH, outW} : std::vector<int64_t>{n, outH, outW, c};
        Ort::UnownedValue output = ctx.GetOutput(0, outShape.data(), outShape.size());
        resizeImage(type, planar, input.GetTensorRawData(), output.GetTensorMutableRawData(), n, c, h, w, outH, outW,
                    threads);
    }
};

struct ResizeOp : Ort::CustomOpBase<ResizeOp, ResizeKernel> {
    PixelType type;
    std::string name;
    int threads;

    ResizeOp(PixelType type, int threads) : type(type), name(std::string("ResizeImage_") + typeName(type)), threads(threads) {}

    void* CreateKernel(const OrtApi&, const OrtKernelInfo* info) const { return new ResizeKernel(info, type, threads); }
    const char* GetName() const { return name.c_str(); }
    size_t GetInputTypeCount() const { return 2; }
    ONNXTensorElementDataType GetInputType(size_t index) const {
        return index == 0 ? onnxType(type) : ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64;
    }
    size_t GetOutputTypeCount() const { return 1; }
    ONNXTensorElementDataType GetOutputType(size_t) const { return onnxType(type); }
};

// The domain and its operators live as long as the process: sessions refer to them.
struct Registry {
    std::vector<std::unique_ptr<ConvertOp>> ops;
    std::vector<std::unique_ptr<ResizeOp>> resizes;
    Ort::CustomOpDomain domain{kFusedDomain};

    explicit Registry(int threads) {
        for (PixelType from : {PixelType::U8, PixelType::F16, PixelType::F32})
            for (PixelType to : {PixelType::U8, PixelType::F16, PixelType::F32}) {
                ops.push_back(std::make_unique<ConvertOp>(from, to, threads));
                domain.Add(ops.back().get());
            }
        for (PixelType t : {PixelType::U8, PixelType::F16, PixelType::F32}) {
            resizes.push_back(std::make_unique<ResizeOp>(t, threads));
            domain.Add(resizes.back().get());
        }
    }
};

}  // namespace

void addFusedOperators(Ort::SessionOptions& options, int threads) {
    static Registry* registry = new Registry(threads < 1 ? 1 : threads);
    options.Add(registry->domain);
}

}  // namespace ML::OrtBackend
