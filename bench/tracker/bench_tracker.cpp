// update_tracks of one frame with 20 faces, every face matched and so run through the package's
// Kalman network (written into a temporary folder first), and the render of a frame whose last N
// states the host has dropped: the walk back to the nearest stored state and N updates forward.
// Prints the walk's cost per frame against a single update after the table.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "KalmanFilter.h"
#include "Plugin/ModelContext.h"
#include "Plugin/Models/YOLO7/TrackerWalk.h"
#include "bench/util/BestTimes.h"

namespace {

using namespace ML::YOLO7;

constexpr int kFaces = 20;
constexpr int kFrames = 64;

// Twenty faces on a grid, each drifting on its own slow circle.
std::vector<TrackedObjectReading> faces(int frame) {
    std::vector<TrackedObjectReading> out;
    for (int i = 0; i < kFaces; ++i) {
        const float a = 0.05f * static_cast<float>(frame) + static_cast<float>(i);
        TrackedObjectReading r;
        r.pos = {200.0f + 300.0f * static_cast<float>(i % 5) + 20.0f * std::cos(a),
                 150.0f + 250.0f * static_cast<float>(i / 5) + 20.0f * std::sin(a)};
        r.scale = {40, 50};
        r.bbox = {static_cast<int>(r.pos[0]) - 40, static_cast<int>(r.pos[1]) - 50, static_cast<int>(r.pos[0]) + 40,
                  static_cast<int>(r.pos[1]) + 50};
        out.push_back(r);
    }
    return out;
}

struct Setup {
    std::filesystem::path folder;
    std::shared_ptr<ML::ModelContext> context;
    std::shared_ptr<KalmanFilterBackendResources> kalman;
    TrackerConfiguration config;

    Setup() : folder(std::filesystem::temp_directory_path() / ("quillon_bench_tracker_" + std::to_string(::getpid()))) {
        qpkg::writeKalmanFilter(folder / "models");
        context = std::make_shared<ML::ModelContext>("ort_cpu", 0, folder / "config", folder / "models");
        kalman = std::make_shared<KalmanFilterBackendResources>(context, qpkg::kKalmanId);
        config.kalman_name = qpkg::kKalmanId;
        config.hits_to_confirm = 0;
        config.tracking_mode = TRACKING_MOTION;
        config.smoothing_mode = SMOOTHING_KALMAN;
    }
    ~Setup() {
        kalman.reset();
        context.reset();
        std::error_code ec;
        std::filesystem::remove_all(folder, ec);
    }

    std::shared_ptr<TrackerState> render(QHost::Host& host, int frame) {
        auto settings = std::make_shared<QHost::CallSettings>();
        const ML::u64 call = host.beginCall(settings);
        TrackerWalkPlan plan;
        plan_tracker_walk(&host, call, frame, 0, "fd0", plan);
        auto state = run_tracker_walk(&host, call, config, "fd0", plan, {faces, [this] { return kalman; }});
        host.endCall(call);
        return state;
    }
};

Setup* g_setup = nullptr;

void BM_UpdateTracks20Faces(benchmark::State& state) {
    Setup& s = *g_setup;
    auto tracker = std::make_shared<TrackerState>();
    int frame = 0;
    for (auto _ : state) {
        auto next = std::make_shared<TrackerState>(*tracker);
        next->update_tracks(s.config, s.kalman, faces(frame++));
        tracker = std::move(next);
    }
    if (tracker->next_id != kFaces + 1) state.SkipWithError("faces lost their tracks");
}
BENCHMARK(BM_UpdateTracks20Faces)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The stored form of a state of 20 tracks: MessagePack out and back in, as every walked frame
// stores one and a walk starts by reading one.
void BM_EncodeDecode20Tracks(benchmark::State& state) {
    Setup& s = *g_setup;
    auto tracker = std::make_shared<TrackerState>();
    for (int f = 0; f < 8; ++f) tracker->update_tracks(s.config, s.kalman, faces(f));
    std::size_t bytes = 0;
    for (auto _ : state) {
        const std::vector<std::uint8_t> encoded = tracker->encode();
        bytes = encoded.size();
        benchmark::DoNotOptimize(TrackerState::decode(encoded.data(), encoded.size()));
    }
    state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_EncodeDecode20Tracks)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Frame kFrames - 1 rendered after the host dropped the states of its last N frames.
void BM_WalkBackAfterEviction(benchmark::State& state, int n) {
    Setup& s = *g_setup;
    QHost::Host host;
    for (int f = 0; f < kFrames; ++f) s.render(host, f);
    for (auto _ : state) {
        state.PauseTiming();
        for (int f = kFrames - n; f < kFrames; ++f) host.cache().evict(trackerStateKey(f, "fd0"));
        state.ResumeTiming();
        benchmark::DoNotOptimize(s.render(host, kFrames - 1));
    }
}
// Named captures rather than arguments, so that each keeps a name of its own for the ratios.
BENCHMARK_CAPTURE(BM_WalkBackAfterEviction, 1, 1)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_WalkBackAfterEviction, 10, 10)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_WalkBackAfterEviction, 50, 50)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchutil::BestTimes reporter;
    if (!benchutil::runWithSetup(argc, argv, g_setup, reporter)) return 1;
    const double update = reporter.best("BM_UpdateTracks20Faces");
    if (update > 0) {
        std::printf("update_tracks, 20 faces: %.1f us per frame, %.2f us per face\n", update, update / kFaces);
        const double stored = reporter.best("BM_EncodeDecode20Tracks");
        if (stored > 0) std::printf("encode + decode of the state: %.1f us, %.2f updates' worth\n", stored, stored / update);
        for (int n : {1, 10, 50}) {
            const double walk = reporter.best("BM_WalkBackAfterEviction/" + std::to_string(n));
            if (walk > 0)
                std::printf("walk back %2d frames: %.1f us, %.2f updates' worth per frame walked\n", n, walk,
                            walk / n / update);
        }
    }
    benchmark::Shutdown();
    return 0;
}
