// The face tracker: the package's Kalman update against the filter's equations, matching and the
// life of tracks on synthetic scenes, appearance matching, the walk over frames through the
// in-memory host's compute cache in any order (evictions, corrupt states), and the linking of
// detections for Gaussian smoothing.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "ML/Buffer.h"
#include "ML/Exception.h"
#include "Plugin/ModelContext.h"
#include "Plugin/Models/YOLO7/Tracker.h"
#include "Plugin/Models/YOLO7/TrackerWalk.h"
#include "Plugin/Models/YOLO7/Util_.h"
#include "util/ExpectMessage.h"
#include "util/PackageContext.h"

namespace {

using namespace ML::YOLO7;

using Point = std::array<float, 2>;

TrackedObjectReading reading(Point pos, std::vector<float> embedding = {}) {
    TrackedObjectReading r;
    r.pos = pos;
    r.scale = {10.0f, 12.0f};
    r.bbox = {static_cast<int>(pos[0]) - 10, static_cast<int>(pos[1]) - 12, static_cast<int>(pos[0]) + 10,
              static_cast<int>(pos[1]) + 12};
    r.reIdEnabled = !embedding.empty();
    r.reIdEmbedding = std::move(embedding);
    return r;
}

TrackerConfiguration motionConfig() {
    TrackerConfiguration c;
    c.kalman_name = "kalman_cv";
    c.hits_to_confirm = 0;
    c.tracking_mode = TRACKING_MOTION;
    c.smoothing_mode = SMOOTHING_KALMAN;
    return c;
}

class Tracker : public testpkg::PackageSuite {
protected:
    static void SetUpTestSuite() {
        PackageSuite::SetUpTestSuite();
        kalman = std::make_shared<KalmanFilterBackendResources>(context, "kalman_cv");
    }
    static void TearDownTestSuite() {
        kalman.reset();
        PackageSuite::TearDownTestSuite();
    }

    // The id that each reading of the frame went to (the track whose last reading it is), -1 for
    // none shown.
    static std::vector<int> idsOf(const TrackerState& s, const std::vector<TrackedObjectReading>& readings) {
        std::vector<int> ids;
        for (const auto& r : readings) {
            int id = -1;
            for (const auto& t : s.tracked_objects)
                if (t->last_detection.pos == r.pos && t->hit_counter > 0 && !t->is_initializing) id = t->id;
            ids.push_back(id);
        }
        return ids;
    }

    static inline std::shared_ptr<KalmanFilterBackendResources> kalman;
};

TEST_F(Tracker, KalmanNetworkIsTheConstantVelocityUpdate) {
    const struct {
        std::array<float, 4> x;
        Point z, p, c, v;
        float q;
        Point r;
    } cases[] = {
        {{100, 50, 0, 0}, {104, 47}, {10, 10}, {0, 0}, {1, 1}, 0.1f, {4, 4}},
        {{100, 50, 3, -2}, {98, 60}, {2.5f, 7}, {0.8f, -0.3f}, {0.5f, 2}, 0.1f, {4, 4}},
        {{-20, 0, 10, 10}, {-20, 0}, {1000, 0.01f}, {5, 0}, {30, 0.01f}, 2.0f, {1, 9}},
    };
    for (const auto& k : cases) {
        KalmanFilterState s(reading({k.x[0], k.x[1]}));
        s.x = k.x;
        s.pos_var = k.p;
        s.pos_vel_covar = k.c;
        s.vel_var = k.v;
        s.q = k.q;
        s.r = k.r;
        kalman_update(s, *kalman, reading(k.z));
        for (int a = 0; a < 2; ++a) {
            SCOPED_TRACE(a);
            const double p = k.p[a] + 2.0 * k.c[a] + k.v[a] + k.q / 4.0, c = k.c[a] + k.v[a] + k.q / 2.0,
                         v = k.v[a] + k.q;
            const double s2 = p + k.r[a], kp = p / s2, kv = c / s2, y = k.z[a] - k.x[a];
            const double tol = 1e-4 * (1.0 + std::abs(p) + std::abs(v));
            EXPECT_NEAR(s.x[a], k.x[a] + kp * y, 1e-3);
            EXPECT_NEAR(s.x[2 + a], k.x[2 + a] + kv * y, 1e-3);
            EXPECT_NEAR(s.pos_var[a], (1 - kp) * p, tol);
            EXPECT_NEAR(s.pos_vel_covar[a], (1 - kp) * c, tol);
            EXPECT_NEAR(s.vel_var[a], v - kv * c, tol);
        }
        EXPECT_EQ(s.current_estimate.pos, (Point{s.x[0], s.x[1]}));
    }
}

TEST_F(Tracker, FilterRingsAndEstimate) {
    KalmanFilterState s(reading({5, 6}));
    EXPECT_EQ(s.current_estimate.pos, (Point{5, 6}));
    EXPECT_EQ(s.current_estimate.scale, (Point{10, 12}));
    // Six readings: the sixth overwrites entry 0; radii are the largest of the ring; angles near
    // +-pi average to pi, not to 0.
    const float rots[] = {3.1f, -3.1f, 3.1f, -3.1f, 3.12f};
    for (int i = 0; i < 5; ++i) {
        TrackedObjectReading r = reading({5, 6});
        r.scale = {20.0f + static_cast<float>(i), 12.0f - static_cast<float>(i)};
        r.rot = rots[i];
        kalman_update(s, *kalman, r);
    }
    EXPECT_EQ(s.num_readings, 6);
    ASSERT_EQ(s.past_scales.size(), 5u);
    EXPECT_EQ(s.past_scales[0], (Point{24, 8}));
    EXPECT_EQ(s.current_estimate.scale, (Point{24, 12}));
    EXPECT_NEAR(std::abs(s.current_estimate.rot), 3.13f, 0.02f);
    EXPECT_EQ(s.current_estimate.bbox, reading({5, 6}).bbox);
}

TEST(MatchGreedy, PairsInOrderOfCost) {
    const struct {
        const char* what;
        std::vector<std::vector<float>> cost;
        float threshold;
        std::vector<int> rows, columns;
    } cases[] = {
        {"equal to the threshold never matches", {{200}}, 200, {}, {}},
        {"just below", {{199.99f}}, 200, {0}, {0}},
        {"cheaper pair wins, other takes its second choice", {{10, 50}, {5, 300}}, 200, {1, 0}, {0, 1}},
        {"second choice over the threshold", {{10, 250}, {5, 300}}, 200, {1}, {0}},
        {"ties: earlier row, then earlier column", {{7, 7}, {7, 7}}, 200, {0, 1}, {0, 1}},
        {"more readings than tracks", {{30, 20, 10}}, 200, {0}, {2}},
        {"empty", {}, 200, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<int> rows, columns;
        match_greedy(c.cost, c.threshold, rows, columns);
        EXPECT_EQ(rows, c.rows);
        EXPECT_EQ(columns, c.columns);
    }
}

// Scenes of faces as positions per frame; for each frame the id each reading should end with
// (-1: none shown) and the number of tracks held after the frame.
TEST_F(Tracker, IdsFollowTheirFaces) {
    struct Frame {
        std::vector<Point> faces;
        std::vector<int> ids;
        std::size_t tracks;
    };
    std::vector<Frame> crossing;  // two faces passing each other 40 px apart
    for (int t = 0; t < 12; ++t)
        crossing.push_back({{{20.0f * t, 100}, {220.0f - 20.0f * t, 140}}, {1, 2}, 2});
    std::vector<Frame> occlusion;  // hidden for 3 frames, then back near where it was last seen
    for (int t = 0; t < 6; ++t) occlusion.push_back({{{100.0f + 5 * t, 100}}, {1}, 1});
    for (int t = 0; t < 3; ++t) occlusion.push_back({{}, {}, 1});
    occlusion.push_back({{{150, 100}}, {1}, 1});
    const struct {
        const char* what;
        std::vector<Frame> frames;
    } cases[] = {
        {"crossing paths", crossing},
        {"occlusion", occlusion},
        {"entering and leaving; ids in order of first sight",
         {{{{0, 0}, {500, 500}}, {1, 2}, 2},
          {{{2, 0}, {502, 500}}, {1, 2}, 2},
          {{{4, 0}, {900, 100}, {504, 500}}, {1, 3, 2}, 3},
          {{{6, 0}, {900, 100}}, {1, 3}, 3},   // 2 unmatched: 3 - 1 -> 2
          {{{8, 0}, {900, 100}}, {1, 3}, 3},   // 1
          {{{10, 0}, {900, 100}}, {1, 3}, 3},  // 0: held, not shown
          {{{12, 0}, {900, 100}}, {1, 3}, 2}}},
        {"seen once is gone two frames later", {{{{0, 0}}, {1}, 1}, {{}, {}, 1}, {{}, {}, 0}, {{{0, 0}}, {2}, 1}}},
        {"a cost of exactly 200 does not match", {{{{0, 0}}, {1}, 1}, {{{200, 0}}, {2}, 2}}},
        {"just under 200 matches", {{{{0, 0}}, {1}, 1}, {{{199.9f, 0}}, {1}, 1}}},
        {"equal costs: the earlier track takes it", {{{{0, 0}, {20, 0}}, {1, 2}, 2}, {{{10, 0}}, {1}, 2}}},
        {"no readings: nothing matches", {{{}, {}, 0}, {{}, {}, 0}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto state = std::make_shared<TrackerState>();
        for (std::size_t f = 0; f < c.frames.size(); ++f) {
            SCOPED_TRACE(f);
            auto next = std::make_shared<TrackerState>(*state);
            std::vector<TrackedObjectReading> readings;
            for (Point p : c.frames[f].faces) readings.push_back(reading(p));
            next->update_tracks(motionConfig(), kalman, readings);
            EXPECT_EQ(idsOf(*next, readings), c.frames[f].ids);
            EXPECT_EQ(next->tracked_objects.size(), c.frames[f].tracks);
            state = next;
        }
    }
}

TEST_F(Tracker, HitCounterLifeAndRestoredCount) {
    auto state = std::make_shared<TrackerState>();
    std::vector<int> counters;
    for (int t = 0; t < 7; ++t) {
        state = std::make_shared<TrackerState>(*state);
        state->update_tracks(motionConfig(), kalman, t < 6 ? std::vector{reading({0, 0})} : std::vector<TrackedObjectReading>{});
        counters.push_back(state->tracked_objects.at(0)->hit_counter);
    }
    EXPECT_EQ(counters, (std::vector<int>{1, 2, 3, 4, 5, 5, 4}));
    EXPECT_EQ(state->tracked_objects[0]->age, 6);

    // Through the stored form, the count continues: a new face gets 2, never 1 again.
    const std::vector<std::uint8_t> bytes = state->encode();
    auto restored = TrackerState::decode(bytes.data(), bytes.size());
    EXPECT_EQ(nlohmann::json(*restored), nlohmann::json(*state));
    auto next = std::make_shared<TrackerState>(*restored);
    next->update_tracks(motionConfig(), kalman, {reading({0, 0}), reading({800, 0})});
    EXPECT_EQ(idsOf(*next, {reading({0, 0}), reading({800, 0})}), (std::vector<int>{1, 2}));
    EXPECT_EQ(next->next_id, 3);
}

// Two faces that swap places between two frames (a fast crossing): by position the ids swap, by
// appearance they stay.
TEST_F(Tracker, AppearanceKeepsIdsWhereMotionSwapsThem) {
    std::mt19937 rng(7);
    std::normal_distribution<float> normal;
    std::vector<float> a(512), b(512);
    for (float& v : a) v = normal(rng);
    for (float& v : b) v = normal(rng);
    auto noisy = [&](const std::vector<float>& e) {
        std::vector<float> out = e;
        for (float& v : out) v += 0.3f * normal(rng);
        return out;
    };
    const std::vector<std::vector<Point>> frames{{{100, 100}, {160, 100}}, {{100, 100}, {160, 100}},
                                                 {{150, 100}, {110, 100}}, {{190, 100}, {70, 100}}};
    for (int mode : {TRACKING_MOTION, TRACKING_ADVANCED}) {
        TrackerConfiguration config = motionConfig();
        config.tracking_mode = mode;
        auto state = std::make_shared<TrackerState>();
        std::vector<int> last;
        for (const auto& f : frames) {
            state = std::make_shared<TrackerState>(*state);
            const std::vector<TrackedObjectReading> readings{reading(f[0], noisy(a)), reading(f[1], noisy(b))};
            state->update_tracks(config, kalman, readings);
            last = idsOf(*state, readings);
        }
        EXPECT_EQ(last, (mode == TRACKING_MOTION ? std::vector<int>{2, 1} : std::vector<int>{1, 2})) << mode;
    }

    // The cost of an appearance match is 1 / similarity; a similarity below 0.34 (negative here,
    // floored to cost 1000) starts a new track whatever the distance.
    TrackerConfiguration config = motionConfig();
    config.tracking_mode = TRACKING_ADVANCED;
    std::vector<float> e(512, 0.0f), half(512, 0.0f), opposite(512, 0.0f);
    e[0] = 1;
    half[0] = 1;
    half[1] = std::sqrt(3.0f);  // cosine 0.5
    opposite[0] = -1;
    TrackerState s;
    s.update_tracks(config, kalman, {reading({0, 0}, e)});
    s.update_tracks(config, kalman, {reading({500, 0}, half)});
    EXPECT_EQ(s.tracked_objects.size(), 1u);
    EXPECT_NEAR(s.tracked_objects[0]->last_distance, 2.0f, 1e-5f);
    s.update_tracks(config, kalman, {reading({500, 0}, opposite)});
    EXPECT_EQ(s.tracked_objects.size(), 2u);
}

// ---- The walk over frames through the host's cache ----

// A scene of 24 frames: a face crossing another, one entering at frame 8, one leaving after 15,
// one hidden from 10 to 12.
std::vector<TrackedObjectReading> scene(int f) {
    const float t = static_cast<float>(f);
    std::vector<TrackedObjectReading> r{reading({20 * t, 300}), reading({480 - 20 * t, 340})};
    if (f >= 8) r.push_back(reading({900, 100 + 4 * t}));
    if (f <= 15) r.push_back(reading({100, 600 - 3 * t}));
    if (f < 10 || f > 12) r.push_back(reading({700 + 2 * t, 700}));
    return r;
}

// What a render of the frame shows: (id, x, y) of the confirmed tracks with life left.
using Shown = std::vector<std::array<float, 3>>;

class TrackerWalk : public Tracker {
protected:
    struct Render {
        Shown shown;
        int tracked = 0;  // frames run through the tracker
    };

    static Render render(QHost::Host& host, int frame, int first) {
        auto settings = std::make_shared<QHost::CallSettings>();
        settings->setFrame(static_cast<ML::u32>(frame));
        const ML::u64 call = host.beginCall(settings);
        TrackerConfiguration config = motionConfig();
        config.first_frame = first;
        TrackerWalkPlan plan;
        plan_tracker_walk(&host, call, frame, first, "fd0", plan);
        Render out;
        auto state = run_tracker_walk(&host, call, config, "fd0", plan,
                                      {[&](int f) {
                                           ++out.tracked;
                                           return scene(f);
                                       },
                                       [] { return kalman; }});
        host.endCall(call);
        for (const auto& t : state->tracked_objects)
            if (!t->is_initializing && t->hit_counter > 0)
                out.shown.push_back({static_cast<float>(t->id), t->last_detection.pos[0], t->last_detection.pos[1]});
        std::sort(out.shown.begin(), out.shown.end());
        return out;
    }

    static std::vector<Shown> reference(int frames) {
        QHost::Host host;
        std::vector<Shown> shown;
        for (int f = 0; f < frames; ++f) shown.push_back(render(host, f, 0).shown);
        return shown;
    }
};

TEST_F(TrackerWalk, SameIdsInAnyOrder) {
    constexpr int kFrames = 24;
    const std::vector<Shown> expected = reference(kFrames);
    // The scene's five faces all got ids, and the hidden one came back with its own.
    auto idAtRow700 = [&](int f) {
        for (const auto& s : expected[static_cast<std::size_t>(f)])
            if (s[2] == 700.0f) return s[0];
        return -1.0f;
    };
    EXPECT_EQ(expected[9].size(), 5u);
    EXPECT_EQ(idAtRow700(13), idAtRow700(9));
    std::vector<int> forward(kFrames), backward(kFrames), shuffled(kFrames);
    for (int i = 0; i < kFrames; ++i) forward[i] = backward[kFrames - 1 - i] = shuffled[i] = i;
    std::mt19937 rng(11);
    std::shuffle(shuffled.begin(), shuffled.end(), rng);

    const struct {
        const char* what;
        const std::vector<int>* order;
        double evict;  // chance of dropping each stored state before a render
        bool corrupt;  // write over some states with bad bytes
    } cases[] = {
        {"forward", &forward, 0.0, false},    {"backward", &backward, 0.0, false},
        {"random", &shuffled, 0.0, false},    {"random, evictions", &shuffled, 0.3, false},
        {"backward, evictions", &backward, 0.5, false}, {"random, corrupt states", &shuffled, 0.0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        QHost::Host host;
        std::uniform_real_distribution<double> chance(0.0, 1.0);
        int tracked = 0, disturbed = 0;
        for (int f : *c.order) {
            for (int g = 0; g < kFrames; ++g) {
                const std::string key = trackerStateKey(g, "fd0");
                if (!host.cache().contains(key)) continue;
                if (chance(rng) < c.evict) disturbed += host.cache().evict(key);
                if (c.corrupt && chance(rng) < 0.3) {
                    ++disturbed;
                    // Cut short, or bytes that are no MessagePack of a state at all.
                    const ML::Ptr<ML::Buffer> old = host.cache().find(key);
                    auto bad = ML::Ptr<ML::Buffer>(new ML::BufferImp(old->getSize() / 2 + 1));
                    std::memcpy(bad->getData(), old->getData(), bad->getSize());
                    if (chance(rng) < 0.5) std::memset(bad->getData(), 0xc1, bad->getSize());
                    host.cache().store(key, bad);
                }
            }
            const Render r = render(host, f, 0);
            EXPECT_EQ(r.shown, expected[static_cast<std::size_t>(f)]) << "frame " << f;
            tracked += r.tracked;
        }
        if (c.evict == 0.0 && !c.corrupt) EXPECT_EQ(tracked, kFrames);  // each frame tracked once
        else EXPECT_GT(disturbed, 0);
    }
}

TEST_F(TrackerWalk, PlanProgressCancellationAndStart) {
    QHost::Host host;
    const struct {
        int frame, first;
        std::vector<int> frames;
    } plans[] = {{5, 0, {5, 4, 3, 2, 1, 0}}, {3, 6, {3, 4, 5, 6}}, {4, 4, {4}}};
    for (const auto& p : plans) {
        auto settings = std::make_shared<QHost::CallSettings>();
        const ML::u64 call = host.beginCall(settings);
        TrackerWalkPlan plan;
        std::vector<int> visited;
        plan_tracker_walk(&host, call, p.frame, p.first, "m", plan, [&](int f) { visited.push_back(f); });
        host.endCall(call);
        EXPECT_EQ(plan.frames_to_track, p.frames);
        EXPECT_EQ(visited, p.frames);
        EXPECT_TRUE(plan.tracker_states.empty());
    }

    // Cancelled after three frames: those stay stored, the next render starts from the third.
    auto settings = std::make_shared<QHost::CallSettings>();
    settings->cancelAfterPolls(3);
    ML::u64 call = host.beginCall(settings);
    TrackerWalkPlan plan;
    plan_tracker_walk(&host, call, 9, 0, "fd0", plan);
    const TrackerWalkHooks hooks{scene, [] { return kalman; }};
    try {
        run_tracker_walk(&host, call, motionConfig(), "fd0", plan, hooks);
        ADD_FAILURE() << "not cancelled";
    } catch (const ML::Exception& e) {
        EXPECT_EQ(e.code(), ML::Exception::CANCEL);
    }
    EXPECT_EQ(settings->progress(), (std::vector<float>{0.0f, 0.1f, 0.2f}));
    host.endCall(call);
    EXPECT_TRUE(host.cache().contains(trackerStateKey(2, "fd0")));
    EXPECT_FALSE(host.cache().contains(trackerStateKey(3, "fd0")));
    EXPECT_EQ(render(host, 9, 0).tracked, 7);

    // A walk that stopped short of the first frame needs the state it stopped at.
    plan.frames_to_track = {5, 4};
    plan.tracker_states.clear();
    call = host.beginCall(std::make_shared<QHost::CallSettings>());
    expectErrorWith([&] { run_tracker_walk(&host, call, motionConfig(), "fd0", plan, hooks); },
                    "expected exactly 1 previous tracker state to initialize processing??");
    host.endCall(call);
}

// ---- Linking detections for Gaussian smoothing without a tracker ----

ML::Detection box(float x, float y, float size, float score = 0.9f) {
    ML::Detection d;
    d.x1 = x - size / 2;
    d.y1 = y - size / 2;
    d.x2 = x + size / 2;
    d.y2 = y + size / 2;
    d.score = score;
    d.keypoints = {{x, y, 1.0f}};
    return d;
}

TEST(LinkDetections, KeepDropInterpolateAndJumps) {
    using Window = std::vector<std::vector<ML::Detection>>;
    const struct {
        const char* what;
        Window window;
        std::vector<std::vector<float>> centres;  // x centre of each kept chain, per frame index
    } cases[] = {
        {"gap in the middle: interpolated at t = 0.5", {{box(100, 100, 40, 0.5f)}, {}, {box(120, 100, 40, 0.7f)}},
         {{100, 110, 120}}},
        {"nothing at or after the middle: dropped", {{box(10, 10, 20)}, {box(12, 10, 20)}, {}, {}, {}}, {}},
        {"before and after the middle: kept, ends copied",
         {{}, {box(10, 10, 20)}, {}, {box(14, 10, 20)}, {}}, {{10, 10, 12, 14, 14}}},
        {"big jump of small faces: two chains, the one at the middle kept",
         {{box(100, 100, 20)}, {box(250, 100, 20)}, {box(252, 100, 20)}}, {{250, 250, 252}}},
        {"same jump of big faces: linked",
         {{box(100, 100, 200)}, {box(250, 100, 200)}, {box(252, 100, 200)}}, {{100, 250, 252}}},
        {"two faces: nearest pairs",
         {{box(100, 100, 40), box(300, 100, 40)}, {box(305, 100, 40), box(104, 100, 40)}, {box(108, 100, 40)}},
         {{100, 104, 108}, {300, 305, 305}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto chains = link_detections(c.window);
        ASSERT_EQ(chains.size(), c.centres.size());
        for (std::size_t k = 0; k < chains.size(); ++k) {
            ASSERT_EQ(chains[k].size(), c.window.size());
            for (std::size_t i = 0; i < chains[k].size(); ++i) {
                EXPECT_FLOAT_EQ((chains[k][i].x1 + chains[k][i].x2) / 2, c.centres[k][i]) << k << " " << i;
                EXPECT_FLOAT_EQ(chains[k][i].keypoints[0].x, c.centres[k][i]);
            }
        }
    }
    EXPECT_FLOAT_EQ(link_detections(cases[0].window)[0][1].score, 0.6f);

    ML::Detection noKeypoints = box(120, 100, 40);
    noKeypoints.keypoints.clear();
    expectErrorWith([&] { link_detections({{box(100, 100, 40)}, {}, {noKeypoints}}); },
                    "cannot linear interpolate 2 detections w/ different amounts of keypoits!");
}

}  // namespace
