#include "Plugin/Models/YOLO7/Util_.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <sstream>

#include "ML/Exception.h"
#include "Plugin/ModelContext.h"

namespace ML::YOLO7 {

namespace {

// Mean and population deviation, the variance floored at 0.0001.
void meanAndDeviation(const std::vector<float>& v, float& mean, float& deviation) {
    float sum = 0.0f;
    for (float a : v) sum += a;
    mean = sum / static_cast<float>(v.size());
    float squares = 0.0f;
    for (float a : v) squares += (a - mean) * (a - mean);
    deviation = std::sqrt(std::max(squares / static_cast<float>(v.size()), 0.0001f));
}

// The values strictly inside mean +- 3 deviations.
std::vector<float> inliers(const std::vector<float>& v, float mean, float deviation) {
    std::vector<float> kept;
    for (float a : v)
        if (a > mean - 3.0f * deviation && a < mean + 3.0f * deviation) kept.push_back(a);
    return kept;
}

float mean(const std::vector<float>& v) {
    float sum = 0.0f;
    for (float a : v) sum += a;
    return sum / static_cast<float>(v.size());
}

// Mean of the angles on the circle, sines and cosines each cleared of outliers.
float robustAngle(const std::vector<float>& rots, std::size_t n, int numReadings) {
    if (numReadings == 1 || n == 1) return rots[0];
    std::vector<float> sines, cosines;
    for (std::size_t i = 0; i < n; ++i) {
        sines.push_back(std::sin(rots[i]));
        cosines.push_back(std::cos(rots[i]));
    }
    float meanSin = 0, devSin = 0, meanCos = 0, devCos = 0;
    meanAndDeviation(sines, meanSin, devSin);
    meanAndDeviation(cosines, meanCos, devCos);
    const std::vector<float> keptSin = inliers(sines, meanSin, devSin), keptCos = inliers(cosines, meanCos, devCos);
    if (!keptSin.empty() && !keptCos.empty()) {
        meanSin = mean(keptSin);
        meanCos = mean(keptCos);
    }
    return std::atan2(meanSin, meanCos);
}

// Chain linking of detections over a window.
struct Feature {
    float x, y, size;
};

Feature featureOf(const Detection& d) {
    return {(d.x1 + d.x2) * 0.5f, (d.y1 + d.y2) * 0.5f, std::max(d.x2 - d.x1, d.y2 - d.y1)};
}

constexpr float kInfinity = std::numeric_limits<float>::infinity();

// Infinite for a jump of more than 100 pixels that is also more than 1.5 sizes of either face;
// otherwise the distance scaled by the ratio of the sizes. Whatever is not a finite number (zero
// sizes) is infinite too.
float linkCost(const Feature& a, const Feature& b) {
    const float d = std::hypot(a.x - b.x, a.y - b.y);
    if (d > 100.0f && (d / a.size > 1.5f || d / b.size > 1.5f)) return kInfinity;
    const float cost = d * std::max(b.size / a.size, a.size / b.size);
    return std::isfinite(cost) ? cost : kInfinity;
}

struct Link {
    int index;
    Detection detection;
};

float lerp(float a, float b, float t) { return a + (b - a) * t; }

Detection interpolate(const Detection& a, const Detection& b, float t) {
    if (a.keypoints.size() != b.keypoints.size())
        ML_THROW("cannot linear interpolate 2 detections w/ different amounts of keypoits!");
    Detection d = a;
    d.x1 = lerp(a.x1, b.x1, t);
    d.y1 = lerp(a.y1, b.y1, t);
    d.x2 = lerp(a.x2, b.x2, t);
    d.y2 = lerp(a.y2, b.y2, t);
    d.score = lerp(a.score, b.score, t);
    for (std::size_t k = 0; k < d.keypoints.size(); ++k) {
        d.keypoints[k].x = lerp(a.keypoints[k].x, b.keypoints[k].x, t);
        d.keypoints[k].y = lerp(a.keypoints[k].y, b.keypoints[k].y, t);
        d.keypoints[k].confidence = lerp(a.keypoints[k].confidence, b.keypoints[k].confidence, t);
    }
    return d;
}

// One detection per index of the window: the chain's own, or the interpolation between its
// nearest neighbours, or a copy of the one neighbour there is.
std::vector<Detection> fill(const std::vector<Link>& chain, int window) {
    std::vector<Detection> filled;
    for (int i = 0; i < window; ++i) {
        const Link* earlier = nullptr;
        const Link* later = nullptr;
        for (const Link& l : chain) {
            if (l.index <= i && (!earlier || l.index > earlier->index)) earlier = &l;
            if (l.index >= i && (!later || l.index < later->index)) later = &l;
        }
        if (earlier && later) {
            filled.push_back(earlier == later ? earlier->detection
                                              : interpolate(earlier->detection, later->detection,
                                                            static_cast<float>(i - earlier->index) /
                                                                static_cast<float>(later->index - earlier->index)));
        } else if (earlier || later) {
            filled.push_back((earlier ? earlier : later)->detection);
        } else {
            ML_THROW("internal error! Tracked object has no detections??");
        }
    }
    return filled;
}

}  // namespace

KalmanFilterState::KalmanFilterState(const TrackedObjectReading& first) {
    x = {first.pos[0], first.pos[1], 0.0f, 0.0f};
    past_scales = {first.scale};
    past_rots = {first.rot};
    current_estimate = YOLO7::current_estimate(*this, first);
}

KalmanFilterBackendResources::KalmanFilterBackendResources(std::shared_ptr<ModelContext> context,
                                                           const std::string& kalmanName)
    : modelContext(std::move(context)) {
    network = modelContext->loadModel(kalmanName);
    for (const std::vector<u64>& shape : {std::vector<u64>{4, 1}, {2, 1}, {2, 1}, {2, 1}, {2, 1}, {1}, {2, 1}, {2, 4}})
        inputs.push_back(modelContext->createTensor(shape, F32));
    for (const std::vector<u64>& shape : {std::vector<u64>{4, 1}, {2, 1}, {2, 1}, {2, 1}})
        outputs.push_back(modelContext->createTensor(shape, F32));
}

void kalman_update(KalmanFilterState& s, KalmanFilterBackendResources& k, const TrackedObjectReading& reading) {
    k.inputs[0]->upload(s.x.data());
    k.inputs[1]->upload(reading.pos.data());
    k.inputs[2]->upload(s.pos_var.data());
    k.inputs[3]->upload(s.pos_vel_covar.data());
    k.inputs[4]->upload(s.vel_var.data());
    k.inputs[5]->upload(&s.q);
    k.inputs[6]->upload(s.r.data());
    k.inputs[7]->upload(s.h.data());
    k.network->run(k.inputs, k.outputs);
    k.outputs[0]->download(s.x.data());
    k.outputs[1]->download(s.pos_var.data());
    k.outputs[2]->download(s.pos_vel_covar.data());
    k.outputs[3]->download(s.vel_var.data());

    if (s.num_readings < s.history_length) {
        s.past_scales.push_back(reading.scale);
        s.past_rots.push_back(reading.rot);
    } else {
        const std::size_t slot = static_cast<std::size_t>(s.num_readings % s.history_length);
        s.past_scales.at(slot) = reading.scale;
        s.past_rots.at(slot) = reading.rot;
    }
    ++s.num_readings;
    s.current_estimate = current_estimate(s, reading);
}

TrackedObjectReading current_estimate(const KalmanFilterState& s, const TrackedObjectReading& reading) {
    TrackedObjectReading e = reading;
    e.pos = {s.x[0], s.x[1]};
    const std::size_t n = std::min({static_cast<std::size_t>(std::max(std::min(s.num_readings, s.history_length), 0)),
                                    s.past_scales.size(), s.past_rots.size()});
    e.scale = {-1.0f, -1.0f};
    for (std::size_t i = 0; i < n; ++i) {
        e.scale[0] = std::max(e.scale[0], s.past_scales[i][0]);
        e.scale[1] = std::max(e.scale[1], s.past_scales[i][1]);
    }
    if (n > 0) e.rot = robustAngle(s.past_rots, n, s.num_readings);
    return e;
}

std::vector<std::vector<Detection>> link_detections(const std::vector<std::vector<Detection>>& window) {
    const int size = static_cast<int>(window.size());
    std::vector<std::vector<Link>> chains;
    for (int i = 0; i < size; ++i) {
        const std::vector<Detection>& frame = window[static_cast<std::size_t>(i)];
        const std::size_t ends = chains.size();
        std::vector<std::vector<float>> cost(frame.size(), std::vector<float>(ends));
        for (std::size_t r = 0; r < frame.size(); ++r)
            for (std::size_t c = 0; c < ends; ++c)
                cost[r][c] = linkCost(featureOf(frame[r]), featureOf(chains[c].back().detection));
        std::vector<int> chainOf(frame.size(), -1);
        for (;;) {
            float best = kInfinity;
            std::size_t br = 0, bc = 0;
            for (std::size_t r = 0; r < frame.size(); ++r)
                for (std::size_t c = 0; c < ends; ++c)
                    if (cost[r][c] < best) {
                        best = cost[r][c];
                        br = r;
                        bc = c;
                    }
            if (!(best < kInfinity)) break;
            chainOf[br] = static_cast<int>(bc);
            for (std::size_t c = 0; c < ends; ++c) cost[br][c] = kInfinity;
            for (std::size_t r = 0; r < frame.size(); ++r) cost[r][bc] = kInfinity;
        }
        for (std::size_t r = 0; r < frame.size(); ++r) {
            if (chainOf[r] >= 0)
                chains[static_cast<std::size_t>(chainOf[r])].push_back({i, frame[r]});
            else
                chains.push_back({{i, frame[r]}});
        }
    }
    const int middle = size / 2;
    std::vector<std::vector<Detection>> kept;
    for (const std::vector<Link>& chain : chains) {
        bool atMiddle = false, before = false, after = false;
        for (const Link& l : chain) {
            atMiddle |= l.index == middle;
            before |= l.index < middle;
            after |= l.index > middle;
        }
        if (atMiddle || (before && after)) kept.push_back(fill(chain, size));
    }
    return kept;
}

void checkSmoothingLevel(float level) {
    const auto refuse = [&](const char* what, float limit) {
        std::ostringstream text;
        text << what << limit << " . returned value: " << level;
        ML_THROW(text.str());
    };
    if (!(level >= kMinSmoothingLevel)) refuse("smoothing level must be >= ", kMinSmoothingLevel);
    if (level > kMaxSmoothingLevel) refuse("smoothing level must be <= ", kMaxSmoothingLevel);
}

}  // namespace ML::YOLO7
