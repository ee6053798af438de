#pragma once
// The prompt of one render as the decoder reads it: boxes as two corner entries (labels 2 and 3),
// then positive points (label 1), then negative points (label 0), in execution pixels, padded with
// zero entries that are marked invalid.
#include <Imath/half.h>

#include <vector>

#include "Plugin/Models/SAM/RenderState.h"
#include "Plugin/Models/SAM/TempState.h"

namespace ML::SAM {

// Host copies of the three prompt tensors of one entry count, in one element type.
template <class T>
struct PromptArrays {
    explicit PromptArrays(i32 n)
        : coords(2 * static_cast<size_t>(n), T(0.0f)),
          labels(static_cast<size_t>(n), T(0.0f)),
          valid(static_cast<size_t>(n), T(0.0f)) {}
    std::vector<T> coords, labels, valid;
    i32 used = 0;
};

// What a prompt is mapped by: the region of interest in image pixels, onto the execution shape.
struct PromptMapping {
    Rect rect;
    i32 execH = 0, execW = 0;
    i32 entries = 0;  // length of the prompt tensors, "singleMaxPoints"
};

// Points and boxes in image pixels: x, y pairs and x0, y0, x1, y1 quadruples.
struct Prompt {
    const std::vector<float>& positive;
    const std::vector<float>& negative;
    const std::vector<float>& boxes;
    i32 entries() const;  // points plus two per box
};

// The arrays of a prompt's points and boxes. Fails when they take more than m.entries; warns
// about more than one box. T is float or Imath::half: in half precision a coordinate is rounded
// to half, mapped in float, and rounded to half again.
template <class T>
PromptArrays<T> pointPromptArrays(const Prompt& prompt, const PromptMapping& m);
// The arrays of one box (x0, y0, x1, y1 in image pixels) alone: its two corner entries.
template <class T>
PromptArrays<T> boxPromptArrays(const PromptMapping& m, const float* box);

// Fill and upload the single decoder's prompt tensors: from the render's points and boxes, or
// from one box alone.
void setPointPrompts_F32(const RenderState& rs, TempState& ts);
void setPointPrompts_F16(const RenderState& rs, TempState& ts);
void setBoxPrompt_F32(const RenderState& rs, TempState& ts, const float* box);
void setBoxPrompt_F16(const RenderState& rs, TempState& ts, const float* box);
// The variant of the state's element type.
void setPointPrompts(const RenderState& rs, TempState& ts);

}  // namespace ML::SAM
