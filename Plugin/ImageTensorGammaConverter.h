#pragma once
// Re-encodes a tensor from one gamma to another on the device with the package's network
// "imgcvt/CONVERT_GAMMA_<type>". Each slot has its own flat work tensor and its own two gamma scalars, made
// the first time the slot converts something. No lock: one thread at a time.
#include <memory>
#include <vector>

#include "ML/ImageImp.h"
#include "Plugin/ModelContext.h"

namespace ML {

class ImageTensorGammaConverter {
public:
    explicit ImageTensorGammaConverter(std::shared_ptr<ModelContext> modelContext);

    // The description gives channel format, size and data type (F16 or F32, no alpha) of the tensors that
    // later calls hand in; each holds `batch` images.
    void init(const Ptr<Image>& description, u32 slots, u32 batch);

    // Converts `tensor` in place. Nothing happens unless both gammas are above 0 and differ by more than
    // 1e-5. The tensor must hold channels x height x width x batch elements of the data type.
    void convert(const std::shared_ptr<BackendTensor>& tensor, float fromGamma, float toGamma, u32 slot);

    bool isInitialised() const { return initialised; }
    i64 getElementCount() const { return elementCount; }
    // The slot's work tensor, or null while the slot has converted nothing.
    std::shared_ptr<BackendTensor> slotWorkTensor(u32 slot) const;

private:
    std::shared_ptr<ModelContext> modelContext;
    u32 dataType = F32;
    std::shared_ptr<BackendModel> network;
    bool initialised = false;
    u32 batch = 0;
    i64 elementCount = 0;
    std::vector<std::shared_ptr<BackendTensor>> workTensors;
    std::vector<std::shared_ptr<BackendTensor>> sourceGammaTensors;
    std::vector<std::shared_ptr<BackendTensor>> targetGammaTensors;
};

}  // namespace ML
