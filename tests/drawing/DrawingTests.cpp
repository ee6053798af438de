// Anti-aliased ovals and polygons are compared with the area of each pixel that the shape really
// covers, measured here by dense supersampling; prompt marks and tile outlines are checked pixel by
// pixel; the smoothing helpers against their closed forms.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "Host/OwnedImage.h"
#include "ML/Exception.h"
#include "Plugin/ImageDrawUtil.h"
#include "Plugin/Smoothing.h"
#include "drawing/MaskSampling.h"
#include "util/ExpectMessage.h"
#include "util/RawDescription.h"

namespace {

using ML::Image;
using ML::Oval;
using ML::Rect;
using ML::u32;
using masksampling::coverageAt;
using masksampling::insideOval;
using masksampling::insidePolygon;
using masksampling::maskImage;
using masksampling::pixel;
using masksampling::sampledArea;

constexpr double kPi = 3.14159265358979323846;

// Pixel errors of a drawing. Where outlines meet at an angle (a polygon's vertex, two ovals'
// outlines crossing) the distance-based coverage is known to be rougher, so those pixels are
// bounded apart from the rest.
struct Errors {
    double mean = 0.0;  // over the pixels the shape or the drawing touches, away from such features
    double max = 0.0;
    double featureMax = 0.0;
    double drawnArea = 0.0;
    double trueArea = 0.0;
    int touched = 0;
    int features = 0;
};

using Inside = std::function<bool(double, double)>;
using NearFeature = std::function<bool(int, int)>;

Errors compare(const QHost::OwnedImage& image, const Inside& inside, const NearFeature& nearFeature = {}) {
    Errors e;
    double sum = 0.0;
    const Rect r = image.getRect();
    // One step of U8 is allowed for the truncation.
    const double slack = image.getDataType() == ML::U8 ? 1.0 / 255.0 : 0.0;
    for (int y = r.y0; y < r.y1; ++y)
        for (int x = r.x0; x < r.x1; ++x) {
            const double truth = sampledArea(x, y, inside);
            const double drawn = coverageAt(image, x, y);
            e.trueArea += truth;
            e.drawnArea += drawn;
            if (truth == 0.0 && drawn == 0.0) continue;
            const double err = std::max(0.0, std::abs(truth - drawn) - slack);
            if (nearFeature && nearFeature(x, y)) {
                e.featureMax = std::max(e.featureMax, err);
                ++e.features;
                continue;
            }
            sum += err;
            e.max = std::max(e.max, err);
            ++e.touched;
        }
    if (e.touched > 0) e.mean = sum / e.touched;
    return e;
}

// The outline of the shape passes through the 3 x 3 pixels around (x, y).
bool outlineNear(const Inside& inside, int x, int y) {
    constexpr int n = 24;
    bool in = false, out = false;
    for (int j = 0; j < 3 * n; ++j)
        for (int i = 0; i < 3 * n; ++i) {
            (inside(x - 1 + (i + 0.5) / n, y - 1 + (j + 0.5) / n) ? in : out) = true;
            if (in && out) return true;
        }
    return false;
}

// A vertex lies within reach pixels of pixel (x, y).
bool vertexNear(const std::vector<float>& xy, int x, int y, int reach = 1) {
    for (size_t i = 0; i + 1 < xy.size(); i += 2)
        if (xy[i] >= x - reach && xy[i] < x + 1 + reach && xy[i + 1] >= y - reach && xy[i + 1] < y + 1 + reach)
            return true;
    return false;
}

const u32 kTypes[] = {ML::U8, ML::F16, ML::F32};

// ---- Ovals ----

struct OvalCase {
    const char* name;
    Rect image;
    std::vector<Oval> ovals;
    double meanError;
    double maxError;          // per pixel, away from outline crossings
    double crossingMaxError;  // per pixel where two outlines cross
    double areaShare = 0.01;  // allowed error of the whole drawn area, as a share of the true one
};

// The coverage follows the radial distance |p - centre| - r(direction), which departs from the
// true distance as an oval gets more elongated: the bounds widen for the elongated ovals, most at
// their pointed ends. Corner distances cannot see an outline bulging between two corners, which
// costs most on ovals of a radius near one pixel. The small view cut by its border has hardly any
// inner pixels to average.
const std::vector<OvalCase>& ovalCases() {
    static const std::vector<OvalCase> cases = {
        {"axis aligned", {0, 0, 24, 20}, {{11.3f, 9.7f, 7.4f, 5.2f, 0.0f}}, 0.01, 0.08, 0.0},
        {"circle", {0, 0, 24, 24}, {{12.0f, 12.0f, 8.5f, 8.5f, 0.0f}}, 0.01, 0.08, 0.0},
        {"rotated", {0, 0, 30, 26}, {{14.6f, 12.2f, 10.5f, 4.3f, 0.7f}}, 0.01, 0.12, 0.0},
        {"rotated steeply", {0, 0, 30, 30}, {{15.1f, 14.8f, 11.0f, 6.0f, -1.9f}}, 0.01, 0.08, 0.0},
        {"thin", {0, 0, 30, 16}, {{15.2f, 8.4f, 9.0f, 2.2f, 0.3f}}, 0.02, 0.15, 0.0},
        {"thin upright", {0, 0, 12, 30}, {{6.3f, 15.2f, 1.6f, 11.0f, 0.0f}}, 0.035, 0.35, 0.0},
        {"union of two", {0, 0, 30, 22}, {{10.0f, 10.5f, 6.5f, 5.0f, 0.2f}, {17.3f, 11.2f, 6.0f, 7.5f, -0.4f}}, 0.01,
         0.08, 0.2},
        // Pixels inside one circle and crossed by the other's outline are full.
        {"one on the other's edge", {0, 0, 24, 20}, {{10.0f, 10.0f, 8.0f, 8.0f, 0.0f}, {15.0f, 10.0f, 3.3f, 3.3f, 0.0f}},
         0.01, 0.08, 0.2},
        {"partly outside", {0, 0, 16, 14}, {{2.5f, 12.0f, 6.2f, 4.1f, 0.5f}, {15.0f, 1.0f, 3.3f, 5.5f, 0.0f}}, 0.01,
         0.08, 0.0},
        {"radius about 1", {0, 0, 16, 10}, {{5.1f, 5.5f, 1.35f, 0.9f, 0.0f}, {11.9f, 4.5f, 1.35f, 0.7f, 0.0f}}, 0.08,
         0.35, 0.0, 0.25},
        {"view with origin", {37, -12, 61, 9}, {{48.4f, -2.3f, 8.2f, 5.6f, 0.9f}}, 0.01, 0.08, 0.0},
        {"origin and partly outside", {100, 200, 116, 212}, {{99.0f, 205.5f, 5.0f, 3.0f, 0.25f}}, 0.015, 0.08, 0.0},
    };
    return cases;
}

TEST(FillOvals, CoverageMatchesSampledArea) {
    for (const OvalCase& c : ovalCases()) {
        for (u32 type : kTypes) {
            SCOPED_TRACE(std::string(c.name) + ", type " + std::to_string(type));
            auto image = maskImage(c.image, type);
            ML::fillOvals(image, c.ovals);
            const Inside inside = [&](double x, double y) {
                for (const Oval& o : c.ovals)
                    if (insideOval(o, x, y)) return true;
                return false;
            };
            const NearFeature crossing = [&](int x, int y) {
                int outlines = 0;
                for (const Oval& o : c.ovals)
                    if (outlineNear([&](double px, double py) { return insideOval(o, px, py); }, x, y)) ++outlines;
                return outlines > 1;
            };
            const Errors e = compare(*image, inside, crossing);
            EXPECT_GT(e.touched, 0);
            EXPECT_LT(e.mean, c.meanError);
            EXPECT_LT(e.max, c.maxError);
            EXPECT_LE(e.featureMax, c.crossingMaxError);
            EXPECT_NEAR(e.drawnArea, e.trueArea, c.areaShare * e.trueArea + 0.5);
        }
    }
}

TEST(FillOvals, OvalSmallerThanAPixelStillShows) {
    // Centred in a pixel, touching none of its corners.
    const std::vector<Oval> ovals = {{5.5f, 4.5f, 0.3f, 0.25f, 0.4f}};
    for (u32 type : kTypes) {
        SCOPED_TRACE(type);
        auto image = maskImage({0, 0, 10, 10}, type);
        ML::fillOvals(image, ovals);
        const float drawn = coverageAt(*image, 5, 4);
        EXPECT_GT(drawn, 0.0f);
        EXPECT_NEAR(drawn, kPi * 0.3 * 0.25, 0.15);
        for (int y = 0; y < 10; ++y)
            for (int x = 0; x < 10; ++x)
                if (x != 5 || y != 4) {
                    EXPECT_EQ(coverageAt(*image, x, y), 0.0f) << x << "," << y;
                }
    }
}

TEST(FillOvals, ClearsTheImageAndDrawsNothingForOvalsOutside) {
    const std::vector<std::vector<Oval>> outside = {
        {{-20.0f, 5.0f, 4.0f, 3.0f, 0.0f}},
        {{5.0f, 40.0f, 4.0f, 3.0f, 1.0f}},
        {{30.0f, 30.0f, 2.0f, 2.0f, 0.0f}},
        {},
    };
    for (const auto& ovals : outside) {
        auto image = maskImage({0, 0, 12, 10}, ML::F32);
        for (int y = 0; y < 10; ++y)
            for (int x = 0; x < 12; ++x) image->at<float>(x, y) = 0.5f;
        ML::fillOvals(image, ovals);
        for (int y = 0; y < 10; ++y)
            for (int x = 0; x < 12; ++x) ASSERT_EQ(image->at<float>(x, y), 0.0f) << x << "," << y;
        if (!ovals.empty()) {
            EXPECT_TRUE(ML::ovalCoverage(ovals, 12, 10).empty());
        }
    }
}

TEST(FillOvals, U8TruncatesValueTimes255) {
    const std::vector<Oval> ovals = {{8.3f, 7.1f, 5.6f, 3.9f, 0.6f}};
    auto u8 = maskImage({0, 0, 16, 14}, ML::U8);
    auto f32 = maskImage({0, 0, 16, 14}, ML::F32);
    ML::fillOvals(u8, ovals);
    ML::fillOvals(f32, ovals);
    int partial = 0;
    for (int y = 0; y < 14; ++y)
        for (int x = 0; x < 16; ++x) {
            const float v = f32->at<float>(x, y);
            if (v > 0.0f && v < 1.0f) ++partial;
            EXPECT_EQ(u8->at<std::uint8_t>(x, y), static_cast<int>(v * 255.0f)) << x << "," << y;
        }
    EXPECT_GT(partial, 10);
}

TEST(OvalCoverage, SpansAreOrderedDisjointAndMerged) {
    const std::vector<Oval> ovals = {{10.0f, 10.5f, 6.5f, 5.0f, 0.2f}, {17.3f, 11.2f, 6.0f, 7.5f, -0.4f}};
    const auto spans = ML::ovalCoverage(ovals, 30, 22);
    ASSERT_FALSE(spans.empty());
    for (size_t i = 0; i < spans.size(); ++i) {
        EXPECT_LT(spans[i].x0, spans[i].x1);
        EXPECT_GT(spans[i].value, 0.0f);
        EXPECT_GE(spans[i].x0, 0);
        EXPECT_LE(spans[i].x1, 30);
        if (i == 0) continue;
        const auto& p = spans[i - 1];
        const auto& s = spans[i];
        ASSERT_TRUE(p.y < s.y || (p.y == s.y && p.x1 <= s.x0)) << i;
        EXPECT_FALSE(p.y == s.y && p.x1 == s.x0 && p.value == s.value) << "unmerged span " << i;
    }
    // The interior of a row is one span.
    int fullSpansInRow10 = 0;
    for (const auto& s : spans)
        if (s.y == 10 && s.value == 1.0f) ++fullSpansInRow10;
    EXPECT_EQ(fullSpansInRow10, 1);
}

// ---- Polygons ----

struct PolygonCase {
    const char* name;
    Rect image;
    std::vector<float> xy;             // the vertices of all polygons
    double featureMaxError;            // per pixel near a vertex or where two outlines cross
    int vertexReach = 1;               // pixels around a vertex that count as near it (more for sharp tips)
    std::vector<ML::i32> counts = {};  // vertices of each polygon; empty: one polygon
    double maxError = 0.08;            // per pixel elsewhere
};

const std::vector<PolygonCase>& polygonCases() {
    static const std::vector<PolygonCase> cases = {
        {"axis aligned", {0, 0, 20, 16}, {3.25f, 2.5f, 15.75f, 2.5f, 15.75f, 11.3f, 3.25f, 11.3f}, 0.25},
        {"on pixel borders", {0, 0, 12, 12}, {2.0f, 3.0f, 9.0f, 3.0f, 9.0f, 8.0f, 2.0f, 8.0f}, 0.0},
        {"rotated", {0, 0, 24, 24}, {12.3f, 2.2f, 21.1f, 11.7f, 11.6f, 20.4f, 2.9f, 11.1f}, 0.25},
        {"plate", {0, 0, 40, 20}, {4.6f, 6.2f, 33.8f, 3.1f, 35.2f, 12.9f, 5.7f, 15.4f}, 0.4},
        {"concave", {0, 0, 24, 20}, {2.4f, 2.6f, 20.7f, 9.3f, 2.2f, 17.5f, 9.6f, 9.8f}, 0.6, 2},
        {"partly outside", {0, 0, 16, 12}, {-4.3f, -3.2f, 9.6f, 1.4f, 7.2f, 18.5f, -6.1f, 8.8f}, 0.4},
        {"view with origin", {50, -30, 70, -12}, {53.4f, -27.1f, 67.2f, -25.6f, 65.5f, -14.4f, 54.1f, -16.8f}, 0.4},
        {"many vertices in a row", {0, 0, 20, 12}, {2.2f, 4.1f, 6.3f, 4.6f, 10.5f, 4.2f, 17.4f, 4.8f, 17.1f, 8.6f,
                                                    2.6f, 8.3f}, 0.4},
        // Pixels inside one and crossed by the other's edge are full.
        {"union of two", {0, 0, 24, 20}, {2.3f, 2.2f, 13.6f, 3.1f, 12.8f, 12.4f, 3.1f, 11.7f,
                                          8.5f, 6.4f, 19.2f, 5.3f, 20.1f, 15.6f, 9.2f, 16.3f}, 0.4, 1, {4, 4}},
        // A point and a segment before a quadrilateral: the quadrilateral still finds its coordinates.
        {"fewer than three vertices skipped", {0, 0, 14, 12},
         {1.0f, 1.0f, 2.0f, 2.0f, 11.0f, 11.0f, 3.5f, 2.5f, 10.5f, 2.5f, 10.5f, 8.5f, 3.5f, 8.5f}, 0.25, 1, {1, 2, 4}, 0.02},
    };
    return cases;
}

TEST(FillPolygons, CoverageMatchesSampledArea) {
    for (const PolygonCase& c : polygonCases()) {
        const std::vector<ML::i32> counts = c.counts.empty() ? std::vector{static_cast<ML::i32>(c.xy.size() / 2)} : c.counts;
        std::vector<std::vector<float>> drawn;  // the polygons of three or more vertices
        for (size_t p = 0, at = 0; p < counts.size(); at += 2 * size_t(counts[p++]))
            if (counts[p] >= 3) drawn.emplace_back(c.xy.begin() + long(at), c.xy.begin() + long(at + 2 * size_t(counts[p])));
        const Inside inside = [&](double x, double y) {
            return std::any_of(drawn.begin(), drawn.end(), [&](const auto& xy) { return insidePolygon(xy, x, y); });
        };
        const NearFeature feature = [&](int x, int y) {
            int outlines = 0;
            for (const auto& xy : drawn) {
                if (vertexNear(xy, x, y, c.vertexReach)) return true;
                outlines += outlineNear([&](double px, double py) { return insidePolygon(xy, px, py); }, x, y);
            }
            return outlines > 1;
        };
        for (u32 type : kTypes) {
            SCOPED_TRACE(std::string(c.name) + ", type " + std::to_string(type));
            auto image = maskImage(c.image, type);
            ML::fillPolygons(image, {c.xy, counts});
            const Errors e = compare(*image, inside, feature);
            EXPECT_GT(e.touched, 0);
            EXPECT_LT(e.mean, 0.01);
            EXPECT_LT(e.max, c.maxError);
            EXPECT_LE(e.featureMax, c.featureMaxError);
            EXPECT_NEAR(e.drawnArea, e.trueArea, 0.02 * e.trueArea + 0.5);
        }
    }
}

TEST(FillPolygons, PolygonsOutsideOrWithoutAreaDrawNothing) {
    const std::vector<std::vector<float>> polygons = {
        {-9.0f, 1.0f, -2.0f, 1.0f, -2.0f, 6.0f, -9.0f, 6.0f},  // left of the image
        {12.0f, 1.0f, 15.0f, 1.0f, 15.0f, 6.0f, 12.0f, 6.0f},  // starts at its right border
        {1.0f, 3.0f, 5.0f, 3.0f, 9.0f, 3.0f},                  // flat
        {1.0f, 1.0f, 8.0f, 8.0f},                              // two vertices
    };
    for (const auto& xy : polygons)
        EXPECT_TRUE(ML::polygonCoverage({xy, {static_cast<ML::i32>(xy.size() / 2)}}, 12, 10).empty());
}

// The whole outline of the triangle lies inside one row band; a square further right keeps the
// sweep going along that row. Between the two the row stays empty.
TEST(FillPolygons, SmallTriangleInsideOneRowLeavesTheRestOfTheRowEmpty) {
    const std::vector<float> xy = {4.2f, 5.1f, 6.8f, 5.3f, 5.1f, 5.9f, 10.0f, 3.0f, 14.0f, 3.0f, 14.0f, 8.0f, 10.0f, 8.0f};
    auto image = maskImage({0, 0, 16, 10}, ML::F32);
    ML::fillPolygons(image, {xy, {3, 4}});
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x) {
            if (y == 5 && x >= 4 && x <= 6) continue;
            EXPECT_EQ(coverageAt(*image, x, y), 0.0f) << x << "," << y;
        }
    EXPECT_GT(coverageAt(*image, 5, 5), 0.2f);
    EXPECT_LT(coverageAt(*image, 5, 5), 0.6f);
    EXPECT_EQ(coverageAt(*image, 12, 5), 1.0f);
}

// ---- Prompt marks ----

struct Planes {
    std::vector<float> values;
    Rect rect;
    float at(int c, int x, int y) const {
        const size_t w = size_t(rect.width()), plane = w * size_t(rect.height());
        return values[size_t(c) * plane + size_t(y - rect.y0) * w + size_t(x - rect.x0)];
    }
};

TEST(DrawPoints, MarksPointsAndBoxesInsideRect) {
    const Rect rect{10, 20, 30, 35};
    const std::vector<float> positive = {12.4f, 21.6f};
    const std::vector<float> negative = {10.2f, 34.7f, 100.0f, 100.0f};
    const std::vector<float> boxes = {15.2f, 24.8f, 24.6f, 29.9f};
    const size_t n = size_t(rect.width()) * size_t(rect.height()) * 3;

    std::vector<float> f32(n, 0.0f);
    ML::drawPoints(ML::F32, f32.data(), positive, negative, boxes, rect);
    std::vector<Imath::half> f16(n, Imath::half(0.0f));
    ML::drawPoints(ML::F16, f16.data(), positive, negative, boxes, rect);
    std::vector<float> widened(f16.begin(), f16.end());

    for (const Planes& p : {Planes{f32, rect}, Planes{widened, rect}}) {
        struct Expect {
            int x, y;
            float r, g, b;
        };
        const Expect expects[] = {
            {11, 21, 0, 255, 0}, {13, 23, 0, 255, 0}, {14, 23, 0, 0, 0}, {12, 24, 0, 0, 0},   // positive point
            {10, 34, 255, 0, 0}, {11, 34, 255, 0, 0}, {12, 34, 0, 0, 0}, {10, 33, 0, 0, 0},   // negative, clipped
            {15, 24, 0, 255, 0}, {24, 26, 0, 255, 0}, {20, 27, 0, 0, 0}, {25, 24, 0, 0, 0},   // top side
            {20, 29, 0, 255, 0}, {20, 31, 0, 255, 0}, {20, 32, 0, 0, 0}, {26, 30, 0, 0, 0},   // bottom side
            {14, 27, 0, 255, 0}, {16, 25, 0, 255, 0}, {13, 27, 0, 0, 0}, {17, 27, 0, 0, 0},   // left side
            {26, 29, 0, 255, 0}, {24, 28, 0, 255, 0}, {27, 27, 0, 0, 0}, {23, 27, 0, 0, 0},   // right side
        };
        for (const Expect& e : expects) {
            EXPECT_EQ(p.at(0, e.x, e.y), e.r) << e.x << "," << e.y;
            EXPECT_EQ(p.at(1, e.x, e.y), e.g) << e.x << "," << e.y;
            EXPECT_EQ(p.at(2, e.x, e.y), e.b) << e.x << "," << e.y;
        }
    }
}

TEST(DrawPoints, RefusesOtherTypes) {
    std::vector<std::uint8_t> buffer(3 * 4 * 4, 0);
    for (u32 type : {u32(ML::U8), u32(ML::I32), u32(ML::U16)})
        expectMessage([&] { ML::drawPoints(type, buffer.data(), {1.0f, 1.0f}, {}, {}, {0, 0, 4, 4}); },
                      "cannot call drawPoints w/ dtype other than fp16 & fp32");
    for (std::uint8_t v : buffer) EXPECT_EQ(v, 0);
}

// ---- Tile outlines ----

ML::TiledExecution::Tile tileWithDst(const Rect& dst) {
    ML::TiledExecution::Tile t;
    t.dstRect = dst;
    return t;
}

TEST(DrawTileOutline, DrawsThreePixelRedFrameClippedToImage) {
    const Rect imageRect{5, 5, 25, 25};
    const ML::TiledExecution::Tile tile = tileWithDst({8, 8, 16, 14});
    for (u32 type : kTypes) {
        SCOPED_TRACE(type);
        auto image = QHost::OwnedImage::make(imageRect, Image::RGB, Image::HWC, type, 4);
        ML::drawTileOutline(image, tile);
        const float on = type == ML::U8 ? 255.0f : 1.0f;
        struct Expect {
            int x, y;
            bool red;
        };
        const Expect expects[] = {
            {8, 8, true},   {7, 7, true},   {6, 6, false},  {12, 9, true},  {12, 10, false}, {12, 7, true},
            {12, 6, false}, {16, 14, true}, {17, 15, true}, {18, 15, false}, {12, 13, true},  {12, 12, false},
            {15, 11, true}, {14, 11, false}, {9, 11, true}, {10, 11, false}, {17, 11, true},  {18, 11, false},
        };
        for (const Expect& e : expects) {
            EXPECT_EQ(pixel(*image, e.x, e.y, 0), e.red ? on : 0.0f) << e.x << "," << e.y;
            EXPECT_EQ(pixel(*image, e.x, e.y, 1), 0.0f);
            EXPECT_EQ(pixel(*image, e.x, e.y, 2), 0.0f);
        }
    }
    // A tile reaching past the image: only pixels inside are touched (the padding stays zero).
    auto image = QHost::OwnedImage::make(imageRect, Image::RGB, Image::HWC, ML::U8, 4);
    ML::drawTileOutline(image, tileWithDst({6, 6, 30, 30}));
    EXPECT_EQ(pixel(*image, 5, 5, 0), 255.0f);
    EXPECT_EQ(pixel(*image, 24, 7, 0), 255.0f);
    EXPECT_EQ(pixel(*image, 7, 24, 0), 255.0f);
    EXPECT_EQ(pixel(*image, 24, 24, 0), 0.0f);
    EXPECT_EQ(pixel(*image, 12, 12, 0), 0.0f);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(image->storage());
    for (int y = 0; y < 20; ++y)
        for (int pad = 0; pad < 4; ++pad) EXPECT_EQ(bytes[y * image->getRowBytes() + 60 + pad], 0);
}

TEST(DrawTileOutline, Refusals) {
    auto planar = QHost::OwnedImage::make({0, 0, 8, 8}, Image::RGB, Image::CHW, ML::F32);
    expectMessage([&] { ML::drawTileOutline(planar, tileWithDst({1, 1, 5, 5})); },
                  "drawTileOutline only implemented for HWC images");
    for (u32 type : {u32(ML::I32), u32(ML::U16), u32(ML::I64)}) {
        ML::Ptr<Image> image(new RawDescription(Image::RGB, Image::HWC, type, 4));
        expectMessage([&] { ML::drawTileOutline(image, tileWithDst({1, 1, 3, 3})); },
                      "unexpected dtype for drawTileOutline ?");
    }
}

// ---- Smoothing ----

// The window is odd and at least three; the kernel has that many normalised Gaussian weights, or
// as many as asked for.
TEST(Smoothing, KernelFollowsTheGaussian) {
    const struct {
        float sigma;
        int size;
        int expectedSize;
    } cases[] = {{0.1f, -1, 3}, {0.25f, -1, 3}, {0.6f, -1, 3}, {0.9f, -1, 5}, {1.0f, -1, 5}, {1.2f, -1, 5},
                 {1.5f, -1, 7}, {2.0f, -1, 7}, {2.5f, -1, 9},  {1.0f, 4, 4},  {0.7f, 7, 7},  {1.3f, 1, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.sigma) + " " + std::to_string(c.size));
        if (c.size < 0) {
            EXPECT_EQ(ML::gaussianWindow(c.sigma), c.expectedSize);
        }
        const ML::GaussianKernel k = ML::makeGaussianKernel(c.sigma, c.size);
        ASSERT_EQ(int(k.size()), c.expectedSize);
        double norm = 0.0;
        for (int i = 0; i < c.expectedSize; ++i) {
            const int off = i - c.expectedSize / 2;
            norm += std::exp(-off * off / (2.0 * c.sigma * c.sigma));
        }
        double sum = 0.0;
        for (int i = 0; i < c.expectedSize; ++i) {
            const int off = i - c.expectedSize / 2;
            EXPECT_NEAR(k[size_t(i)], std::exp(-off * off / (2.0 * c.sigma * c.sigma)) / norm, 1e-6) << i;
            sum += k[size_t(i)];
        }
        EXPECT_NEAR(sum, 1.0, 1e-6);
    }
}

TEST(Smoothing, WeightedSum) {
    EXPECT_FLOAT_EQ(ML::weightedSum({2.0f, 4.0f, 10.0f}, {0.25f, 0.5f, 0.25f}), 5.0f);
    EXPECT_EQ(ML::weightedSum({}, {}), 0.0f);
    expectMessage([] { ML::weightedSum({1.0f, 2.0f}, {1.0f}); }, "!!");
    expectMessage([] { ML::weightedSum({}, {1.0f}); }, "!!");
    expectMessage([] { ML::weightedAngle({1.0f}, {0.5f, 0.5f}); }, "!!");
}

TEST(Smoothing, WeightedAngleIsAMeanOnTheCircle) {
    const float nearPi = ML::weightedAngle({3.1f, -3.1f}, {0.5f, 0.5f});
    EXPECT_NEAR(std::abs(nearPi), kPi, 1e-5);
    const struct {
        std::vector<float> angles;
        std::vector<float> weights;
        double expected;
    } cases[] = {
        {{0.2f, 0.4f}, {0.5f, 0.5f}, 0.3},
        {{0.0f, 1.0f}, {1.0f, 0.0f}, 0.0},
        {{-0.1f, 0.1f, 0.3f}, {0.25f, 0.5f, 0.25f}, 0.1000},
        {{3.0f, -3.0f, 3.1f}, {0.25f, 0.25f, 0.5f}, 3.1207},
    };
    for (const auto& c : cases) EXPECT_NEAR(ML::weightedAngle(c.angles, c.weights), c.expected, 2e-3);
}

}  // namespace
