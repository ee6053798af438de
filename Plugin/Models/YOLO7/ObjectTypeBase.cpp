#include "Plugin/Models/YOLO7/ObjectTypeBase.h"

#include <cmath>

#include "Plugin/Models/YOLO7/RenderState.h"
#include "Util/ML_Util.h"

namespace ML::YOLO7 {

IntBox integerBox(const Detection& d) {
    return {static_cast<int>(std::ceil(d.x1)), static_cast<int>(std::ceil(d.y1)), static_cast<int>(std::floor(d.x2)),
            static_cast<int>(std::floor(d.y2))};
}

Ptr<Image> maskView(const RenderState& state) {
    if (!state.maskImage) return {};
    return makeNewImageView(state.maskImage, state.roi);
}

}  // namespace ML::YOLO7
