#include "Plugin/Detection.h"

#include <cstring>

namespace ML {

void decode_detections(std::vector<Detection>& out, int keypoints, const void* bytes, float threshold, i32 originX,
                       i32 originY, float scaleX, float scaleY) {
    const u64 floats = rowFloats(keypoints);
    std::vector<float> row(floats);
    const float ox = static_cast<float>(originX), oy = static_cast<float>(originY);
    for (int r = 0; r < kDetectionRows; ++r) {
        std::memcpy(row.data(), static_cast<const unsigned char*>(bytes) + r * rowBytes(keypoints), rowBytes(keypoints));
        Detection d;
        d.x1 = row[0] * scaleX + ox;
        d.y1 = row[1] * scaleY + oy;
        d.x2 = row[2] * scaleX + ox;
        d.y2 = row[3] * scaleY + oy;
        d.score = row[4];
        d.classValue = row[5];
        for (int k = 0; k < keypoints; ++k) {
            const float* p = &row[6 + 3 * static_cast<std::size_t>(k)];
            d.keypoints.push_back({p[0] * scaleX + ox, p[1] * scaleY + oy, p[2]});
        }
        if (d.score > threshold) out.push_back(std::move(d));
    }
}

}  // namespace ML
