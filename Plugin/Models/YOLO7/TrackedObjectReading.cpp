#include "Plugin/Models/YOLO7/TrackedObjectReading.h"

namespace ML::YOLO7 {

void to_json(nlohmann::json& j, const TrackedObjectReading& r) {
    j = nlohmann::json{{"pos", r.pos},
                       {"scale", r.scale},
                       {"rot", r.rot},
                       {"bbox", r.bbox},
                       {"reIdEnabled", r.reIdEnabled},
                       {"reIdEmbedding", r.reIdEmbedding}};
}

void from_json(const nlohmann::json& j, TrackedObjectReading& r) {
    j.at("pos").get_to(r.pos);
    j.at("scale").get_to(r.scale);
    j.at("rot").get_to(r.rot);
    j.at("bbox").get_to(r.bbox);
    j.at("reIdEnabled").get_to(r.reIdEnabled);
    j.at("reIdEmbedding").get_to(r.reIdEmbedding);
}

}  // namespace ML::YOLO7
