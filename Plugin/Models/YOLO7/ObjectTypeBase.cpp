#include "Plugin/Models/YOLO7/ObjectTypeBase.h"

#include <cmath>

#include "Plugin/Models/YOLO7/Face.h"
#include "Plugin/Models/YOLO7/LicensePlate.h"
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

ObjectTypeMap makeObjectTypes() {
    ObjectTypeMap types;
    for (std::shared_ptr<ObjectTypeBase> type : {std::shared_ptr<ObjectTypeBase>(std::make_shared<Face>()),
                                                 std::shared_ptr<ObjectTypeBase>(std::make_shared<LicensePlate>())})
        types.emplace(type->name, std::move(type));
    return types;
}

}  // namespace ML::YOLO7
