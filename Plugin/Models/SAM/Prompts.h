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

// Entries a prompt takes: points plus two per box.
i32 promptEntries(const RenderState& rs);

// Appends one box (x0, y0, x1, y1 in image pixels) as its two corner entries.
void setBoxPrompt_F32(const RenderState& rs, const TempState& ts, PromptArrays<float>& arrays, const float* box);
void setBoxPrompt_F16(const RenderState& rs, const TempState& ts, PromptArrays<Imath::half>& arrays, const float* box);

// Fills and uploads the single decoder's prompt tensors. Fails when the prompt takes more than
// "singleMaxPoints" entries; warns about more than one box.
void setPointPrompts_F32(const RenderState& rs, TempState& ts);
void setPointPrompts_F16(const RenderState& rs, TempState& ts);
// The variant of the state's element type.
void setPointPrompts(const RenderState& rs, TempState& ts);

}  // namespace ML::SAM
