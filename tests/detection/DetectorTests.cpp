// The detector's rows and their decoding, and the face detector of the default package (BlazeFace
// imported and wrapped to the detector's rows) on real photographs and video frames, through the
// ONNX Runtime CPU backend.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Host/Media/ImageReader.h"
#include "Host/Media/MediaSource.h"
#include "Host/OwnedImage.h"
#include "ML/Exception.h"
#include "Plugin/Detection.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/ModelContext.h"
#include "Plugin/Models/YOLO7/Detector.h"

namespace {

using ML::Detection;

// A buffer of 256 rows of K keypoints, zero but for the rows given (row index, values).
std::vector<float> rows(int keypoints, const std::vector<std::pair<int, std::vector<float>>>& set) {
    std::vector<float> buffer(ML::rowFloats(keypoints) * ML::kDetectionRows, 0.0f);
    for (const auto& [index, values] : set)
        std::copy(values.begin(), values.end(), buffer.begin() + static_cast<long>(index * ML::rowFloats(keypoints)));
    return buffer;
}

TEST(DetectionRows, SizesAndDecoding) {
    EXPECT_EQ(ML::rowBytes(5), 84u);
    EXPECT_EQ(ML::rowBytes(4), 72u);
    EXPECT_EQ(ML::detectionBufferBytes(5), 21504u);
    EXPECT_EQ(ML::detectionBufferBytes(4), 18432u);

    // Row 3 scores above the threshold, row 7 exactly at it, row 9 below; row 12 is a second
    // detection after row 3.
    const std::vector<float> face = rows(5, {{3, {10, 20, 50, 80, 0.9f, 1, 15, 25, 0.5f, 30, 25, 0.6f, 20, 40, 0.7f, 18, 60, 0.8f, 28, 60, 0.9f}},
                                             {7, {1, 1, 2, 2, 0.25f, 0}},
                                             {9, {1, 1, 2, 2, 0.1f, 0}},
                                             {12, {100, 100, 120, 140, 0.3f, 2}}});
    const std::vector<float> plate = rows(4, {{0, {8, 8, 40, 16, 0.5f, 0, 8, 8, 1, 40, 8, 1, 8, 16, 1, 40, 16, 1}}});
    const struct {
        const char* what;
        int keypoints;
        const std::vector<float>* buffer;
        float threshold;
        ML::i32 ox, oy;
        float sx, sy;
        std::vector<std::vector<float>> expected;  // x1, y1, x2, y2, score, class, first keypoint x, y, confidence
    } cases[] = {
        {"plain", 5, &face, 0.25f, 0, 0, 1, 1, {{10, 20, 50, 80, 0.9f, 1, 15, 25, 0.5f}, {100, 100, 120, 140, 0.3f, 2, 0, 0, 0}}},
        {"half size, moved", 5, &face, 0.25f, 100, 50, 0.5f, 0.5f, {{105, 60, 125, 90, 0.9f, 1, 107.5f, 62.5f, 0.5f}, {150, 100, 160, 120, 0.3f, 2, 100, 50, 0}}},
        {"x and y apart", 5, &face, 0.5f, 0, 0, 2.0f, 0.25f, {{20, 5, 100, 20, 0.9f, 1, 30, 6.25f, 0.5f}}},
        {"low threshold", 5, &face, 0.05f, 0, 0, 1, 1, {{10, 20, 50, 80, 0.9f, 1, 15, 25, 0.5f}, {1, 1, 2, 2, 0.25f, 0, 0, 0, 0}, {1, 1, 2, 2, 0.1f, 0, 0, 0, 0}, {100, 100, 120, 140, 0.3f, 2, 0, 0, 0}}},
        {"four keypoints", 4, &plate, 0.2f, 10, 0, 1, 1, {{18, 8, 50, 16, 0.5f, 0, 18, 8, 1}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<Detection> out;
        ML::decode_detections(out, c.keypoints, c.buffer->data(), c.threshold, c.ox, c.oy, c.sx, c.sy);
        ASSERT_EQ(out.size(), c.expected.size());
        for (std::size_t i = 0; i < out.size(); ++i) {
            const Detection& d = out[i];
            const std::vector<float> got{d.x1, d.y1, d.x2, d.y2, d.score, d.classValue, d.keypoints[0].x,
                                         d.keypoints[0].y, d.keypoints[0].confidence};
            for (std::size_t k = 0; k < got.size(); ++k) EXPECT_FLOAT_EQ(got[k], c.expected[i][k]) << i << " " << k;
            EXPECT_EQ(d.keypoints.size(), static_cast<std::size_t>(c.keypoints));
        }
    }
}

}  // namespace
