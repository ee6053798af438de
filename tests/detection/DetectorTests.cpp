// The detector's rows and their decoding, and the face detector of the default package (BlazeFace
// imported and wrapped to the detector's rows) on real photographs and video frames, through the
// ONNX Runtime CPU backend.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/Media/ImageReader.h"
#include "Host/Media/MediaSource.h"
#include "Host/OwnedImage.h"
#include "ML/Exception.h"
#include "Plugin/Detection.h"
#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/ModelContext.h"
#include "Plugin/Models/YOLO7/Detector.h"
#include "util/ExpectMessage.h"
#include "util/FramePicture.h"
#include "util/PackageContext.h"

namespace {

using ML::Detection;
using testpkg::mediaDir;
using testpkg::picture;

// A buffer of 256 rows of K keypoints, zero but for the rows given (row index, values).
std::vector<float> rows(int keypoints, const std::vector<std::pair<int, std::vector<float>>>& set) {
    std::vector<float> buffer(ML::rowFloats(keypoints) * ML::kDetectionRows, 0.0f);
    for (const auto& [index, values] : set)
        std::copy(values.begin(), values.end(), buffer.begin() + static_cast<long>(index * ML::rowFloats(keypoints)));
    return buffer;
}

TEST(DetectionRows, Decoding) {
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

// The package's face detector, as photo restoration and heads reach it.
using FaceDetector = testpkg::PackageSuite;

QMedia::Frame videoFrame(const std::string& file, int n) { return QMedia::MediaSource::open(mediaDir / file)->read(n); }

// Boxes measured once by eye (brow to chin, cheek to cheek) in the pictures' own pixels, found
// through the plug-in's tensors and mapped back to the picture (the networks alone, on more
// pictures, are measured in the tools tests). BlazeFace boxes are square in its 256x256 input, so on
// stretched 4:3 frames they come out wider: the tolerance per edge is larger there. Weak hits (0.25
// to 0.5) on the crowd are allowed, up to a count.
TEST_F(FaceDetector, FindsTheFacesMeasuredByEye) {
    const struct {
        const char* what;
        QMedia::Frame frame;
        std::vector<std::vector<float>> faces;  // x1, y1, x2, y2
        float tolerance;
        std::size_t weakAllowed;
    } cases[] = {
        {"messi5", QMedia::readImage(mediaDir / "messi5.jpg"), {{212, 88, 258, 132}}, 15, 1},
        {"Megamind 120", videoFrame("Megamind.avi", 120), {{392, 190, 560, 355}}, 35, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<Detection> found;
        ML::run_detector(*common, found, "fd0", picture(c.frame));
        std::vector<Detection> confident;
        for (const Detection& d : found)
            if (d.score >= 0.5f) confident.push_back(d);
        EXPECT_LE(found.size() - confident.size(), c.weakAllowed);
        ASSERT_EQ(confident.size(), c.faces.size());
        for (std::size_t i = 0; i < confident.size(); ++i) {
            const Detection& d = confident[i];
            const std::vector<float>& e = c.faces[i];
            const float box[] = {d.x1, d.y1, d.x2, d.y2};
            for (int k = 0; k < 4; ++k) EXPECT_NEAR(box[k], e[k], c.tolerance) << k;
            ASSERT_EQ(d.keypoints.size(), 5u);
            // Eyes above the nose, the nose above the mouth, left eye left of the right one.
            EXPECT_LT(d.keypoints[0].x, d.keypoints[1].x);
            EXPECT_LT(std::max(d.keypoints[0].y, d.keypoints[1].y), d.keypoints[2].y);
            EXPECT_LT(d.keypoints[2].y, d.keypoints[3].y);
        }
    }
}

TEST_F(FaceDetector, Refusals) {
    expectErrorWith([] { ML::YOLO7::Detector(context, "lp0"); }, "TODO: other ids..");
    ML::YOLO7::DetectorTensors tensors(*context, context->getPrecisionDataType(), 768, 1280, 5);
    auto detector = context->loadModel("fd0_detector");
    auto nms = context->loadModel("fd0_nms");
    auto image = picture(QMedia::readImage(mediaDir / "messi5.jpg"));
    expectErrorWith([&] { ML::YOLO7::detectorPass(common->getConverter(), tensors, *detector, *nms, image, nullptr, 0); },
                    "NMS detections buffer nullptr??");
}

// What one host call of the cache test does: the rows of a frame, through the host's cache.
struct CacheProbe {
    ML::YOLO7::DetectorTensors* tensors;
    ML::BackendModel *detector, *nms;
    ML::ImageTensorConverter* converter;
    ML::Ptr<ML::Image> image;
    ML::u32 frame = 4;
    int passes = 0;
    std::vector<unsigned char> rows;
};
CacheProbe* g_probe = nullptr;

ML::i32 rowsInOneCall(ML::Host* host, ML::u64 call) {
    CacheProbe& p = *g_probe;
    const ML::Ptr<ML::Buffer> buffer =
        ML::YOLO7::cachedDetectionRows(host, call, p.frame, "fd0", 5, [&](void* rows, ML::u64 bytes) {
            ++p.passes;
            ML::YOLO7::detectorPass(*p.converter, *p.tensors, *p.detector, *p.nms, p.image, rows, bytes);
        });
    const auto* bytes = static_cast<const unsigned char*>(buffer->getData());
    p.rows.assign(bytes, bytes + buffer->getSize());
    return 0;
}

// A frame's rows are made once and read back from the host's cache by later calls; after the
// host drops them they are made again, the same.
TEST_F(FaceDetector, CachedRowsAreReusedAndRemadeAfterEviction) {
    ML::YOLO7::DetectorTensors tensors(*context, context->getPrecisionDataType(), 768, 1280, 5);
    auto detector = context->loadModel("fd0_detector");
    auto nms = context->loadModel("fd0_nms");
    CacheProbe probe{&tensors, detector.get(), nms.get(), &common->getConverter(),
                     picture(QMedia::readImage(mediaDir / "messi5.jpg"))};
    g_probe = &probe;
    QHost::Host host;
    const auto call = [&] {
        auto settings = std::make_shared<QHost::CallSettings>(4, 6);
        EXPECT_EQ(host.run(&rowsInOneCall, settings), 0);
        return probe.rows;
    };
    const std::vector<unsigned char> first = call();
    ASSERT_EQ(first.size(), ML::detectionBufferBytes(5));
    EXPECT_EQ(call(), first);
    EXPECT_EQ(probe.passes, 1);
    EXPECT_TRUE(host.cache().evict("nms_out_4_fd0"));
    EXPECT_EQ(call(), first);
    EXPECT_EQ(probe.passes, 2);
    std::vector<Detection> faces;
    ML::decode_detections(faces, 5, first.data(), 0.5f, 0, 0, 548.0f / 1280, 342.0f / 768);
    EXPECT_EQ(faces.size(), 1u);
    g_probe = nullptr;
}

}  // namespace
