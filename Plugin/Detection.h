#pragma once
// Detections as the detector's rows give them, and the decoding of the rows into image
// coordinates. A row is (K + 2) * 3 little-endian floats: box x1, y1, x2, y2, score, class value,
// then x, y and confidence of K keypoints, all positions in execution-size pixels. A frame's
// buffer always holds 256 rows; rows without a detection are zero.
#include <cstddef>
#include <vector>

#include "ML/Types.h"

namespace ML {

struct Keypoint {
    float x = 0, y = 0, confidence = 0;
};

struct Detection {
    float x1 = 0, y1 = 0, x2 = 0, y2 = 0;
    float score = 0;
    float classValue = 0;  // copied from the row, never interpreted
    std::vector<Keypoint> keypoints;
};

constexpr int kDetectionRows = 256;
constexpr u64 rowFloats(int keypoints) { return static_cast<u64>(keypoints + 2) * 3; }
constexpr u64 rowBytes(int keypoints) { return rowFloats(keypoints) * 4; }
constexpr u64 detectionBufferBytes(int keypoints) { return rowBytes(keypoints) * kDetectionRows; }

// Appends the rows of `bytes` (256 rows of K keypoints) whose score is above `threshold`, in row
// order, with positions scaled by (scaleX, scaleY) and moved by (originX, originY).
void decode_detections(std::vector<Detection>& out, int keypoints, const void* bytes, float threshold, i32 originX,
                       i32 originY, float scaleX, float scaleY);

}  // namespace ML
