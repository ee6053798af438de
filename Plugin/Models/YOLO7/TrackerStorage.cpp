// The stored form of tracker states: JSON of the filter, the tracks and the state, and the
// MessagePack buffer that the host keeps per frame. Kept apart from the tracker's arithmetic so
// that the decoder builds alone (the fuzz harness of tracker states compiles just this).
#include <algorithm>
#include <climits>
#include <string>

#include "Plugin/Models/YOLO7/Tracker.h"

namespace ML::YOLO7 {

namespace {

[[noreturn]] void refuse(const std::string& what) {
    throw nlohmann::json::other_error::create(501, "corrupt tracker state: " + what, nullptr);
}

// What the update relies on: rings as long as the readings so far (up to the history length),
// counters that can take one more step without overflowing.
void check(const TrackedObject& o) {
    const KalmanFilterState& f = o.filter_state;
    if (f.num_readings < 1 || f.num_readings == INT_MAX) refuse("num_readings");
    const std::size_t ring = static_cast<std::size_t>(std::min(f.num_readings, f.history_length));
    if (f.past_scales.size() != ring || f.past_rots.size() != ring) refuse("ring length");
    if (o.age < 0 || o.age == INT_MAX) refuse("age");
    if (o.hit_counter == INT_MIN || o.hit_counter > INT_MAX - 2) refuse("hit_counter");
}

}  // namespace

void to_json(nlohmann::json& j, const KalmanFilterState& s) {
    j = nlohmann::json{{"dim_z", s.dim_z},
                       {"x", s.x},
                       {"pos_var", s.pos_var},
                       {"pos_vel_covar", s.pos_vel_covar},
                       {"vel_var", s.vel_var},
                       {"q", s.q},
                       {"r", s.r},
                       {"num_readings", s.num_readings},
                       {"past_scales", s.past_scales},
                       {"past_rots", s.past_rots},
                       {"current_estimate", s.current_estimate}};
}

void from_json(const nlohmann::json& j, KalmanFilterState& s) {
    s = KalmanFilterState{};
    j.at("dim_z").get_to(s.dim_z);
    j.at("x").get_to(s.x);
    j.at("pos_var").get_to(s.pos_var);
    j.at("pos_vel_covar").get_to(s.pos_vel_covar);
    j.at("vel_var").get_to(s.vel_var);
    j.at("q").get_to(s.q);
    j.at("r").get_to(s.r);
    j.at("num_readings").get_to(s.num_readings);
    j.at("past_scales").get_to(s.past_scales);
    j.at("past_rots").get_to(s.past_rots);
    j.at("current_estimate").get_to(s.current_estimate);
}

void to_json(nlohmann::json& j, const TrackedObject& o) {
    j = nlohmann::json{{"id", o.id},
                       {"age", o.age},
                       {"hit_counter", o.hit_counter},
                       {"last_distance", o.last_distance},
                       {"is_initializing", o.is_initializing},
                       {"last_detection", o.last_detection},
                       {"filter_state", o.filter_state}};
}

void from_json(const nlohmann::json& j, TrackedObject& o) {
    j.at("id").get_to(o.id);
    j.at("age").get_to(o.age);
    j.at("hit_counter").get_to(o.hit_counter);
    j.at("last_distance").get_to(o.last_distance);
    j.at("is_initializing").get_to(o.is_initializing);
    j.at("last_detection").get_to(o.last_detection);
    j.at("filter_state").get_to(o.filter_state);
}

void to_json(nlohmann::json& j, const TrackerState& s) {
    nlohmann::json objects = nlohmann::json::array();
    for (const auto& o : s.tracked_objects) objects.push_back(*o);
    j = nlohmann::json{{"next_id", s.next_id}, {"tracked_objects", std::move(objects)}};
}

std::vector<std::uint8_t> TrackerState::encode() const { return nlohmann::json::to_msgpack(nlohmann::json::array({*this})); }

std::shared_ptr<TrackerState> TrackerState::decode(const std::uint8_t* bytes, std::size_t size) {
    const nlohmann::json wrapped = nlohmann::json::from_msgpack(bytes, bytes + size, true, true);
    const nlohmann::json& j = wrapped.at(0);
    auto state = std::make_shared<TrackerState>();
    j.at("next_id").get_to(state->next_id);
    if (state->next_id < 1 || state->next_id == INT_MAX) refuse("next_id");
    const nlohmann::json& objects = j.at("tracked_objects");
    if (!objects.is_array()) refuse("tracked_objects");
    for (const nlohmann::json& o : objects) {
        auto object = std::make_shared<TrackedObject>(o.get<TrackedObject>());
        check(*object);
        state->tracked_objects.push_back(std::move(object));
    }
    return state;
}

std::string trackerStateKey(int frame, const std::string& modelId) {
    return "objs_state_" + std::to_string(frame) + "_" + modelId;
}

}  // namespace ML::YOLO7
