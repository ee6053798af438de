#pragma once
// Host-side drawing: anti-aliased ovals and polygons filled into single-channel masks, prompt
// points and boxes marked on a planar preview buffer, and tile outlines for diagnosis.
#include <vector>

#include "ML/ImageImp.h"
#include "Plugin/TiledExecution.h"

namespace ML {

// Centre, the two radii along the unrotated axes, and the rotation in radians. Radius a lies
// along (cos angle, sin angle).
struct Oval {
    float cx = 0.0f;
    float cy = 0.0f;
    float a = 0.0f;
    float b = 0.0f;
    float angle = 0.0f;
};

// Pixels [x0, x1) of row y share one coverage value. Span lists are ordered by row, then x.
struct CoverageSpan {
    i32 y = 0;
    i32 x0 = 0;
    i32 x1 = 0;
    float value = 0.0f;

    bool operator==(const CoverageSpan& o) const { return y == o.y && x0 == o.x0 && x1 == o.x1 && value == o.value; }
};

// Polygons as one flat list of x, y pairs and the number of vertices of each polygon in turn.
struct PolygonList {
    std::vector<float> coordinates;
    std::vector<i32> vertexCounts;
};

// Coverage of the union of the shapes over the pixels of a width x height raster whose pixel
// (0, 0) covers [0, 1) x [0, 1). Only spans with a value above 0 are listed.
std::vector<CoverageSpan> ovalCoverage(const std::vector<Oval>& ovals, i32 width, i32 height);
std::vector<CoverageSpan> polygonCoverage(const PolygonList& polygons, i32 width, i32 height);

// Writes the spans into a single-channel U8, F16 or F32 image; span coordinates are relative to
// the image's origin. U8 receives value * 255 truncated.
void writeSpans(const Ptr<Image>& image, const std::vector<CoverageSpan>& spans);

// Clears the image, then fills the ovals (in the image's coordinates, so a view of part of a
// larger picture can be passed).
void fillOvals(const Ptr<Image>& image, const std::vector<Oval>& ovals);
// Fills the polygons over what the image holds; polygons of fewer than 3 vertices are skipped.
void fillPolygons(const Ptr<Image>& image, const PolygonList& polygons);

// Marks prompts on a planar three-channel F32 or F16 buffer of rect's size: positive points
// (x, y pairs) and boxes (x0, y0, x1, y1) in green, negative points in red, with values 0 or 255.
// Coordinates are those of rect; pixels outside it are skipped.
void drawPoints(u32 dataType, void* data, const std::vector<float>& positivePoints,
                const std::vector<float>& negativePoints, const std::vector<float>& boxes, const Rect& rect);

// Outlines the tile's destination rectangle in red, three pixels wide, on an HWC image.
void drawTileOutline(const Ptr<Image>& image, const TiledExecution::Tile& tile);

}  // namespace ML
