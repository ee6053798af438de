#include "Plugin/Models/SAM/Prompts.h"

#include <type_traits>

#include "ML/Exception.h"
#include "Plugin/PluginLogger.h"

namespace ML::SAM {

namespace {

float mapX(const PromptMapping& m, float x) {
    return (x - static_cast<float>(m.rect.x0)) / static_cast<float>(m.rect.width()) * static_cast<float>(m.execW);
}
float mapY(const PromptMapping& m, float y) {
    return (y - static_cast<float>(m.rect.y0)) / static_cast<float>(m.rect.height()) * static_cast<float>(m.execH);
}

template <class T>
void append(const PromptMapping& m, PromptArrays<T>& a, float x, float y, float label) {
    const size_t i = static_cast<size_t>(a.used++);
    if constexpr (std::is_same_v<T, Imath::half>) {
        const float hx = static_cast<float>(Imath::half(x)), hy = static_cast<float>(Imath::half(y));
        a.coords[2 * i] = Imath::half(mapX(m, hx));
        a.coords[2 * i + 1] = Imath::half(mapY(m, hy));
    } else {
        a.coords[2 * i] = mapX(m, x);
        a.coords[2 * i + 1] = mapY(m, y);
    }
    a.labels[i] = T(label);
    a.valid[i] = T(1.0f);
}

template <class T>
void appendBox(const PromptMapping& m, PromptArrays<T>& arrays, const float* box) {
    append(m, arrays, box[0], box[1], 2.0f);
    append(m, arrays, box[2], box[3], 3.0f);
}

PromptMapping mappingOf(const RenderState& rs, const TempState& ts) { return {rs.rect, ts.h, ts.w, ts.n}; }
Prompt promptOf(const RenderState& rs) { return {rs.positivePoints, rs.negativePoints, rs.boxes}; }

template <class T>
void upload(const PromptArrays<T>& arrays, TempState& ts) {
    ts.prompts.coords->upload(arrays.coords.data());
    ts.prompts.labels->upload(arrays.labels.data());
    ts.prompts.valid->upload(arrays.valid.data());
}

}  // namespace

i32 Prompt::entries() const {
    return static_cast<i32>(positive.size() / 2 + negative.size() / 2 + 2 * (boxes.size() / 4));
}

template <class T>
PromptArrays<T> pointPromptArrays(const Prompt& prompt, const PromptMapping& m) {
    if (prompt.entries() > m.entries)
        ML_THROW("max number of total query points (positive+negative+bbox corners) is " + std::to_string(m.entries) +
                 " . (this could be modified if we need, but testing so far suggests diminishing returns in result "
                 "quality past this point)");
    if (prompt.boxes.size() > 4) logWarning("It is recommended to only use a single bounding box!");
    PromptArrays<T> arrays(m.entries);
    for (size_t b = 0; b + 3 < prompt.boxes.size(); b += 4) appendBox(m, arrays, &prompt.boxes[b]);
    for (size_t p = 0; p + 1 < prompt.positive.size(); p += 2)
        append(m, arrays, prompt.positive[p], prompt.positive[p + 1], 1.0f);
    for (size_t p = 0; p + 1 < prompt.negative.size(); p += 2)
        append(m, arrays, prompt.negative[p], prompt.negative[p + 1], 0.0f);
    return arrays;
}

template <class T>
PromptArrays<T> boxPromptArrays(const PromptMapping& m, const float* box) {
    PromptArrays<T> arrays(m.entries);
    appendBox(m, arrays, box);
    return arrays;
}

template PromptArrays<float> pointPromptArrays<float>(const Prompt&, const PromptMapping&);
template PromptArrays<Imath::half> pointPromptArrays<Imath::half>(const Prompt&, const PromptMapping&);
template PromptArrays<float> boxPromptArrays<float>(const PromptMapping&, const float*);
template PromptArrays<Imath::half> boxPromptArrays<Imath::half>(const PromptMapping&, const float*);

void setPointPrompts_F32(const RenderState& rs, TempState& ts) {
    upload(pointPromptArrays<float>(promptOf(rs), mappingOf(rs, ts)), ts);
}
void setPointPrompts_F16(const RenderState& rs, TempState& ts) {
    upload(pointPromptArrays<Imath::half>(promptOf(rs), mappingOf(rs, ts)), ts);
}
void setBoxPrompt_F32(const RenderState& rs, TempState& ts, const float* box) {
    upload(boxPromptArrays<float>(mappingOf(rs, ts), box), ts);
}
void setBoxPrompt_F16(const RenderState& rs, TempState& ts, const float* box) {
    upload(boxPromptArrays<Imath::half>(mappingOf(rs, ts), box), ts);
}

void setPointPrompts(const RenderState& rs, TempState& ts) {
    if (ts.dataType == F16)
        setPointPrompts_F16(rs, ts);
    else if (ts.dataType == F32)
        setPointPrompts_F32(rs, ts);
    else
        ML_THROW("Unexpected internal dtype!");
}

}  // namespace ML::SAM
