#pragma once
// The command line of quillon, parsed into one record. Parsing only checks syntax: files,
// folders and frame ranges are checked by the commands.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Host/Cli/ParamSetting.h"
#include "Host/Media/FrameRange.h"
#include "ML/Rect.h"

namespace QCli {

enum class Command { Help, List, Render, Demo, Bench };

// An output buffer of the effect written to a file: --buffer ID[.INDEX]=PATH.
// Output buffers of the detection effects: the objects as JSON, and the face-parsing masks.
constexpr int kJsonBuffer = 234;
constexpr int kSegmentationBuffer = 235;

// A keyframe of mask propagation: the mask of the one object drawn on that frame.
struct KeyframeMask {
    int frame = 0;
    std::filesystem::path path;
};

// Prompts of interactive segmentation, in image pixels: clicks on the object (positive) and off
// it (negative), and a box around it.
struct SegmentationPrompt {
    std::vector<float> positive;  // x, y pairs
    std::vector<float> negative;  // x, y pairs
    std::vector<float> box;       // x0, y0, x1, y1, or empty

    bool empty() const { return positive.empty() && negative.empty() && box.empty(); }
};

struct BufferOutput {
    int id = 0;
    int index = -1;
    std::filesystem::path path;  // may hold a frame placeholder, like a sequence
};

struct Options {
    Command command = Command::Help;
    int verbosity = 0;                 // 0 errors and warnings, 1 info (-v), 2 verbose (-vv)
    std::filesystem::path plugin;      // empty: Quillon.so beside the executable
    std::filesystem::path package;     // empty: <executable dir>/package
    std::uint64_t cacheMb = 2048;      // compute cache budget

    // render (and bench)
    int target = 0;                    // 0: not given
    int model = 0;
    std::filesystem::path input;
    std::filesystem::path output;
    std::filesystem::path output1;     // colourised or second output image, optional
    std::vector<BufferOutput> buffers;
    std::vector<KeyframeMask> keyframes;  // mask-propagation
    SegmentationPrompt prompt;             // interactive-segmentation
    std::vector<ParamSetting> params;
    std::optional<QMedia::FrameRange> frames;
    std::string backend;               // empty: the plug-in's default
    std::optional<std::uint32_t> device;
    std::optional<ML::Rect> roi;
    int threads = 1;
    // retiming: the source frames an output frame moves on by, or the output's frame rate
    std::optional<double> speed;
    std::optional<double> fps;

    // demo
    std::filesystem::path outDir;      // empty: ./quillon-demo

    // bench; 0: the target's own default
    int benchFrames = 0;
    int benchWidth = 0;
    int benchHeight = 0;
};

// args are the words after the program name. Throws UsageError.
Options parseArguments(const std::vector<std::string>& args);

// Pieces, for tests and reuse. All throw UsageError.
QMedia::FrameRange parseFrameRange(const std::string& text);  // "A-B" or "A"
ML::Rect parseRoi(const std::string& text);                     // "x0,y0,x1,y1"
void parseSize(const std::string& text, int& width, int& height);  // "WxH"
BufferOutput parseBufferOutput(const std::string& text);       // "ID[.INDEX]=PATH"
KeyframeMask parseKeyframe(const std::string& text);            // "FRAME=PATH"
// "X,Y"; a leading minus sign makes the point negative (when allowMinus).
void parsePoint(const std::string& text, bool allowMinus, SegmentationPrompt& prompt, bool negative = false);
std::vector<float> parseBox(const std::string& text);             // "X0,Y0,X1,Y1", X1 > X0, Y1 > Y0

}  // namespace QCli
