// Resident memory (VmRSS) while mask propagation walks a long clip: a red disc circling over a
// textured background, keyed on frame 0, rendered frame after frame as a host plays a clip. The
// memory of a sequence has a fixed number of slots, so what the process holds must level off:
// prints RSS at frames 50, 100, 250 and 500 and the ratio last / first, next to the host's cache
// (one compressed mask per frame, kept by the host, not the plug-in).
//
// bench_mask_memory [frames] [--walk]: --walk renders the last frame alone, one walk of every
// frame in a single render. Writes a default package into a temporary folder first. The networks
// run at the fixed execution size (512 x 1024); the region is 160 x 96.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/OwnedImage.h"
#include "Package.h"
#include "Plugin/PluginMain.h"

namespace {

constexpr int kW = 160, kH = 96, kRadius = 15;

float discX(int f) { return 80.0f + 50.0f * std::cos(0.05f * static_cast<float>(f)); }
float discY(int f) { return 48.0f + 25.0f * std::sin(0.05f * static_cast<float>(f)); }
bool inDisc(int f, int x, int y) {
    const float dx = static_cast<float>(x) + 0.5f - discX(f), dy = static_cast<float>(y) + 0.5f - discY(f);
    return dx * dx + dy * dy <= kRadius * kRadius;
}

ML::Ptr<ML::Image> frameImage(int f) {
    auto image = QHost::OwnedImage::make({0, 0, kW, kH}, ML::Image::RGB, ML::Image::HWC, ML::U8);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            const float t = 0.5f + 0.2f * std::sin(0.3f * x + 0.1f * y) + 0.1f * static_cast<float>(((x / 8) + (y / 8)) % 2);
            float rgb[3] = {0.8f * t, t, 0.7f * t};
            if (inDisc(f, x, y)) rgb[0] = 0.95f, rgb[1] = 0.1f, rgb[2] = 0.15f;
            for (int c = 0; c < 3; ++c) image->at<ML::u8>(x, y, static_cast<ML::u32>(c)) = static_cast<ML::u8>(255.0f * rgb[c]);
        }
    return ML::Ptr<ML::Image>(image.get());
}

ML::Ptr<ML::Image> keyMask() {
    auto image = QHost::OwnedImage::make({0, 0, kW, kH}, ML::Image::R, ML::Image::HWC, ML::F32);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) image->at<float>(x, y) = inDisc(0, x, y) ? 1.0f : 0.0f;
    return ML::Ptr<ML::Image>(image.get());
}

double residentMiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
    return 0.0;
}

// Renders `frame` (prepare, then render); returns the host's status.
int render(QHost::Host& host, const std::filesystem::path& package, int frame) {
    static const ML::Ptr<ML::Image> key = keyMask();
    auto s = std::make_shared<QHost::CallSettings>(4, 4);
    s->setModelIndex(0);
    s->setDataFolder((package / "config").string());
    s->setAuxFolder((package / "models").string());
    s->setFrame(static_cast<ML::u32>(frame));
    s->setIntParam(300, 0, 1);
    s->setIntParam(301, 0, 1);
    s->setIntParam(302, 0, 0);
    s->setIntParam(303, 0, 0);
    s->setIntParam(304, 0, 0);
    s->setInputImageProvider([](ML::u32 f, ML::ResourceId id, const ML::Rect*) -> ML::Ptr<ML::Image> {
        if (id.id == 0) return frameImage(static_cast<int>(f));
        if (id.id == 2 && f == 0 && id.index == 0) return key;
        return nullptr;
    });
    s->setOutputImage(static_cast<ML::u32>(frame), QHost::OwnedImage::make({0, 0, kW, kH}, ML::Image::R, ML::Image::HWC, ML::F32),
                      {2, 0});
    for (int mode : {3, 4}) {
        s->setMode(mode);
        if (const int status = host.run(&mlMain, s); status != ML::STATUS_OK) return status;
    }
    return ML::STATUS_OK;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each figure as it comes
    int frames = 500;
    bool walk = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--walk") == 0)
            walk = true;
        else
            frames = std::max(1, std::atoi(argv[i]));
    }
    const std::filesystem::path package =
        std::filesystem::temp_directory_path() / ("quillon_bench_mask_memory_" + std::to_string(::getpid()));
    qpkg::writeDefaultPackage(package, false);

    int status = ML::STATUS_OK;
    {
        QHost::Host host;
        std::printf("mask propagation, %d frames%s, region %dx%d; start: %.1f MiB resident\n", frames,
                    walk ? " in one walk" : ", one render each", kW, kH, residentMiB());
        if (walk) {
            status = render(host, package, frames - 1);
            std::printf("after the walk: %.1f MiB resident, host cache %.2f MiB\n", residentMiB(),
                        static_cast<double>(host.cache().bytes()) / (1 << 20));
        } else {
            double first = 0.0, last = 0.0;
            for (int f = 0; f < frames && status == ML::STATUS_OK; ++f) {
                status = render(host, package, f);
                const int done = f + 1;
                if (done == 50 || done == 100 || done == 250 || done == 500 || done == frames) {
                    last = residentMiB();
                    if (first == 0.0) first = last;
                    std::printf("frame %4d: %8.1f MiB resident, host cache %.2f MiB\n", done, last,
                                static_cast<double>(host.cache().bytes()) / (1 << 20));
                }
            }
            std::printf("resident last / first: %.3f\n", first > 0.0 ? last / first : 0.0);
        }
        if (status != ML::STATUS_OK) {
            std::fprintf(stderr, "render failed with status %d\n", status);
            for (const std::string& line : host.logger().lines()) std::fprintf(stderr, "%s\n", line.c_str());
        }
        mlShutdown();
    }
    std::filesystem::remove_all(package);
    return status == ML::STATUS_OK ? 0 : 1;
}
