#include "Plugin/Smoothing.h"

#include <cmath>

#include "ML/Exception.h"

namespace ML {

int gaussianWindow(float sigma) {
    int window = static_cast<int>(std::ceil(sigma * 3.5f));
    if (window % 2 == 0) ++window;
    return window < 3 ? 3 : window;
}

GaussianKernel makeGaussianKernel(float sigma, int size) {
    if (size == -1) size = gaussianWindow(sigma);
    GaussianKernel kernel;
    if (size <= 0) return kernel;
    kernel.reserve(static_cast<size_t>(size));
    const float twoSigmaSq = sigma * sigma + sigma * sigma;
    float sum = 0.0f;
    for (int i = 0, k = -(size / 2); i < size; ++i, ++k) {
        const float w = std::exp(-static_cast<float>(k * k) / twoSigmaSq);
        kernel.push_back(w);
        sum += w;
    }
    for (float& w : kernel) w /= sum;
    return kernel;
}

float weightedSum(const std::vector<float>& values, const GaussianKernel& kernel) {
    if (values.size() != kernel.size()) ML_THROW("!!");
    float sum = 0.0f;
    for (size_t i = 0; i < values.size(); ++i) sum += values[i] * kernel[i];
    return sum;
}

float weightedAngle(const std::vector<float>& angles, const GaussianKernel& kernel) {
    std::vector<float> cosines, sines;
    cosines.reserve(angles.size());
    sines.reserve(angles.size());
    for (float angle : angles) {
        cosines.push_back(std::cos(angle));
        sines.push_back(std::sin(angle));
    }
    return std::atan2(weightedSum(sines, kernel), weightedSum(cosines, kernel));
}

}  // namespace ML
