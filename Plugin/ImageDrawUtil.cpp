#include "Plugin/ImageDrawUtil.h"

#include <Imath/half.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>

#include "ML/Exception.h"
#include "Util/ML_Util.h"

namespace ML {

namespace {

// Cell coordinates are kept well inside the i32 range whatever the shapes hold.
constexpr double kCellLimit = 1 << 30;

i32 cellFloor(double v) { return static_cast<i32>(std::clamp(std::floor(v), -kCellLimit, kCellLimit)); }
i32 cellCeil(double v) { return static_cast<i32>(std::clamp(std::ceil(v), -kCellLimit, kCellLimit)); }

struct Point {
    double x = 0.0;
    double y = 0.0;
    bool operator==(const Point& o) const { return x == o.x && y == o.y; }
};

// Where one shape's outline crosses a row band: pixels [start, end) may be partly covered.
// Polygon events keep the ends of their edge (or of the chain of edges they were joined from).
struct Event {
    i32 start = 0;
    i32 end = 0;
    i32 shape = 0;
    Point p;
    Point q;
    bool closed = false;  // the whole outline lies inside the band: never changes inside/outside
};

// Small ordered sets of shape numbers.
using ShapeSet = std::vector<i32>;

void setInsert(ShapeSet& s, i32 v) {
    auto it = std::lower_bound(s.begin(), s.end(), v);
    if (it == s.end() || *it != v) s.insert(it, v);
}
void setErase(ShapeSet& s, i32 v) {
    auto it = std::lower_bound(s.begin(), s.end(), v);
    if (it != s.end() && *it == v) s.erase(it);
}
void setToggle(ShapeSet& s, i32 v) {
    auto it = std::lower_bound(s.begin(), s.end(), v);
    if (it != s.end() && *it == v)
        s.erase(it);
    else
        s.insert(it, v);
}

void appendSpan(std::vector<CoverageSpan>& spans, i32 y, i32 x0, i32 x1, float value) {
    if (!(value > 0.0f) || x1 <= x0) return;
    if (!spans.empty()) {
        CoverageSpan& last = spans.back();
        if (last.y == y && last.x1 == x0 && last.value == value) {
            last.x1 = x1;
            return;
        }
    }
    spans.push_back({y, x0, x1, value});
}

// One row of the span sweep. Events must be sorted by start. At each stop the events that have
// started are replayed: one wholly to the left flips its shape between outside and inside, one
// still under way puts its shape on the edge. An edge pixel is 1.0 when another shape holds it
// entirely, otherwise its coverage is measured; runs between events are 1.0 or nothing.
template <class Coverage>
void sweepRow(i32 y, const std::vector<Event>& events, i32 limit, Coverage&& coverage,
              std::vector<CoverageSpan>& spans) {
    if (events.empty()) return;
    ShapeSet edge, inside;
    i32 x = std::max(0, events.front().start);
    while (x < limit) {
        edge.clear();
        inside.clear();
        size_t i = 0;
        for (; i < events.size() && events[i].start <= x; ++i) {
            const Event& e = events[i];
            if (x >= e.end) {
                if (!e.closed) setToggle(inside, e.shape);
            } else {
                setErase(inside, e.shape);
                setInsert(edge, e.shape);
            }
        }
        // A shape whose outline passes through this pixel is never counted as holding it.
        for (i32 s : edge) setErase(inside, s);
        const i32 next = i < events.size() ? std::min(events[i].start, limit) : limit;
        if (!edge.empty()) {
            appendSpan(spans, y, x, x + 1, inside.empty() ? coverage(edge, x, y) : 1.0f);
            ++x;
        } else {
            if (!inside.empty()) appendSpan(spans, y, x, next, 1.0f);
            x = next;
        }
    }
}

// Corner area where p is the odd corner and q and r its neighbours along the pixel's sides.
double triangle(double p, double q, double r) { return p / (p - q) * 0.5 * p / (p - r); }
// Area on the side of p and q, with r and s across from them.
double trapezoid(double p, double q, double r, double s) { return (p / (p - r) + q / (q - s)) * 0.5; }

// Coverage of a pixel from the signed distances at its corners (00 = (x, y), 01 = (x, y + 1),
// 10 = (x + 1, y), 11 = (x + 1, y + 1)) and at its centre. shape(c, d00, d01, d10, d11) handles
// a pixel whose corners all lie on one side of the outline.
template <class Shape>
float cornerCoverage(double d00, double d01, double d10, double d11, double c, Shape&& shape) {
    const int mask = (d00 < 0.0 ? 1 : 0) | (d01 < 0.0 ? 2 : 0) | (d10 < 0.0 ? 4 : 0) | (d11 < 0.0 ? 8 : 0);
    double v = 0.0;
    switch (mask) {
        case 0: v = shape(c, d00, d01, d10, d11); break;
        case 15: v = 1.0 - shape(-c, -d00, -d01, -d10, -d11); break;
        case 1: v = triangle(d00, d01, d10); break;
        case 2: v = triangle(d01, d11, d00); break;
        case 3: v = trapezoid(d00, d01, d10, d11); break;
        case 4: v = triangle(d10, d00, d11); break;
        case 5: v = trapezoid(d10, d00, d11, d01); break;
        case 6: v = triangle(d01, d11, d00) + triangle(d10, d00, d11); break;
        case 7: v = 1.0 - triangle(-d11, -d10, -d01); break;
        case 8: v = triangle(d11, d10, d01); break;
        case 9: v = triangle(d00, d10, d01) + triangle(d11, d01, d10); break;
        case 10: v = trapezoid(d01, d11, d00, d10); break;
        case 11: v = 1.0 - triangle(-d10, -d00, -d11); break;
        case 12: v = trapezoid(d11, d10, d01, d00); break;
        case 13: v = 1.0 - triangle(-d01, -d11, -d00); break;
        case 14: v = 1.0 - triangle(-d00, -d01, -d10); break;
        default: break;
    }
    return static_cast<float>(v);
}

template <class Distance, class Shape>
float pixelCoverage(i32 x, i32 y, Distance&& distance, Shape&& shape) {
    const double x0 = x, y0 = y, x1 = x0 + 1.0, y1 = y0 + 1.0;
    return cornerCoverage(distance(x0, y0), distance(x0, y1), distance(x1, y0), distance(x1, y1),
                          distance(x0 + 0.5, y0 + 0.5), shape);
}

// ---- Ovals ----

struct OvalShape {
    double cx, cy, a, b, angle, c, s;
    double x0, x1, y0, y1;  // bounding box
    double yLeft, yRight;   // rows of the leftmost and rightmost points

    explicit OvalShape(const Oval& o)
        : cx(o.cx), cy(o.cy), a(o.a), b(o.b), angle(o.angle), c(std::cos(angle)), s(std::sin(angle)) {
        const double hx = std::hypot(a * c, b * s);
        const double hy = std::hypot(a * s, b * c);
        x0 = cx - hx;
        x1 = cx + hx;
        y0 = cy - hy;
        y1 = cy + hy;
        const double tilt = c * s * (a * a - b * b) / hx;
        yLeft = cy - tilt;
        yRight = cy + tilt;
    }

    // Left and right x of the outline on the line at row yy, which must lie within [y0, y1].
    void crossings(double yy, double& left, double& right) const {
        const double dy = yy - cy;
        const double ia = 1.0 / (a * a), ib = 1.0 / (b * b);
        const double qa = c * c * ia + s * s * ib;
        const double qb = 2.0 * dy * c * s * (ia - ib);
        const double qc = dy * dy * (s * s * ia + c * c * ib) - 1.0;
        const double root = std::sqrt(std::max(0.0, qb * qb - 4.0 * qa * qc));
        left = cx + (-qb - root) / (2.0 * qa);
        right = cx + (-qb + root) / (2.0 * qa);
    }

    // Radial distance: negative inside, -min(a, b) at the centre.
    double distance(double px, double py) const {
        const double dx = px - cx, dy = py - cy;
        const double len = std::hypot(dx, dy);
        if (len == 0.0) return -std::min(a, b);
        const double phi = angle - std::atan2(dy, dx);
        const double cp = std::cos(phi), sp = std::sin(phi);
        return len - a * b / std::sqrt(b * b * cp * cp + a * a * sp * sp);
    }
};

double ovalShape(double c, double d00, double d01, double d10, double d11) {
    if (!(c < 0.0)) return 0.0;
    const double m = (c / (c - d00) + c / (c - d01) + c / (c - d10) + c / (c - d11)) * 0.25;
    return m * m;
}

// ---- Polygons ----

struct Edge {
    Point top;  // the upper end; on a horizontal edge the one with the smaller x
    Point bottom;
};

struct PolygonShape {
    std::vector<Point> points;
    std::vector<Edge> edges;
    double x0 = 0.0, y0 = 0.0, x1 = 0.0, y1 = 0.0;  // box

    // Distance to the nearest edge (segment), negative strictly inside.
    double distance(double px, double py) const {
        double best = std::numeric_limits<double>::infinity();
        int crossings = 0;
        const size_t n = points.size();
        for (size_t i = 0; i < n; ++i) {
            const Point& p = points[i];
            const Point& q = points[(i + 1) % n];
            const double ex = q.x - p.x, ey = q.y - p.y;
            const double len2 = ex * ex + ey * ey;
            double t = len2 > 0.0 ? ((px - p.x) * ex + (py - p.y) * ey) / len2 : 0.0;
            t = std::clamp(t, 0.0, 1.0);
            best = std::min(best, std::hypot(px - (p.x + t * ex), py - (p.y + t * ey)));

            if ((p.y < py && q.y > py) || (p.y > py && q.y < py)) {
                if (p.x + (py - p.y) * ex / ey <= px) ++crossings;
            } else if ((p.y == py) != (q.y == py)) {
                const Point& on = p.y == py ? p : q;
                const Point& other = p.y == py ? q : p;
                if (other.y > on.y && on.x < px) ++crossings;
            }
        }
        const bool inside = px > x0 && px < x1 && py > y0 && py < y1 && (crossings & 1);
        return inside && best != 0.0 ? -best : best;
    }
};

double polygonShape(double c, double d00, double d01, double d10, double d11) {
    if (!(c < 0.0)) return 0.0;
    const double s = c * 1.4142135;
    auto a = [s](double d) { return s * 0.70710677 / (s - d); };
    return (a(d10) * a(d01) + a(d01) * a(d00) + a(d11) * a(d10) + a(d11) * a(d00)) * 0.5;
}

// Ranges [a0, a1] and [b0, b1] overlap: the first is not empty and neither lies wholly at or
// beyond the other's end.
bool overlaps(double a0, double a1, double b0, double b1) { return a0 < a1 && a0 < b1 && b0 < a1; }

// x on the edge at row yy, yy clamped to the edge's ends.
double edgeX(const Edge& e, double yy) {
    if (yy <= e.top.y) return e.top.x;
    if (yy >= e.bottom.y) return e.bottom.x;
    return e.top.x + (yy - e.top.y) * (e.bottom.x - e.top.x) / (e.bottom.y - e.top.y);
}

// Merges events of one polygon that meet at a vertex inside the band [y, y + 1] when the outline
// goes through the band there; a corner that only pokes into the band stays as two events.
void joinAtVertices(std::vector<Event>& events, double y) {
    auto inBand = [y](const Point& v) { return v.y >= y && v.y <= y + 1.0; };
    bool joined = true;
    while (joined) {
        joined = false;
        for (size_t i = 0; i < events.size() && !joined; ++i) {
            for (size_t j = i + 1; j < events.size() && !joined; ++j) {
                Event& e = events[i];
                const Event& f = events[j];
                if (e.shape != f.shape || e.closed || f.closed) continue;
                const Point* eOther = nullptr;
                const Point* fOther = nullptr;
                if (e.p == f.p && inBand(e.p)) {
                    eOther = &e.q;
                    fOther = &f.q;
                } else if (e.p == f.q && inBand(e.p)) {
                    eOther = &e.q;
                    fOther = &f.p;
                } else if (e.q == f.p && inBand(e.q)) {
                    eOther = &e.p;
                    fOther = &f.q;
                } else if (e.q == f.q && inBand(e.q)) {
                    eOther = &e.p;
                    fOther = &f.p;
                } else {
                    continue;
                }
                const bool bothAbove = eOther->y <= y && fOther->y <= y;
                const bool bothBelow = eOther->y >= y + 1.0 && fOther->y >= y + 1.0;
                if (bothAbove || bothBelow) continue;
                const Point p = *eOther, q = *fOther;
                e.p = p;
                e.q = q;
                e.start = std::min(e.start, f.start);
                e.end = std::max(e.end, f.end);
                // Both chains end at the same vertex: the outline closed on itself inside the band.
                if (p == q) e.closed = true;
                events.erase(events.begin() + static_cast<std::ptrdiff_t>(j));
                joined = true;
            }
        }
    }
}

void sortByStart(std::vector<Event>& events) {
    std::stable_sort(events.begin(), events.end(), [](const Event& l, const Event& r) { return l.start < r.start; });
}

template <class T>
void writeRow(u8* row, const CoverageSpan& span) {
    T* out = reinterpret_cast<T*>(row) + span.x0;
    for (i32 x = span.x0; x < span.x1; ++x, ++out) {
        if constexpr (std::is_same_v<T, u8>)
            *out = static_cast<u8>(std::min(span.value, 1.0f) * 255.0f);
        else
            *out = T(span.value);
    }
}

void redPixel(u8* pixel, u32 type, u32 channels) {
    const u32 n = std::min<u32>(channels, 3);
    for (u32 c = 0; c < n; ++c) {
        switch (type) {
            case U8: pixel[c] = c == 0 ? 255 : 0; break;
            case F16: reinterpret_cast<Imath::half*>(pixel)[c] = Imath::half(c == 0 ? 1.0f : 0.0f); break;
            case F32: reinterpret_cast<float*>(pixel)[c] = c == 0 ? 1.0f : 0.0f; break;
            default: break;
        }
    }
}

}  // namespace

std::vector<CoverageSpan> ovalCoverage(const std::vector<Oval>& ovalList, i32 width, i32 height) {
    std::vector<CoverageSpan> spans;
    std::vector<OvalShape> ovals;
    ovals.reserve(ovalList.size());
    for (const Oval& o : ovalList) {
        // An oval without area covers nothing (and would divide by zero below).
        if (!(o.a > 0.0f) || !(o.b > 0.0f) || !std::isfinite(o.a) || !std::isfinite(o.b) || !std::isfinite(o.cx) ||
            !std::isfinite(o.cy) || !std::isfinite(o.angle))
            continue;
        ovals.emplace_back(o);
    }
    if (ovals.empty() || width <= 0 || height <= 0) return spans;

    double top = ovals[0].y0, bottom = ovals[0].y1, right = ovals[0].x1;
    for (const OvalShape& o : ovals) {
        top = std::min(top, o.y0);
        bottom = std::max(bottom, o.y1);
        right = std::max(right, o.x1);
    }
    const i32 yBegin = cellFloor(std::max(0.0, top));
    const i32 yEnd = cellCeil(std::min(static_cast<double>(height), bottom));
    const i32 limit = cellCeil(std::min(static_cast<double>(width), right));

    auto coverage = [&ovals](const ShapeSet& set, i32 x, i32 y) {
        const OvalShape& first = ovals[static_cast<size_t>(set.front())];
        const double start = std::hypot(first.a, first.b);
        auto distance = [&](double px, double py) {
            double d = start;
            for (i32 k : set) d = std::min(d, ovals[static_cast<size_t>(k)].distance(px, py));
            return d;
        };
        return pixelCoverage(x, y, distance, ovalShape);
    };

    std::vector<Event> events;
    for (i32 y = yBegin; y < yEnd;) {
        const double band0 = y, band1 = y + 1.0;
        events.clear();
        double nextTop = std::numeric_limits<double>::infinity();
        for (size_t k = 0; k < ovals.size(); ++k) {
            const OvalShape& o = ovals[k];
            if (!(o.y0 < band1 && o.y1 > band0)) {
                if (o.y0 >= band1) nextTop = std::min(nextTop, o.y0);
                continue;
            }
            const double ya = std::max(band0, o.y0), yb = std::min(band1, o.y1);
            double la, ra, lb, rb;
            o.crossings(ya, la, ra);
            o.crossings(yb, lb, rb);
            double leftLo = std::min(la, lb), leftHi = std::max(la, lb);
            double rightLo = std::min(ra, rb), rightHi = std::max(ra, rb);
            if (o.yLeft >= ya && o.yLeft <= yb) leftLo = std::min(leftLo, o.x0);
            if (o.yRight >= ya && o.yRight <= yb) rightHi = std::max(rightHi, o.x1);
            const i32 shape = static_cast<i32>(k);
            events.push_back({cellFloor(leftLo), cellCeil(leftHi), shape, {}, {}, false});
            events.push_back({cellFloor(rightLo), cellCeil(rightHi), shape, {}, {}, false});
        }
        if (events.empty()) {
            y = std::max(y + 1, std::isfinite(nextTop) ? cellFloor(nextTop) : yEnd);
            continue;
        }
        sortByStart(events);
        sweepRow(y, events, limit, coverage, spans);
        ++y;
    }
    return spans;
}

std::vector<CoverageSpan> polygonCoverage(const PolygonList& list, i32 width, i32 height) {
    std::vector<CoverageSpan> spans;
    if (width <= 0 || height <= 0) return spans;
    const double w = width, h = height;

    std::vector<PolygonShape> polygons;
    size_t offset = 0;
    for (i32 count : list.vertexCounts) {
        if (count <= 0) continue;
        const size_t n = static_cast<size_t>(count);
        if (offset + 2 * n > list.coordinates.size()) break;
        const float* xy = list.coordinates.data() + offset;
        offset += 2 * n;
        if (n < 3) continue;

        PolygonShape poly;
        bool finite = true;
        for (size_t i = 0; i < n; ++i) {
            const Point p{xy[2 * i], xy[2 * i + 1]};
            finite = finite && std::isfinite(p.x) && std::isfinite(p.y);
            poly.points.push_back(p);
        }
        if (!finite) continue;
        poly.x0 = poly.x1 = poly.points[0].x;
        poly.y0 = poly.y1 = poly.points[0].y;
        for (const Point& p : poly.points) {
            poly.x0 = std::min(poly.x0, p.x);
            poly.x1 = std::max(poly.x1, p.x);
            poly.y0 = std::min(poly.y0, p.y);
            poly.y1 = std::max(poly.y1, p.y);
        }
        if (!overlaps(poly.x0, poly.x1, 0.0, w) || !overlaps(poly.y0, poly.y1, 0.0, h)) continue;
        for (size_t i = 0; i < n; ++i) {
            Point p = poly.points[i], q = poly.points[(i + 1) % n];
            if (q.y < p.y || (q.y == p.y && q.x < p.x)) std::swap(p, q);
            poly.edges.push_back({p, q});
        }
        polygons.push_back(std::move(poly));
    }
    if (polygons.empty()) return spans;

    double top = polygons[0].y0, bottom = polygons[0].y1, right = polygons[0].x1;
    for (const PolygonShape& p : polygons) {
        top = std::min(top, p.y0);
        bottom = std::max(bottom, p.y1);
        right = std::max(right, p.x1);
    }
    const i32 yBegin = cellFloor(std::max(0.0, top));
    const i32 yEnd = cellCeil(std::min(h, bottom));
    const i32 limit = cellCeil(std::min(w, right));

    auto coverage = [&polygons](const ShapeSet& set, i32 x, i32 y) {
        auto distance = [&](double px, double py) {
            double d = std::numeric_limits<double>::infinity();
            for (i32 k : set) d = std::min(d, polygons[static_cast<size_t>(k)].distance(px, py));
            return d;
        };
        return pixelCoverage(x, y, distance, polygonShape);
    };

    std::vector<Event> events;
    for (i32 y = yBegin; y < yEnd;) {
        const double band0 = y, band1 = y + 1.0;
        events.clear();
        i32 next = yEnd;
        for (size_t k = 0; k < polygons.size(); ++k) {
            const PolygonShape& poly = polygons[k];
            if (poly.y0 >= band1) next = std::min(next, cellFloor(poly.y0));
            if (!overlaps(poly.y0, poly.y1, band0, band1)) continue;
            for (const Edge& e : poly.edges) {
                if (e.top.y >= band1) next = std::min(next, cellFloor(e.top.y));
                if (e.top.y < band1 && e.bottom.y > band1) next = std::min(next, y + 1);
                // The band comes first: an edge lying flat inside the band still marks its pixels,
                // while one along the band's top or bottom line marks none.
                if (!overlaps(band0, band1, e.top.y, e.bottom.y)) continue;
                const double xa = edgeX(e, band0), xb = edgeX(e, band1);
                events.push_back({cellFloor(std::min(xa, xb)), cellCeil(std::max(xa, xb)), static_cast<i32>(k), e.top,
                                  e.bottom, false});
            }
        }
        joinAtVertices(events, band0);
        sortByStart(events);
        sweepRow(y, events, limit, coverage, spans);
        y = std::max(y + 1, next);
    }
    return spans;
}

void writeSpans(const Ptr<Image>& image, const std::vector<CoverageSpan>& spans) {
    const u32 type = image->getDataType();
    const u64 rowBytes = image->getRowBytes();
    auto* base = static_cast<u8*>(image->getData());
    for (const CoverageSpan& span : spans) {
        u8* row = base + static_cast<u64>(span.y) * rowBytes;
        switch (type) {
            case U8: writeRow<u8>(row, span); break;
            case F16: writeRow<Imath::half>(row, span); break;
            case F32: writeRow<float>(row, span); break;
            default: break;
        }
    }
}

void fillOvals(const Ptr<Image>& image, const std::vector<Oval>& ovals) {
    clearImage(image);
    if (ovals.empty()) return;
    const Rect rect = image->getRect();
    std::vector<Oval> local = ovals;
    for (Oval& o : local) {
        o.cx -= static_cast<float>(rect.x0);
        o.cy -= static_cast<float>(rect.y0);
    }
    writeSpans(image, ovalCoverage(local, rect.width(), rect.height()));
}

void fillPolygons(const Ptr<Image>& image, const PolygonList& polygons) {
    const Rect rect = image->getRect();
    PolygonList local = polygons;
    for (size_t i = 0; i + 1 < local.coordinates.size(); i += 2) {
        local.coordinates[i] -= static_cast<float>(rect.x0);
        local.coordinates[i + 1] -= static_cast<float>(rect.y0);
    }
    writeSpans(image, polygonCoverage(local, rect.width(), rect.height()));
}

void drawPoints(u32 dataType, void* data, const std::vector<float>& positivePoints,
                const std::vector<float>& negativePoints, const std::vector<float>& boxes, const Rect& rect) {
    if (dataType != F32 && dataType != F16) ML_THROW("cannot call drawPoints w/ dtype other than fp16 & fp32");
    if (rect.isEmpty()) return;
    const u64 width = static_cast<u64>(rect.width());
    const u64 plane = width * static_cast<u64>(rect.height());

    auto put = [&](i32 x, i32 y, const float (&rgb)[3]) {
        if (x < rect.x0 || x >= rect.x1 || y < rect.y0 || y >= rect.y1) return;
        const u64 at = static_cast<u64>(y - rect.y0) * width + static_cast<u64>(x - rect.x0);
        for (u64 c = 0; c < 3; ++c) {
            if (dataType == F32)
                static_cast<float*>(data)[c * plane + at] = rgb[c];
            else
                static_cast<Imath::half*>(data)[c * plane + at] = Imath::half(rgb[c]);
        }
    };
    // Fills [xa, xb) x [ya, yb), clipped to rect first so that far-off shapes cost nothing.
    auto fill = [&](i64 xa, i64 xb, i64 ya, i64 yb, const float (&rgb)[3]) {
        xa = std::max<i64>(xa, rect.x0);
        xb = std::min<i64>(xb, rect.x1);
        ya = std::max<i64>(ya, rect.y0);
        yb = std::min<i64>(yb, rect.y1);
        for (i64 y = ya; y < yb; ++y)
            for (i64 x = xa; x < xb; ++x) put(static_cast<i32>(x), static_cast<i32>(y), rgb);
    };
    auto round = [](float v) -> i64 {
        return std::isfinite(v) ? static_cast<i64>(std::clamp(std::round(static_cast<double>(v)), -kCellLimit, kCellLimit))
                                : static_cast<i64>(-kCellLimit);
    };

    static const float green[3] = {0.0f, 255.0f, 0.0f};
    static const float red[3] = {255.0f, 0.0f, 0.0f};
    auto points = [&](const std::vector<float>& xy, const float (&rgb)[3]) {
        for (size_t i = 0; i + 1 < xy.size(); i += 2) {
            const i64 x = round(xy[i]), y = round(xy[i + 1]);
            fill(x - 1, x + 2, y - 1, y + 2, rgb);
        }
    };
    points(positivePoints, green);
    points(negativePoints, red);
    for (size_t i = 0; i + 3 < boxes.size(); i += 4) {
        const i64 x0 = round(boxes[i]), y0 = round(boxes[i + 1]), x1 = round(boxes[i + 2]), y1 = round(boxes[i + 3]);
        fill(x0, std::max(x0, x1), y0 - 1, y0 + 2, green);
        fill(x0, std::max(x0, x1), y1 - 1, y1 + 2, green);
        fill(x0 - 1, x0 + 2, y0, std::max(y0, y1), green);
        fill(x1 - 1, x1 + 2, y0, std::max(y0, y1), green);
    }
}

void drawTileOutline(const Ptr<Image>& image, const TiledExecution::Tile& tile) {
    if (image->getMemoryLayout() != Image::HWC) ML_THROW("drawTileOutline only implemented for HWC images");
    const u32 type = image->getDataType();
    if (type != U8 && type != F16 && type != F32) ML_THROW("unexpected dtype for drawTileOutline ?");

    const Rect rect = image->getRect();
    const u32 channels = channelCount(image->getChannelFormat());
    const u64 pixelBytes = static_cast<u64>(channels) * bytesPerElement(type);
    const u64 rowBytes = image->getRowBytes();
    auto* base = static_cast<u8*>(image->getData());
    auto dot = [&](i32 px, i32 py) {
        for (i64 y = static_cast<i64>(py) - 1; y < static_cast<i64>(py) + 2; ++y)
            for (i64 x = static_cast<i64>(px) - 1; x < static_cast<i64>(px) + 2; ++x) {
                if (x < rect.x0 || x >= rect.x1 || y < rect.y0 || y >= rect.y1) continue;
                redPixel(base + static_cast<u64>(y - rect.y0) * rowBytes + static_cast<u64>(x - rect.x0) * pixelBytes,
                         type, channels);
            }
    };
    const Rect& d = tile.dstRect;
    for (i32 x = d.x0; x <= d.x1; ++x) {
        dot(x, d.y0);
        dot(x, d.y1);
    }
    for (i32 y = d.y0; y <= d.y1; ++y) {
        dot(d.x0, y);
        dot(d.x1, y);
    }
}

}  // namespace ML
