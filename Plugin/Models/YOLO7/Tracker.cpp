#include "Plugin/Models/YOLO7/Tracker.h"

#include <algorithm>
#include <cmath>

#include "ML/Exception.h"

namespace ML::YOLO7 {

namespace {

using Tracks = std::vector<std::shared_ptr<TrackedObject>>;

// Cosine similarity of two embeddings, floored at 0.001. Embeddings of different lengths (or
// none) are as unlike as can be.
float similarity(const std::vector<float>& a, const std::vector<float>& b) {
    double dot = 0, na = 0, nb = 0;
    if (a.size() == b.size())
        for (std::size_t i = 0; i < a.size(); ++i) {
            dot += static_cast<double>(a[i]) * b[i];
            na += static_cast<double>(a[i]) * a[i];
            nb += static_cast<double>(b[i]) * b[i];
        }
    const float s = na > 0 && nb > 0 ? static_cast<float>(dot / (std::sqrt(na) * std::sqrt(nb))) : 0.0f;
    return std::max(s, 0.001f);
}

std::shared_ptr<TrackedObject> newTrack(const TrackerConfiguration& config, TrackerState& state,
                                        const TrackedObjectReading& reading) {
    auto track = std::make_shared<TrackedObject>();
    track->id = -1;
    track->age = 0;
    track->hit_counter = 1;
    track->last_distance = -1.0f;
    track->last_detection = reading;
    track->filter_state = KalmanFilterState(reading);
    track->is_initializing = track->hit_counter <= config.hits_to_confirm;
    if (!track->is_initializing) track->id = state.next_tracker_id();
    return track;
}

}  // namespace

void match_greedy(std::vector<std::vector<float>> cost, float threshold, std::vector<int>& rows,
                  std::vector<int>& columns) {
    rows.clear();
    columns.clear();
    if (cost.empty() || cost[0].empty()) return;
    auto smallest = [&](std::size_t& br, std::size_t& bc) {
        br = bc = 0;
        for (std::size_t r = 0; r < cost.size(); ++r)
            for (std::size_t c = 0; c < cost[r].size(); ++c)
                if (cost[r][c] < cost[br][bc]) {
                    br = r;
                    bc = c;
                }
        return cost[br][bc];
    };
    std::size_t r = 0, c = 0;
    for (float best = smallest(r, c); threshold > best; best = smallest(r, c)) {
        rows.push_back(static_cast<int>(r));
        columns.push_back(static_cast<int>(c));
        for (float& v : cost[r]) v = threshold + 1.0f;
        for (auto& row : cost) row[c] = threshold + 1.0f;
    }
}

void TrackerState::update_tracks(const TrackerConfiguration& config, std::shared_ptr<KalmanFilterBackendResources> kalman,
                                 const std::vector<TrackedObjectReading>& readings) {
    Tracks alive;
    for (auto& t : tracked_objects)
        if (t->hit_counter > 0) alive.push_back(t);
    tracked_objects = std::move(alive);

    Tracks confirmed, initializing;
    for (auto& t : tracked_objects) {
        --t->hit_counter;
        ++t->age;
        t->filter_state.x[0] += t->filter_state.x[2];
        t->filter_state.x[1] += t->filter_state.x[3];
        (t->is_initializing ? initializing : confirmed).push_back(t);
    }

    auto [left, matched, unmatched] = update_objects_in_place(config, kalman, confirmed, readings);
    auto [unborn, matched2, unmatched2] = update_objects_in_place(config, kalman, initializing, left);
    for (const TrackedObjectReading& r : unborn) tracked_objects.push_back(newTrack(config, *this, r));
}

std::tuple<std::vector<TrackedObjectReading>, Tracks, Tracks> TrackerState::update_objects_in_place(
    const TrackerConfiguration& config, std::shared_ptr<KalmanFilterBackendResources> kalman, Tracks& tracks,
    const std::vector<TrackedObjectReading>& readings) {
    if (tracks.empty() || readings.empty()) return {readings, {}, tracks};

    std::vector<std::vector<float>> cost(tracks.size(), std::vector<float>(readings.size()));
    for (std::size_t t = 0; t < tracks.size(); ++t) {
        const auto& reference = tracks[t]->filter_state.current_estimate.pos;
        for (std::size_t r = 0; r < readings.size(); ++r)
            cost[t][r] = std::hypot(readings[r].pos[0] - reference[0], readings[r].pos[1] - reference[1]);
    }
    float threshold = config.max_distance;
    if (config.tracking_mode == TRACKING_ADVANCED) {
        // Appearance alone decides: the merge gets the distance too, and leaves it aside.
        const std::function<float(float, float)> merge = [](float /*distance*/, float s) { return 1.0f / s; };
        for (std::size_t t = 0; t < tracks.size(); ++t)
            for (std::size_t r = 0; r < readings.size(); ++r)
                cost[t][r] = merge(cost[t][r], similarity(tracks[t]->last_detection.reIdEmbedding,
                                                          readings[r].reIdEmbedding));
        threshold = 1.0f / config.min_similarity;
    }

    std::vector<int> rows, columns;
    match_greedy(cost, threshold, rows, columns);
    if (rows.empty()) return {readings, {}, tracks};

    std::vector<TrackedObjectReading> unmatchedReadings;
    for (std::size_t r = 0; r < readings.size(); ++r)
        if (std::find(columns.begin(), columns.end(), static_cast<int>(r)) == columns.end())
            unmatchedReadings.push_back(readings[r]);
    Tracks matched, unmatched;
    for (std::size_t t = 0; t < tracks.size(); ++t)
        if (std::find(rows.begin(), rows.end(), static_cast<int>(t)) == rows.end()) unmatched.push_back(tracks[t]);

    for (std::size_t k = 0; k < rows.size(); ++k) {
        TrackedObject& track = *tracks[static_cast<std::size_t>(rows[k])];
        const TrackedObjectReading& reading = readings[static_cast<std::size_t>(columns[k])];
        const float c = cost[static_cast<std::size_t>(rows[k])][static_cast<std::size_t>(columns[k])];
        if (!(c < config.max_distance)) ML_THROW("what? why match outside threshold?");
        track.hit_counter = std::min(config.max_hit_counter, track.hit_counter + 2);
        track.last_detection = reading;
        if (track.is_initializing && track.hit_counter > config.hits_to_confirm) {
            track.is_initializing = false;
            track.id = next_tracker_id();
        }
        if (!kalman) ML_THROW("Kalman filter resources missing for a tracker update");
        kalman_update(track.filter_state, *kalman, reading);
        track.last_distance = c;
        matched.push_back(tracks[static_cast<std::size_t>(rows[k])]);
    }
    return {std::move(unmatchedReadings), std::move(matched), std::move(unmatched)};
}

}  // namespace ML::YOLO7
