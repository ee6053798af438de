#include "Host/Cli/Options.h"

#include <cerrno>
#include <cmath>
#include <climits>
#include <cstdlib>
#include <functional>
#include <map>

#include "Host/Cli/CliError.h"
#include "Host/Cli/Targets.h"

namespace QCli {

namespace {

long parseInteger(const std::string& text, const std::string& what, long min, long max) {
    errno = 0;
    char* end = nullptr;
    const long value = text.empty() ? 0 : std::strtol(text.c_str(), &end, 10);
    if (text.empty() || errno != 0 || *end != '\0')
        throw UsageError("bad " + what + " '" + text + "': not a whole number");
    if (value < min || value > max)
        throw UsageError("bad " + what + " '" + text + "': must be " + std::to_string(min) + " to " +
                         std::to_string(max));
    return value;
}

double parseReal(const std::string& text, const std::string& what) {
    errno = 0;
    char* end = nullptr;
    const double value = text.empty() ? 0 : std::strtod(text.c_str(), &end);
    if (text.empty() || errno != 0 || *end != '\0' || !std::isfinite(value))
        throw UsageError("bad " + what + " '" + text + "': not a number");
    return value;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::string::size_type start = 0;
    for (;;) {
        const auto at = text.find(separator, start);
        parts.push_back(text.substr(start, at == std::string::npos ? std::string::npos : at - start));
        if (at == std::string::npos) return parts;
        start = at + 1;
    }
}

// A word among the names of an int parameter's values: "--tracking motion" sets 502 to 1.
int parseChoice(const std::string& text, const std::string& what, const std::vector<std::string>& names) {
    for (std::size_t i = 0; i < names.size(); ++i)
        if (text == names[i]) return static_cast<int>(i);
    std::string list;
    for (const std::string& n : names) list += (list.empty() ? "" : ", ") + n;
    throw UsageError("bad " + what + " '" + text + "' (one of: " + list + ")");
}

ParamSetting intParam(int id, int value) {
    return parseParam(std::to_string(id) + ":int=" + std::to_string(value));
}

Command parseCommand(const std::string& word) {
    if (word == "list") return Command::List;
    if (word == "render") return Command::Render;
    if (word == "demo") return Command::Demo;
    if (word == "bench") return Command::Bench;
    if (word == "help") return Command::Help;
    throw UsageError("unknown command '" + word + "' (commands: list, render, demo, bench, help)");
}

}  // namespace

QMedia::FrameRange parseFrameRange(const std::string& text) {
    // A leading '-' belongs to the first number; the separator is the next '-'.
    const auto dash = text.find('-', 1);
    QMedia::FrameRange range;
    if (dash == std::string::npos) {
        range.first = range.last = static_cast<int>(parseInteger(text, "frame range", INT_MIN / 2, INT_MAX / 2));
    } else {
        range.first = static_cast<int>(parseInteger(text.substr(0, dash), "frame range", INT_MIN / 2, INT_MAX / 2));
        range.last = static_cast<int>(parseInteger(text.substr(dash + 1), "frame range", INT_MIN / 2, INT_MAX / 2));
    }
    if (range.last < range.first) throw UsageError("bad frame range '" + text + "': the last frame comes before the first");
    return range;
}

ML::Rect parseRoi(const std::string& text) {
    const auto parts = split(text, ',');
    if (parts.size() != 4) throw UsageError("bad region '" + text + "': expected x0,y0,x1,y1");
    ML::Rect r;
    r.x0 = static_cast<ML::i32>(parseInteger(parts[0], "region", INT_MIN / 2, INT_MAX / 2));
    r.y0 = static_cast<ML::i32>(parseInteger(parts[1], "region", INT_MIN / 2, INT_MAX / 2));
    r.x1 = static_cast<ML::i32>(parseInteger(parts[2], "region", INT_MIN / 2, INT_MAX / 2));
    r.y1 = static_cast<ML::i32>(parseInteger(parts[3], "region", INT_MIN / 2, INT_MAX / 2));
    if (r.isEmpty()) throw UsageError("bad region '" + text + "': it is empty (x1 > x0 and y1 > y0)");
    return r;
}

void parseSize(const std::string& text, int& width, int& height) {
    const auto x = text.find('x');
    if (x == std::string::npos) throw UsageError("bad size '" + text + "': expected WxH");
    width = static_cast<int>(parseInteger(text.substr(0, x), "size", 1, 16384));
    height = static_cast<int>(parseInteger(text.substr(x + 1), "size", 1, 16384));
}

KeyframeMask parseKeyframe(const std::string& text) {
    const auto eq = text.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == text.size())
        throw UsageError("--keyframe wants FRAME=PATH, not '" + text + "'");
    KeyframeMask k;
    k.frame = static_cast<int>(parseInteger(text.substr(0, eq), "keyframe", 0, INT_MAX / 2));
    k.path = text.substr(eq + 1);
    return k;
}

void parsePoint(const std::string& text, bool allowMinus, SegmentationPrompt& prompt, bool negative) {
    std::string body = text;
    if (allowMinus && !body.empty() && body[0] == '-') {
        negative = true;
        body.erase(0, 1);
    }
    const auto parts = split(body, ',');
    if (parts.size() != 2) throw UsageError("bad point '" + text + "': expected X,Y (a leading '-' for a negative point)");
    const double x = parseReal(parts[0], "point x"), y = parseReal(parts[1], "point y");
    if (x < 0 || y < 0) throw UsageError("bad point '" + text + "': coordinates are pixels, not below 0");
    std::vector<float>& list = negative ? prompt.negative : prompt.positive;
    list.push_back(static_cast<float>(x));
    list.push_back(static_cast<float>(y));
}

std::vector<float> parseBox(const std::string& text) {
    const auto parts = split(text, ',');
    if (parts.size() != 4) throw UsageError("bad box '" + text + "': expected X0,Y0,X1,Y1");
    std::vector<float> box;
    for (const std::string& p : parts) box.push_back(static_cast<float>(parseReal(p, "box corner")));
    if (box[2] <= box[0] || box[3] <= box[1])
        throw UsageError("bad box '" + text + "': X1 and Y1 must be greater than X0 and Y0");
    return box;
}

BufferOutput parseBufferOutput(const std::string& text) {
    const auto eq = text.find('=');
    if (eq == std::string::npos || eq + 1 == text.size())
        throw UsageError("bad buffer output '" + text + "': expected ID[.INDEX]=PATH");
    BufferOutput b;
    std::string key = text.substr(0, eq);
    if (const auto dot = key.find('.'); dot != std::string::npos) {
        b.index = static_cast<int>(parseInteger(key.substr(dot + 1), "buffer index", -1, INT_MAX));
        key.resize(dot);
    }
    b.id = static_cast<int>(parseInteger(key, "buffer id", 0, INT_MAX));
    b.path = text.substr(eq + 1);
    return b;
}

Options parseArguments(const std::vector<std::string>& args) {
    Options o;
    bool commandSeen = false;
    std::optional<std::string> framesText;

    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&]() -> const std::string& {
            if (i + 1 >= args.size()) throw UsageError("option " + arg + " needs a value");
            return args[++i];
        };
        if (arg == "-h" || arg == "--help") {
            o.command = Command::Help;
            return o;
        } else if (arg == "-v" || arg == "--verbose") {
            ++o.verbosity;
        } else if (arg == "-vv") {
            o.verbosity += 2;
        } else if (arg == "--plugin") {
            o.plugin = value();
        } else if (arg == "--package") {
            o.package = value();
        } else if (arg == "--cache-mb") {
            o.cacheMb = static_cast<std::uint64_t>(parseInteger(value(), "cache size", 0, 1L << 24));
        } else if (arg == "--target" || arg == "-t") {
            o.target = parseTarget(value());
        } else if (arg == "--model" || arg == "-m") {
            o.model = static_cast<int>(parseInteger(value(), "model index", 0, INT_MAX));
        } else if (arg == "-i" || arg == "--input") {
            o.input = value();
        } else if (arg == "-o" || arg == "--output") {
            o.output = value();
        } else if (arg == "--output1") {
            o.output1 = value();
        } else if (arg == "--buffer") {
            o.buffers.push_back(parseBufferOutput(value()));
        } else if (arg == "--param" || arg == "-p") {
            o.params.push_back(parseParam(value()));
        } else if (arg == "--frames" || arg == "-f") {
            framesText = value();
        } else if (arg == "--backend") {
            o.backend = value();
        } else if (arg == "--device") {
            o.device = static_cast<std::uint32_t>(parseInteger(value(), "device", 0, INT_MAX));
        } else if (arg == "--keyframe") {
            KeyframeMask k = parseKeyframe(value());
            for (const KeyframeMask& earlier : o.keyframes)
                if (earlier.frame == k.frame)
                    throw UsageError("--keyframe given twice for frame " + std::to_string(k.frame));
            o.keyframes.push_back(std::move(k));
        } else if (arg == "--point") {
            parsePoint(value(), true, o.prompt);
        } else if (arg == "--negative") {
            parsePoint(value(), false, o.prompt, true);
        } else if (arg == "--box") {
            if (!o.prompt.box.empty()) throw UsageError("--box given twice: one box per prompt");
            o.prompt.box = parseBox(value());
        } else if (arg == "--roi") {
            o.roi = parseRoi(value());
        } else if (arg == "--offset") {
            o.params.push_back(parseParam("700:int=" + value()));
        } else if (arg == "--speed") {
            o.speed = parseReal(value(), "speed");
        } else if (arg == "--fps") {
            o.fps = parseReal(value(), "frame rate");
        } else if (arg == "--scale") {
            o.params.push_back(parseParam("200:float=" + value()));
        } else if (arg == "--origin") {
            const std::string& text = value();
            const auto parts = split(text, ',');
            if (parts.size() != 2) throw UsageError("bad origin '" + text + "': expected X,Y");
            o.params.push_back(parseParam("202:int=" + parts[0]));
            o.params.push_back(parseParam("203:int=" + parts[1]));
        } else if (arg == "--tracking") {
            o.params.push_back(intParam(502, parseChoice(value(), "tracking mode", {"none", "motion", "advanced"})));
        } else if (arg == "--smoothing") {
            o.params.push_back(intParam(503, parseChoice(value(), "smoothing mode", {"none", "gaussian", "kalman"})));
        } else if (arg == "--smoothing-level") {
            o.params.push_back(parseParam("505:float=" + value()));
        } else if (arg == "--first-frame") {
            o.params.push_back(parseParam("504:int=" + value()));
        } else if (arg == "--shape-scale") {
            const std::string& text = value();
            const auto parts = split(text, ',');
            if (parts.size() > 2) throw UsageError("bad shape scale '" + text + "': expected S or SX,SY");
            o.params.push_back(parseParam("500:float=" + parts[0]));
            o.params.push_back(parseParam("501:float=" + parts.back()));
        } else if (arg == "--json") {
            o.buffers.push_back(BufferOutput{kJsonBuffer, -1, value()});
        } else if (arg == "--segmentation") {
            o.buffers.push_back(BufferOutput{kSegmentationBuffer, -1, value()});
        } else if (arg == "--threads" || arg == "-j") {
            o.threads = static_cast<int>(parseInteger(value(), "thread count", 1, 256));
        } else if (arg == "--out") {
            o.outDir = value();
        } else if (arg == "--size") {
            parseSize(value(), o.benchWidth, o.benchHeight);
        } else if (!arg.empty() && arg[0] == '-') {
            throw UsageError("unknown option '" + arg + "'");
        } else if (!commandSeen) {
            o.command = parseCommand(arg);
            commandSeen = true;
        } else {
            throw UsageError("unexpected argument '" + arg + "'");
        }
    }
    if (!commandSeen) throw UsageError("no command given (commands: list, render, demo, bench, help)");

    if (framesText) {
        if (o.command == Command::Bench)
            o.benchFrames = static_cast<int>(parseInteger(*framesText, "frame count", 1, 100000));
        else
            o.frames = parseFrameRange(*framesText);
    }
    if (o.command == Command::Render) {
        if (o.target == 0) throw UsageError("render needs --target");
        if (o.input.empty()) throw UsageError("render needs an input (-i PATH)");
        if (o.output.empty()) throw UsageError("render needs an output (-o PATH)");
        if (o.target == TARGET_INTERACTIVE_SEGMENTATION && o.prompt.positive.empty() && o.prompt.box.empty())
            throw UsageError("interactive-segmentation needs a click on the object (--point X,Y) or a box around it "
                             "(--box X0,Y0,X1,Y1)");
    }
    if (!o.prompt.empty() && o.target != TARGET_INTERACTIVE_SEGMENTATION) {
        throw UsageError("--point, --negative and --box are for interactive-segmentation only");
    }
    if (o.command == Command::Bench && o.target == 0) o.target = 9;
    return o;
}

}  // namespace QCli
