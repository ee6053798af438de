#include "Plugin/Models/SAM/Prompts.h"

#include <type_traits>

#include "ML/Exception.h"
#include "Plugin/PluginLogger.h"

namespace ML::SAM {

namespace {

// Image pixels to execution pixels. In half precision the coordinate is rounded to half first,
// mapped in float, and rounded to half again, as a half-precision prompt path does.
float mapX(const RenderState& rs, const TempState& ts, float x) {
    return (x - static_cast<float>(rs.rect.x0)) / static_cast<float>(rs.rect.width()) * static_cast<float>(ts.w);
}
float mapY(const RenderState& rs, const TempState& ts, float y) {
    return (y - static_cast<float>(rs.rect.y0)) / static_cast<float>(rs.rect.height()) * static_cast<float>(ts.h);
}

template <class T>
void append(const RenderState& rs, const TempState& ts, PromptArrays<T>& a, float x, float y, float label) {
    const size_t i = static_cast<size_t>(a.used++);
    if constexpr (std::is_same_v<T, Imath::half>) {
        const float hx = static_cast<float>(Imath::half(x)), hy = static_cast<float>(Imath::half(y));
        a.coords[2 * i] = Imath::half(mapX(rs, ts, hx));
        a.coords[2 * i + 1] = Imath::half(mapY(rs, ts, hy));
    } else {
        a.coords[2 * i] = mapX(rs, ts, x);
        a.coords[2 * i + 1] = mapY(rs, ts, y);
    }
    a.labels[i] = T(label);
    a.valid[i] = T(1.0f);
}

template <class T>
void setBox(const RenderState& rs, const TempState& ts, PromptArrays<T>& arrays, const float* box) {
    append(rs, ts, arrays, box[0], box[1], 2.0f);
    append(rs, ts, arrays, box[2], box[3], 3.0f);
}

template <class T>
void setPoints(const RenderState& rs, TempState& ts) {
    if (promptEntries(rs) > rs.singleMaxPoints)
        ML_THROW("max number of total query points (positive+negative+bbox corners) is " +
                 std::to_string(rs.singleMaxPoints) +
                 " . (this could be modified if we need, but testing so far suggests diminishing returns in result "
                 "quality past this point)");
    if (rs.boxes.size() > 4) logWarning("It is recommended to only use a single bounding box!");
    PromptArrays<T> arrays(ts.n);
    for (size_t b = 0; b + 3 < rs.boxes.size(); b += 4) setBox(rs, ts, arrays, &rs.boxes[b]);
    for (size_t p = 0; p + 1 < rs.positivePoints.size(); p += 2)
        append(rs, ts, arrays, rs.positivePoints[p], rs.positivePoints[p + 1], 1.0f);
    for (size_t p = 0; p + 1 < rs.negativePoints.size(); p += 2)
        append(rs, ts, arrays, rs.negativePoints[p], rs.negativePoints[p + 1], 0.0f);
    ts.prompts.coords->upload(arrays.coords.data());
    ts.prompts.labels->upload(arrays.labels.data());
    ts.prompts.valid->upload(arrays.valid.data());
}

}  // namespace

i32 promptEntries(const RenderState& rs) {
    return static_cast<i32>(rs.positivePoints.size() / 2 + rs.negativePoints.size() / 2 + 2 * (rs.boxes.size() / 4));
}

void setBoxPrompt_F32(const RenderState& rs, const TempState& ts, PromptArrays<float>& arrays, const float* box) {
    setBox(rs, ts, arrays, box);
}

void setBoxPrompt_F16(const RenderState& rs, const TempState& ts, PromptArrays<Imath::half>& arrays, const float* box) {
    setBox(rs, ts, arrays, box);
}

void setPointPrompts_F32(const RenderState& rs, TempState& ts) { setPoints<float>(rs, ts); }
void setPointPrompts_F16(const RenderState& rs, TempState& ts) { setPoints<Imath::half>(rs, ts); }

void setPointPrompts(const RenderState& rs, TempState& ts) {
    if (ts.dataType == F16)
        setPointPrompts_F16(rs, ts);
    else if (ts.dataType == F32)
        setPointPrompts_F32(rs, ts);
    else
        ML_THROW("Unexpected internal dtype!");
}

}  // namespace ML::SAM
