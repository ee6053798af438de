#pragma once
#include <string>

#include "ML/Types.h"

namespace ML {

// Half-open rectangle: x1 and y1 are one past the last pixel.
struct Rect {
    i32 x0 = 0;
    i32 y0 = 0;
    i32 x1 = 0;
    i32 y1 = 0;

    i32 width() const { return x1 - x0; }
    i32 height() const { return y1 - y0; }
    // No pixels: zero or negative width or height.
    bool isEmpty() const { return x1 <= x0 || y1 <= y0; }
    bool operator==(const Rect& o) const { return x0 == o.x0 && y0 == o.y0 && x1 == o.x1 && y1 == o.y1; }
    bool operator!=(const Rect& o) const { return !(*this == o); }
    // "(x0,y0->x1,y1)"
    std::string toString() const {
        return "(" + std::to_string(x0) + "," + std::to_string(y0) + "->" + std::to_string(x1) + "," +
               std::to_string(y1) + ")";
    }
};

// True when a contains b.
inline bool covers(const Rect& a, const Rect& b) { return a.x0 <= b.x0 && a.y0 <= b.y0 && a.x1 >= b.x1 && a.y1 >= b.y1; }

}  // namespace ML
