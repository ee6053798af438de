#include "Plugin/TiledExecution.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

#include "ML/Exception.h"
#include "Plugin/PluginLogger.h"
#include "Util/ML_Util.h"

namespace ML {
namespace TiledExecution {

namespace {

// A float that is already a whole number, as i32; out-of-range values are clamped so that
// a degenerate scale cannot make the conversion undefined.
i32 toI32(float value) {
    constexpr float lo = static_cast<float>(std::numeric_limits<i32>::min());
    constexpr float hi = 2147483520.0f;  // largest float below 2^31
    if (std::isnan(value)) return 0;
    return static_cast<i32>(std::min(std::max(value, lo), hi));
}

i32 saturateI32(i64 value) {
    return static_cast<i32>(
        std::min<i64>(std::max<i64>(value, std::numeric_limits<i32>::min()), std::numeric_limits<i32>::max()));
}

}  // namespace

Tile1D tileAxisX(const Tile& tile) {
    Tile1D t;
    t.srcStart = tile.srcRect.x0;
    t.srcEnd = tile.srcRect.x1;
    t.srcTileStart = tile.srcTileRect.x0;
    t.srcTileEnd = tile.srcTileRect.x1;
    t.dstStart = tile.dstRect.x0;
    t.dstEnd = tile.dstRect.x1;
    t.dstTileStart = tile.dstTileRect.x0;
    t.dstTileEnd = tile.dstTileRect.x1;
    return t;
}

Tile1D tileAxisY(const Tile& tile) {
    Tile1D t;
    t.srcStart = tile.srcRect.y0;
    t.srcEnd = tile.srcRect.y1;
    t.srcTileStart = tile.srcTileRect.y0;
    t.srcTileEnd = tile.srcTileRect.y1;
    t.dstStart = tile.dstRect.y0;
    t.dstEnd = tile.dstRect.y1;
    t.dstTileStart = tile.dstTileRect.y0;
    t.dstTileEnd = tile.dstTileRect.y1;
    return t;
}

Tile makeTile(const Tile1D& x, const Tile1D& y) {
    Tile tile;
    tile.srcRect = Rect{x.srcStart, y.srcStart, x.srcEnd, y.srcEnd};
    tile.srcTileRect = Rect{x.srcTileStart, y.srcTileStart, x.srcTileEnd, y.srcTileEnd};
    tile.dstRect = Rect{x.dstStart, y.dstStart, x.dstEnd, y.dstEnd};
    tile.dstTileRect = Rect{x.dstTileStart, y.dstTileStart, x.dstTileEnd, y.dstTileEnd};
    return tile;
}

std::vector<Tile1D> makeTiles1D(i32 start, i32 end, i32 execSize, i32 overlap) {
    const i64 s = start;
    const i64 e = end;
    const i64 E = execSize;
    const i64 O = overlap;

    // A range that fits: one short tile, padded up to the execution size when it is filled.
    if (e - s <= E) {
        const i32 length = static_cast<i32>(e - s);
        return {Tile1D{start, end, 0, length, start, end, 0, length}};
    }

    if (O < 0) ML_THROW("tile overlap must not be negative: " + std::to_string(overlap));
    if (E - 2 * O <= 0)
        ML_THROW("execution size " + std::to_string(execSize) + " must be larger than twice the overlap " +
                 std::to_string(overlap));

    auto tile = [](i64 srcStart, i64 srcEnd, i64 srcTileStart, i64 srcTileEnd, i64 dstStart, i64 dstEnd,
                   i64 dstTileStart, i64 dstTileEnd) {
        return Tile1D{static_cast<i32>(srcStart),     static_cast<i32>(srcEnd),    static_cast<i32>(srcTileStart),
                      static_cast<i32>(srcTileEnd),   static_cast<i32>(dstStart),  static_cast<i32>(dstEnd),
                      static_cast<i32>(dstTileStart), static_cast<i32>(dstTileEnd)};
    };

    std::vector<Tile1D> tiles;
    // First tile: nothing is discarded on the side of the region's border.
    tiles.push_back(tile(s, s + E, 0, E, s, s + E - O, 0, E - O));

    // Inner tiles: overlap pixels discarded on both sides.
    i64 out = s + E - O;
    while (out - O + E < e) {
        tiles.push_back(tile(out - O, out - O + E, 0, E, out, out + E - 2 * O, O, E - O));
        out += E - 2 * O;
    }

    // Last tile: pushed back to end on the region's end; its crop starts where `out` falls.
    tiles.push_back(tile(e - E, e, 0, E, out, e, out - e + E, E));
    return tiles;
}

ExecutionPlan makePlan(const Rect& rect, i32 execW, i32 execH, i32 overlap) {
    const std::vector<Tile1D> xs = makeTiles1D(rect.x0, rect.x1, execW, overlap);
    const std::vector<Tile1D> ys = makeTiles1D(rect.y0, rect.y1, execH, overlap);

    ExecutionPlan plan;
    plan.rect = rect;
    plan.execW = execW;
    plan.execH = execH;
    plan.overlap = overlap;
    plan.tiles.reserve(xs.size() * ys.size());
    for (const Tile1D& x : xs)
        for (const Tile1D& y : ys) plan.tiles.push_back(makeTile(x, y));
    plan.numTiles = static_cast<i32>(plan.tiles.size());
    plan.execPixels = saturateI32(static_cast<i64>(execW) * execH * plan.numTiles);
    return plan;
}

ExecutionPlan choosePlan(const Rect& rect, const ExecutionPlanMap& planMap, i32 overlap) {
    const std::vector<ExecSize>& sizes = planMap.sizes();
    if (sizes.empty()) ML_THROW("no valid available execution plan?");

    ExecutionPlan best;
    float bestScore = 0.0f;
    for (size_t i = 0; i < sizes.size(); ++i) {
        ExecutionPlan plan = makePlan(rect, sizes[i].second, sizes[i].first, overlap);
        // Pixels run through the network plus 100 pixels' worth of cost for each tile.
        const float score = static_cast<float>(plan.numTiles * 100.0 + plan.execPixels);
        if (i == 0 || score < bestScore) {
            best = std::move(plan);
            bestScore = score;
        }
    }
    return best;
}

ExecutionPlanMap::ExecutionPlanMap(std::vector<ExecSize> availableSizes) : availableSizes(std::move(availableSizes)) {}

const ExecutionPlan& ExecutionPlanMap::get(const Rect& rect, i32 overlap) {
    std::lock_guard<std::mutex> lock(mutex);
    const Key key{rect.x0, rect.y0, rect.x1, rect.y1, overlap};
    auto it = plans.find(key);
    if (it == plans.end()) it = plans.emplace(key, choosePlan(rect, *this, overlap)).first;
    // Map nodes never move and entries are never erased, so the reference outlives the lock.
    return it->second;
}

Tile1D mapTileToUpresInput(const Tile1D& tile, i32 limitStart, i32 limitEnd, i32 execOut, i32 factor, i32 origin) {
    Tile1D result = tile;

    if (factor <= 0 || execOut % factor != 0) ML_THROW("exec size out should be multiple of upres factor!");
    const i32 execIn = execOut / factor;

    // Integer division truncates toward zero and % keeps the dividend's sign.
    i32 inStart = (tile.srcStart - origin) / factor + origin;
    const i32 remainder = (tile.srcStart - origin) % factor;
    i32 inEnd = (tile.srcEnd - origin) / factor + origin;

    // A source start off the factor's grid moves the crop.
    result.dstTileStart += remainder;
    result.dstTileEnd += remainder;

    if (result.dstTileEnd > execOut) {
        result.dstTileStart -= factor;
        result.dstTileEnd -= factor;
        inStart += 1;
        inEnd += 1;
    }
    if (result.dstTileStart < 0) ML_THROW("patch out of range?");

    if (inStart < limitStart) ML_THROW("input start out of range?");
    if (inEnd > limitEnd) ML_THROW("input end out of range?");

    const i32 length = inEnd - inStart;
    if (length > execIn) ML_THROW("Whaa?");

    if (length == execIn) {
        result.srcTileEnd = execIn;
        result.srcEnd = inEnd;
    } else {
        // A short tile is only expected at the start of the result.
        if (tile.dstStart / factor != inStart) ML_THROW("huh?\n");
        // Widen on the right as far as the input allows.
        const i32 extra = std::min(execIn - length, limitEnd - inEnd);
        result.srcTileEnd = length + extra;
        result.srcEnd = inEnd + extra;
    }

    result.srcStart = inStart;
    result.srcTileStart = 0;
    return result;
}

namespace {
// A copy of the plan whose tiles have their source side mapped, axis by axis, by mapAxis(tile
// axis, limit start, limit end, execution size, origin).
template <class MapAxis>
ExecutionPlan mapPlanSources(const ExecutionPlan& plan, const Rect& inputRect, i32 originX, i32 originY,
                             MapAxis&& mapAxis) {
    ExecutionPlan mapped = plan;
    for (Tile& tile : mapped.tiles) {
        const Tile1D x = mapAxis(tileAxisX(tile), inputRect.x0, inputRect.x1, plan.execW, originX);
        const Tile1D y = mapAxis(tileAxisY(tile), inputRect.y0, inputRect.y1, plan.execH, originY);
        tile = makeTile(x, y);
    }
    return mapped;
}
}  // namespace

ExecutionPlan mapPlanToUpresInput(const ExecutionPlan& plan, const Rect& inputRect, i32 factor, i32 originX,
                                  i32 originY) {
    return mapPlanSources(plan, inputRect, originX, originY,
                          [factor](const Tile1D& t, i32 lo, i32 hi, i32 exec, i32 origin) {
                              return mapTileToUpresInput(t, lo, hi, exec, factor, origin);
                          });
}

Tile1D mapTileToScaledInput(const Tile1D& tile, i32 limitStart, i32 limitEnd, i32 exec, float scale, i32 origin) {
    Tile1D result = tile;

    // Source positions of the tile's source range, widened to whole pixels. The window arithmetic
    // below is done in 64 bits so that a degenerate scale cannot overflow it.
    const float originF = static_cast<float>(origin);
    const i64 lo = limitStart;
    const i64 hi = limitEnd;
    const i64 E = exec;
    const i64 start = std::max(
        lo, static_cast<i64>(toI32(std::floor((static_cast<float>(tile.srcStart) - originF) / scale + originF))));
    const i64 end =
        std::min(static_cast<i64>(toI32(std::ceil((static_cast<float>(tile.srcEnd) - originF) / scale + originF))), hi);

    i64 srcStart, srcEnd, srcTileStart, srcTileEnd;
    if (start == lo) {
        srcStart = start;
        srcEnd = std::min(start + E, hi);
        srcTileEnd = srcEnd - srcStart;
        srcTileStart = 0;
    } else if (end == hi) {
        // The input sits at the right end of the tile; a narrow image leaves the left part empty.
        const i64 first = std::max(lo, end - E);
        srcStart = first;
        srcEnd = end;
        srcTileStart = first - end + E;
        srcTileEnd = E;
    } else {
        if (end - start >= E) ML_THROW("???\n");
        // Centre the range in an execution window (integer halving truncates toward zero).
        const i64 first = std::max(lo, start - (E + start - end) / 2);
        srcStart = first;
        srcEnd = std::min(first + E, hi);
        srcTileEnd = srcEnd - first;
        srcTileStart = 0;
    }
    result.srcStart = saturateI32(srcStart);
    result.srcEnd = saturateI32(srcEnd);
    result.srcTileStart = saturateI32(srcTileStart);
    result.srcTileEnd = saturateI32(srcTileEnd);
    return result;
}

ExecutionPlan mapPlanToScaledInput(const ExecutionPlan& plan, const Rect& inputRect, float scale, i32 originX,
                                   i32 originY) {
    return mapPlanSources(plan, inputRect, originX, originY,
                          [scale](const Tile1D& t, i32 lo, i32 hi, i32 exec, i32 origin) {
                              return mapTileToScaledInput(t, lo, hi, exec, scale, origin);
                          });
}

void copySrcToTileWithBorderPadding(const Tile& tile, const Ptr<Image>& sourceImage, const Ptr<Image>& tileImage) {
    const Rect& src = tile.srcRect;
    const Rect& dst = tile.srcTileRect;
    copySlice(sourceImage, tileImage, src, dst);

    const Rect tileRect = tileImage->getRect();
    if (tileRect.x0 != 0 || tileRect.y0 != 0) ML_THROW("expected tile rect to start at 0?");

    if (dst.x0 > 0) logWarning("TODO: pad left in copySrcToTileWithBorderPadding");
    if (dst.y0 > 0) logWarning("TODO: pad top in copySrcToTileWithBorderPadding");

    const i32 width = tileRect.x1;
    const i32 height = tileRect.y1;

    // Repeat the last column to the right edge.
    const Rect lastColumn{src.x1 - 1, src.y0, src.x1, src.y1};
    for (i32 x = dst.x1; x < width; ++x) copySlice(sourceImage, tileImage, lastColumn, Rect{x, dst.y0, x + 1, dst.y1});

    // Repeat the last row to the bottom edge.
    const Rect lastRow{src.x0, src.y1 - 1, src.x1, src.y1};
    for (i32 y = dst.y1; y < height; ++y) copySlice(sourceImage, tileImage, lastRow, Rect{dst.x0, y, dst.x1, y + 1});

    // The corner beyond both ends takes the source's corner pixel: its first row pixel by pixel,
    // the rows below as copies of that row.
    if (dst.x1 < width && dst.y1 < height) {
        const Rect corner{src.x1 - 1, src.y1 - 1, src.x1, src.y1};
        for (i32 x = dst.x1; x < width; ++x)
            copySlice(sourceImage, tileImage, corner, Rect{x, dst.y1, x + 1, dst.y1 + 1});
        const Rect cornerRow{dst.x1, dst.y1, width, dst.y1 + 1};
        for (i32 y = dst.y1 + 1; y < height; ++y)
            copySlice(tileImage, tileImage, cornerRow, Rect{dst.x1, y, width, y + 1});
    }
}

}  // namespace TiledExecution
}  // namespace ML
