#pragma once
// Device tensors' contents as floats, whatever their float type (F16 or F32).
#include <Imath/half.h>

#include <vector>

#include "Plugin/ModelContext.h"

namespace tensorvalues {

inline void upload(ML::BackendTensor& t, const std::vector<float>& values) {
    if (t.getDataType() == ML::F16) {
        std::vector<Imath::half> halves(values.begin(), values.end());
        t.upload(halves.data());
    } else {
        t.upload(values.data());
    }
}

inline std::vector<float> download(ML::BackendTensor& t) {
    ML::u64 count = 1;
    for (ML::u64 extent : t.getShape()) count *= extent;
    if (t.getDataType() == ML::F16) {
        std::vector<Imath::half> halves(count);
        t.download(halves.data());
        return std::vector<float>(halves.begin(), halves.end());
    }
    std::vector<float> values(count);
    t.download(values.data());
    return values;
}

}  // namespace tensorvalues
