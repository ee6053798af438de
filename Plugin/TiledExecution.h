#pragma once
// Tile planning: cuts a region into tiles of a network's fixed execution size.
//
// A tile says which source pixels to read (src), where they go in the network's input tile
// (srcTile), which result pixels it produces (dst) and where those lie in the network's output
// tile (dstTile). Tiles do not blend: each result pixel comes from exactly one tile, and
// `overlap` pixels are discarded on every inner side of a tile to hide seams.
#include <map>
#include <mutex>
#include <tuple>
#include <utility>
#include <vector>

#include "ML/ImageImp.h"
#include "ML/Rect.h"
#include "ML/Types.h"

namespace ML {
namespace TiledExecution {

// One axis of a tile. All ranges are half-open.
struct Tile1D {
    // Source pixels to read.
    i32 srcStart = 0;
    i32 srcEnd = 0;
    // Where they go in the network's input tile.
    i32 srcTileStart = 0;
    i32 srcTileEnd = 0;
    // Result pixels this tile produces.
    i32 dstStart = 0;
    i32 dstEnd = 0;
    // Where they are found in the network's output tile.
    i32 dstTileStart = 0;
    i32 dstTileEnd = 0;

    bool operator==(const Tile1D& o) const {
        return srcStart == o.srcStart && srcEnd == o.srcEnd && srcTileStart == o.srcTileStart &&
               srcTileEnd == o.srcTileEnd && dstStart == o.dstStart && dstEnd == o.dstEnd &&
               dstTileStart == o.dstTileStart && dstTileEnd == o.dstTileEnd;
    }
    bool operator!=(const Tile1D& o) const { return !(*this == o); }
};

// Both axes of a tile as four rectangles (x from the x Tile1D, y from the y Tile1D).
struct Tile {
    Rect srcRect;
    Rect srcTileRect;
    Rect dstRect;
    Rect dstTileRect;

    bool operator==(const Tile& o) const {
        return srcRect == o.srcRect && srcTileRect == o.srcTileRect && dstRect == o.dstRect &&
               dstTileRect == o.dstTileRect;
    }
    bool operator!=(const Tile& o) const { return !(*this == o); }
};

// The x or y axis of a tile, and a tile put together from its two axes.
Tile1D tileAxisX(const Tile& tile);
Tile1D tileAxisY(const Tile& tile);
Tile makeTile(const Tile1D& x, const Tile1D& y);

struct ExecutionPlan {
    Rect rect;                // the planned rectangle, in result coordinates
    i32 execW = 0;            // execution width
    i32 execH = 0;            // execution height
    i32 overlap = 0;          // pixels discarded on each inner side of a tile
    std::vector<Tile> tiles;  // x tiles outer, y tiles inner
    i32 numTiles = 0;         // tiles.size()
    i32 execPixels = 0;       // execW * execH * numTiles
};

// Tiles of one axis for the range [start, end). A range no longer than execSize gives one short
// tile; otherwise every tile has execSize pixels and the last one ends exactly on `end`.
// execSize must be larger than twice the overlap whenever the range is longer than execSize.
std::vector<Tile1D> makeTiles1D(i32 start, i32 end, i32 execSize, i32 overlap);

// Plan for one execution size: the cross product of the x and y tiles, x in the outer loop.
ExecutionPlan makePlan(const Rect& rect, i32 execW, i32 execH, i32 overlap);

// An available execution size: first the height, then the width.
using ExecSize = std::pair<i32, i32>;

// Execution sizes from any list of records with `execH` and `execW` (such as a model's tile sizes).
template <class Sizes>
std::vector<ExecSize> toExecSizes(const Sizes& sizes) {
    std::vector<ExecSize> result;
    for (const auto& s : sizes) result.emplace_back(s.execH, s.execW);
    return result;
}

// Plans of one set of execution sizes, made on demand and kept for the life of the map.
// Several threads may share one map; references returned by get stay valid as long as the map.
class ExecutionPlanMap {
public:
    explicit ExecutionPlanMap(std::vector<ExecSize> availableSizes);
    ExecutionPlanMap(const ExecutionPlanMap&) = delete;
    ExecutionPlanMap& operator=(const ExecutionPlanMap&) = delete;

    const ExecutionPlan& get(const Rect& rect, i32 overlap);
    const std::vector<ExecSize>& sizes() const { return availableSizes; }

private:
    using Key = std::tuple<i32, i32, i32, i32, i32>;  // x0, y0, x1, y1, overlap

    std::vector<ExecSize> availableSizes;
    std::mutex mutex;
    std::map<Key, ExecutionPlan> plans;
};

// The cheapest plan among the map's sizes: score numTiles * 100 + execPixels, the earlier size
// winning a tie. Throws when the map has no sizes.
ExecutionPlan choosePlan(const Rect& rect, const ExecutionPlanMap& planMap, i32 overlap);

// For networks that enlarge by an integer factor: the plan is laid out on the output grid with
// execution sizes in output pixels; the mapped tiles read the input pixels each tile needs.
// Input position i and output position o relate by o = (i - origin) * factor + origin.
Tile1D mapTileToUpresInput(const Tile1D& tile, i32 limitStart, i32 limitEnd, i32 execOut, i32 factor, i32 origin);
ExecutionPlan mapPlanToUpresInput(const ExecutionPlan& plan, const Rect& inputRect, i32 factor, i32 originX,
                                  i32 originY);

// For a scale that need not be whole: source ranges are mapped and placed in an execution window
// of the plan's size; the result side of each tile is left as it is.
Tile1D mapTileToScaledInput(const Tile1D& tile, i32 limitStart, i32 limitEnd, i32 exec, float scale, i32 origin);
ExecutionPlan mapPlanToScaledInput(const ExecutionPlan& plan, const Rect& inputRect, float scale, i32 originX,
                                   i32 originY);

// Copies the tile's source pixels into the tile image (whose rectangle starts at 0, 0) and fills
// the rest of the tile image to its right and bottom edges by repeating the last column, the
// last row and the corner pixel.
void copySrcToTileWithBorderPadding(const Tile& tile, const Ptr<Image>& sourceImage, const Ptr<Image>& tileImage);

}  // namespace TiledExecution
}  // namespace ML
