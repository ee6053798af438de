// The licence-plate detector stand-in, run with ONNX Runtime on synthetic scenes: bright plates
// with dark characters on a textured background give one row each, with the drawn box and its
// corners; backgrounds, squares and bright bands give none.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

constexpr int64_t kH = 384, kW = 640, kRows = 15300, kColumns = 18, kKept = 256;
constexpr float kMaxEdgeError = 3.0f;

struct Rect {
    int x, y, w, h;  // pixels [x, x + w) x [y, y + h)
};

// A planar RGB scene: a textured background whose luminance stays in about 0.1..0.55.
struct Scene {
    std::vector<float> v = std::vector<float>(static_cast<size_t>(3 * kH * kW));

    Scene() {
        for (int64_t c = 0; c < 3; ++c)
            for (int64_t y = 0; y < kH; ++y)
                for (int64_t x = 0; x < kW; ++x) {
                    const float t = 0.32f + 0.12f * std::sin(0.21f * x + 0.7f * c) * std::cos(0.17f * y - 0.4f * c) +
                                    0.08f * std::sin(0.05f * (x - 2 * y) + c) + 0.04f * float((x * 7 + y * 13) % 5) / 4.0f;
                    at(c, y, x) = t;
                }
    }
    float& at(int64_t c, int64_t y, int64_t x) { return v[static_cast<size_t>((c * kH + y) * kW + x)]; }
    void fill(const Rect& r, const float rgb[3]) {
        for (int64_t c = 0; c < 3; ++c)
            for (int64_t y = r.y; y < r.y + r.h; ++y)
                for (int64_t x = r.x; x < r.x + r.w; ++x) at(c, y, x) = rgb[c];
    }
    // A near-white plate with a row of dark character strokes inside, clear of its edges.
    void plate(const Rect& r) {
        const float white[3] = {0.95f, 0.94f, 0.9f}, ink[3] = {0.08f, 0.08f, 0.1f};
        fill(r, white);
        const int top = r.y + r.h / 4, height = r.h - 2 * (r.h / 4);
        for (int x = r.x + 6; x + 2 < r.x + r.w - 6; x += 9) {
            fill({x, top, 2, height}, ink);                        // a vertical stroke
            if ((x / 9) % 2 == 0) fill({x, top, 6, 2}, ink);        // and a bar on every other one
        }
    }
};

struct Detection {
    std::vector<float> raw;  // rows of the detector
    float count = 0;
    std::vector<std::vector<float>> kept;  // rows after NMS scoring above 0.2
};

Detection detect(const Scene& s) {
    static Network detector = packageNetwork("lp_detection_standin_detector"), nms = packageNetwork("lp_detection_standin_nms");
    const std::vector<Tensor> out = detector.run({planar(kH, kW, s.v, ML::F16)});
    EXPECT_EQ(out.at(0).shape, (std::vector<int64_t>{1, kRows, kColumns}));
    EXPECT_EQ(out.at(1).shape, (std::vector<int64_t>{1}));
    Detection d{out[0].values, out[1].values.at(0), {}};
    const Tensor rows = nms.run1({out[0]});
    EXPECT_EQ(rows.shape, (std::vector<int64_t>{kKept, kColumns}));
    bool zerosStarted = false;
    for (int64_t i = 0; i < kKept; ++i) {
        const std::vector<float> row(rows.values.begin() + i * kColumns, rows.values.begin() + (i + 1) * kColumns);
        if (row[4] > 0.2f) {
            EXPECT_FALSE(zerosStarted) << "row " << i << " after a zero row";
            EXPECT_TRUE(d.kept.empty() || row[4] <= d.kept.back()[4]) << "best first";
            d.kept.push_back(row);
        } else {
            zerosStarted = true;
            EXPECT_EQ(row, std::vector<float>(kColumns, 0.0f)) << "row " << i;
        }
    }
    return d;
}

float edgeError(const std::vector<float>& row, const Rect& r) {
    const float want[4] = {float(r.x), float(r.y), float(r.x + r.w), float(r.y + r.h)};
    float e = 0;
    for (int k = 0; k < 4; ++k) e = std::max(e, std::abs(row[size_t(k)] - want[k]));
    return e;
}

}  // namespace

// Plates of several sizes, on and off the anchor grid, at the corners, below a bright band; and
// bright regions that are no plates (too large, too long, too thin, square), which give no row.
TEST(PlateDetector, EachDrawnPlateGivesOneRowWithItsBoxAndCornersAndNothingElseDoes) {
    const struct {
        const char* what;
        std::vector<Rect> plates, brights;  // brights: sky-coloured, not plates
    } cases[] = {
        {"one plate on the grid", {{64, 48, 128, 32}}, {}},
        {"off the grid, and the smallest size", {{203, 147, 97, 31}, {421, 301, 60, 20}}, {}},
        {"three sizes", {{30, 40, 200, 56}, {380, 60, 150, 40}, {250, 250, 64, 22}}, {}},
        {"at the picture's corners", {{0, 0, 110, 34}, {548, 350, 92, 34}}, {}},
        {"below a bright sky band", {{300, 250, 120, 36}}, {{0, 0, 640, 80}}},
        {"background only", {}, {}},
        {"a white sky band", {}, {{0, 0, 640, 80}}},
        {"a bright square", {}, {{200, 150, 80, 80}}},
        {"a huge bright region", {}, {{100, 60, 300, 200}}},
        {"a bright bar too long for a plate", {}, {{50, 200, 540, 40}}},
        {"a bright strip too thin for a plate", {}, {{300, 100, 120, 6}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Scene s;
        const float sky[3] = {0.9f, 0.93f, 0.97f};
        for (const Rect& b : c.brights) s.fill(b, sky);
        for (const Rect& p : c.plates) s.plate(p);
        const Detection d = detect(s);
        ASSERT_EQ(d.kept.size(), c.plates.size());
        if (c.plates.empty()) {
            EXPECT_EQ(d.count, 0.0f);
            EXPECT_EQ(*std::max_element(d.raw.begin(), d.raw.end()), 0.0f);
        }
        EXPECT_GE(d.count, float(c.plates.size()));
        for (const Rect& p : c.plates) {
            SCOPED_TRACE("plate at " + std::to_string(p.x) + "," + std::to_string(p.y));
            const auto row = std::find_if(d.kept.begin(), d.kept.end(),
                                          [&](const std::vector<float>& r) { return edgeError(r, p) <= kMaxEdgeError; });
            ASSERT_NE(row, d.kept.end());
            const std::vector<float>& r = *row;
            EXPECT_EQ(r[5], 0.0f) << "class";
            // Corners: top-left, top-right, bottom-left, bottom-right, each with the row's score.
            const float corners[4][2] = {{r[0], r[1]}, {r[2], r[1]}, {r[0], r[3]}, {r[2], r[3]}};
            for (size_t k = 0; k < 4; ++k)
                EXPECT_EQ(std::vector<float>(r.begin() + 6 + 3 * k, r.begin() + 9 + 3 * k),
                          (std::vector<float>{corners[k][0], corners[k][1], r[4]}))
                    << "corner " << k;
        }
    }
}
