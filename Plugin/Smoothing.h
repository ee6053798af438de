#pragma once
// Temporal Gaussian weights for tracks and per-frame head parameters.
#include <vector>

namespace ML {

// Weights that sum to 1, centred on the middle entry.
using GaussianKernel = std::vector<float>;

// Odd window of at least 3 entries: ceil(sigma * 3.5), made odd by adding 1.
int gaussianWindow(float sigma);
// size entries exp(-k^2 / (2 sigma^2)) for k from -(size / 2), normalised; size -1 takes
// gaussianWindow(sigma).
GaussianKernel makeGaussianKernel(float sigma, int size = -1);
// Sum of value * weight, first to last; values and kernel must have the same length.
float weightedSum(const std::vector<float>& values, const GaussianKernel& kernel);
// Weighted mean of angles on the circle, in radians.
float weightedAngle(const std::vector<float>& angles, const GaussianKernel& kernel);

}  // namespace ML
