#include "Cli.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include "Configs.h"
#include "Conversion.h"
#include "Formats.h"
#include "Import/Adapters.h"
#include "Import/ImportError.h"
#include "Import/NetworkSources.h"
#include "Normalize.h"
#include "Package.h"
#include "Sampler.h"
#include "PackageFiles.h"
#include "StandIns.h"

namespace fs = std::filesystem;

namespace qpkg {

namespace {

// The arguments of one command: one folder (or file), then options.
struct Arguments {
    fs::path dir;
    std::map<std::string, std::vector<std::string>> values;  // options with a value, in order given
    std::vector<std::string> flags;                          // options without a value

    bool has(const std::string& flag) const {
        for (const std::string& f : flags)
            if (f == flag) return true;
        return false;
    }
    const std::vector<std::string>& all(const std::string& option) const {
        static const std::vector<std::string> none;
        const auto it = values.find(option);
        return it == values.end() ? none : it->second;
    }
};

// Parses "<dir> [options]" against the options the command accepts; what names the positional
// argument in messages.
Arguments parseArguments(const std::string& command, const std::vector<std::string>& args,
                         const std::vector<std::string>& valueOptions, const std::vector<std::string>& flagOptions,
                         const std::string& what = "folder") {
    Arguments a;
    bool haveDir = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg.size() > 1 && arg[0] == '-') {
            bool known = false;
            for (const std::string& o : valueOptions) {
                if (o != arg) continue;
                if (i + 1 >= args.size()) throw UsageError("option " + arg + " of '" + command + "' needs a value");
                a.values[arg].push_back(args[++i]);
                known = true;
            }
            for (const std::string& f : flagOptions) {
                if (f != arg) continue;
                a.flags.push_back(arg);
                known = true;
            }
            if (!known) throw UsageError("unknown option " + arg + " for '" + command + "'");
        } else if (!haveDir) {
            if (arg.empty()) throw UsageError("the " + what + " of '" + command + "' is empty");
            a.dir = arg;
            haveDir = true;
        } else {
            throw UsageError("unexpected argument '" + arg + "' for '" + command + "'");
        }
    }
    if (!haveDir) throw UsageError("'" + command + "' needs a " + what);
    return a;
}

std::vector<ML::u32> typesOf(const Arguments& a) {
    if (a.all("--type").empty()) throw UsageError("--type is required (F16 or F32)");
    std::vector<ML::u32> types;
    for (const std::string& t : a.all("--type")) types.push_back(parseDataType(t, allFloatTypes()));
    return types;
}

std::vector<TensorSize> sizesOf(const Arguments& a) {
    if (a.all("--size").empty()) throw UsageError("--size is required (NxHxW, e.g. 1x512x512)");
    std::vector<TensorSize> sizes;
    for (const std::string& s : a.all("--size")) sizes.push_back(parseTensorSize(s));
    return sizes;
}

// The real networks' folder: --networks, else the default.
fs::path networksFolder(const Arguments& a) {
    if (!a.all("--networks").empty()) return a.all("--networks").back();
    return defaultNetworksFolder();
}

int commandDefault(const std::vector<std::string>& args, std::ostream& out) {
    const Arguments a = parseArguments("default", args, {"--networks", "--with"}, {"--encrypt", "--portable"});
    PackageOptions options;
    options.encrypt = a.has("--encrypt");
    options.portable = a.has("--portable");
    options.networks = networksFolder(a);
    options.with = a.all("--with");
    for (const std::string& name : options.with) {
        bool known = false;
        std::string gpl;
        for (const tfjs::NetworkSource& s : tfjs::networkSources()) {
            known = known || s.modelId == name;
            if (s.gpl) gpl += (gpl.empty() ? "" : ", ") + s.modelId;
        }
        if (!known) throw UsageError("--with " + name + ": no such network (GPL networks: " + (gpl.empty() ? "none" : gpl) + ")");
    }
    for (const std::string& note : writeDefaultPackage(a.dir, options)) out << note << "\n";
    out << "Wrote the default package to " << a.dir.string() << "\n";
    return kExitOk;
}

// "NAME=VALUE": the two halves; UsageError naming the option otherwise.
std::pair<std::string, std::string> splitAssignment(const std::string& option, const std::string& text) {
    const size_t eq = text.find('=');
    if (eq == 0 || eq == std::string::npos || eq + 1 == text.size())
        throw UsageError(option + " " + text + ": expected NAME=VALUE");
    return {text.substr(0, eq), text.substr(eq + 1)};
}

// A list of numbers separated by sep ("1x256x256x3", "0.25,0.5").
std::vector<double> numbers(const std::string& option, const std::string& text, char sep) {
    std::vector<double> values;
    size_t start = 0;
    while (true) {
        const size_t end = text.find(sep, start);
        const std::string item = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        char* stop = nullptr;
        const double v = std::strtod(item.c_str(), &stop);
        if (item.empty() || *stop != '\0') throw UsageError(option + " " + text + ": '" + item + "' is not a number");
        values.push_back(v);
        if (end == std::string::npos) return values;
        start = end + 1;
    }
}

int commandImport(const std::vector<std::string>& args, std::ostream& out) {
    const Arguments a = parseArguments("import", args, {"-o", "--adapter", "--input-shape", "--const"}, {}, "model.json");
    if (a.all("-o").size() != 1) throw UsageError("'import' needs one output file: -o <out.onnx>");
    if (a.all("--adapter").size() > 1) throw UsageError("'import' takes one --adapter");
    const fs::path output = a.all("-o").front();
    const tfjs::Adapter* adapter = nullptr;
    if (!a.all("--adapter").empty()) {
        try {
            adapter = &tfjs::adapterNamed(a.all("--adapter").front());
        } catch (const tfjs::ImportError& e) {
            throw UsageError(e.what());
        }
    }
    tfjs::ImportOptions options;
    for (const std::string& s : a.all("--input-shape")) {
        const auto [name, value] = splitAssignment("--input-shape", s);
        std::vector<int64_t>& shape = options.inputShapes[name];
        for (double d : numbers("--input-shape", value, 'x')) {
            // -1 leaves an extent free (a recurrent state input of unknown size, for example).
            if ((d < 1 && d != -1) || d > (1 << 20) || d != static_cast<double>(static_cast<int64_t>(d)))
                throw UsageError("--input-shape " + s + ": extents must be whole numbers from 1, or -1 for a free one");
            shape.push_back(static_cast<int64_t>(d));
        }
    }
    for (const std::string& s : a.all("--const")) {
        const auto [name, value] = splitAssignment("--const", s);
        for (double d : numbers("--const", value, ',')) options.inputConstants[name].push_back(static_cast<float>(d));
    }
    const auto start = std::chrono::steady_clock::now();
    const tfjs::Model model = tfjs::readModel(a.dir);
    const onnx::ModelProto proto = adapter ? tfjs::importAdapted(model, *adapter, options) : tfjs::importModel(model, options);
    writeModel(proto, output);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    out << "Imported " << a.dir.string() << (adapter ? " through adapter " + adapter->name : std::string()) << " to "
        << output.string() << " (" << proto.graph().node_size() << " nodes, " << static_cast<int>(seconds * 1000)
        << " ms)\n";
    return kExitOk;
}

int commandImgcvt(const std::vector<std::string>& args, std::ostream& out) {
    const Arguments a = parseArguments("imgcvt", args, {"--pair"}, {"--portable"});
    if (a.all("--pair").empty()) {
        writeImgcvt(a.dir, a.has("--portable"));
    } else {
        std::vector<FormatPair> pairs;
        for (const std::string& p : a.all("--pair")) pairs.push_back(parseConversionName(p));
        writeConversionNetworks(a.dir, pairs, a.has("--portable"));
    }
    out << "Wrote helper networks to " << (a.dir / "imgcvt").string() << "\n";
    return kExitOk;
}

int commandConfig(const std::vector<std::string>& args, std::ostream& out) {
    const Arguments a = parseArguments("config", args, {}, {"--encrypt"});
    writeConfigs(a.dir, a.has("--encrypt"));
    std::set<std::string> files;
    for (const TargetConfig& c : targetConfigs()) files.insert(c.file);
    out << "Wrote configuration files (" << files.size() << ") to " << a.dir.string() << "\n";
    return kExitOk;
}

int commandNormalizer(const std::vector<std::string>& args, std::ostream& out) {
    const Arguments a = parseArguments("normalizer", args, {"--type", "--size"}, {});
    const std::vector<ML::u32> types = typesOf(a);
    const std::vector<TensorSize> sizes = sizesOf(a);
    for (ML::u32 t : types)
        for (const TensorSize& s : sizes) writeNormalizerNetworks(a.dir, t, s);
    out << "Wrote normaliser networks (" << 2 * types.size() * sizes.size() << ") to " << a.dir.string() << "\n";
    return kExitOk;
}

int commandSampler(const std::vector<std::string>& args, std::ostream& out) {
    const Arguments a = parseArguments("sampler", args, {"--type", "--size"}, {"--split", "--dynamic"});
    const std::vector<ML::u32> types = typesOf(a);
    if (a.has("--dynamic")) {
        if (!a.all("--size").empty() || a.has("--split"))
            throw UsageError("--dynamic takes neither --size nor --split");
        for (ML::u32 t : types) writeDynamicSamplerNetwork(a.dir, t);
        out << "Wrote dynamic sampler networks (" << types.size() << ") to " << a.dir.string() << "\n";
        return kExitOk;
    }
    const std::vector<TensorSize> sizes = sizesOf(a);
    for (ML::u32 t : types)
        for (const TensorSize& s : sizes) writeSamplerNetwork(a.dir, t, s, a.has("--split"));
    out << "Wrote sampler networks (" << types.size() * sizes.size() << ") to " << a.dir.string() << "\n";
    return kExitOk;
}

int commandStandIns(const std::vector<std::string>& args, std::ostream& out) {
    const Arguments a = parseArguments("standins", args, {}, {});
    writeStandIns(a.dir);
    out << "Wrote stand-in networks to " << a.dir.string() << "\n";
    return kExitOk;
}

}  // namespace

// The adapters' names, wrapped below "      Adapters: ".
static std::string adapterNames() {
    std::string names, line = "      Adapters: ";
    for (const tfjs::Adapter& a : tfjs::adapters()) {
        if (line.size() + a.name.size() + 2 > 88) {
            names += line + "\n";
            line = "        ";
        }
        line += a.name + ", ";
    }
    return names + line.substr(0, line.size() - 2) + ".\n";
}

std::string usageText() {
    return "Usage: quillon-pkg <command> [arguments]\n"
           "\n"
           "Writes model packages: configuration files, helper networks, stand-ins and networks\n"
           "imported from TensorFlow.js.\n"
           "\n"
           "Commands:\n"
           "  default <dir> [--encrypt] [--portable] [--networks <folder>] [--with <model>]...\n"
           "      The default package: <dir>/config (the sixteen configuration files, the host's\n"
           "      data folder) and <dir>/models (imgcvt networks, stand-ins and the real networks\n"
           "      found in the networks folder, listed in networks.json and NETWORKS.md; the aux\n"
           "      folder). The networks folder is --networks, else $QUILLON_NETWORKS, else\n"
           "      " QUILLON_DEFAULT_NETWORKS ".\n"
           "      GPL-licensed networks are written only when named with --with.\n"
           "      --portable: format conversions of standard ONNX operators only, loadable by any\n"
           "      ONNX runtime; by default they use the fused ai.quillon operators of the ort\n"
           "      backends (one pass over memory).\n"
           "  import <model.json> -o <out.onnx> [--adapter <name>] [--input-shape NAME=1xHxWxC]...\n"
           "         [--const NAME=V[,V...]]...\n"
           "      One TensorFlow.js network to ONNX: plain (inputs and outputs its own, 4-D ones\n"
           "      N,C,H,W) or through an adapter to a model family's inputs and outputs.\n"
           "      --input-shape gives an input's extents (TensorFlow order, -1 free); --const fixes\n"
           "      an input to values, so that conditionals on it are resolved at import time.\n"
           + adapterNames() +
           "  imgcvt <dir> [--pair <A>_TO_<B>]... [--portable]\n"
           "      Into <dir>/imgcvt: every format conversion, resize_<type>_<layout>,\n"
           "      CONVERT_GAMMA_<type>, GET_IMAGE_STATS_<type> and blend_F32_1x3x384x384 (the\n"
           "      retiming tiles' weighted sum); with --pair only those conversions.\n"
           "  config <dir> [--encrypt]\n"
           "      The configuration files; --encrypt adds their encrypted .bin twins.\n"
           "  normalizer <dir> --type F16|F32 --size NxHxW [--type ...] [--size ...]\n"
           "      normalize-input_<type>_<N>x<H>x<W> and denormalize-output_<type>_<N>x<H>x<W>.\n"
           "  sampler <dir> --type F16|F32 --size NxHxW [--type ...] [--size ...] [--split]\n"
           "  sampler <dir> --type F16|F32 [--type ...] --dynamic\n"
           "      upres_sampler_<type>_<N>x<H>x<W>; --split takes 13 parameters instead of 7;\n"
           "      --dynamic: upres_sampler_dynamic_<type>, free extents, output size from an input.\n"
           "  standins <dir>\n"
           "      Stand-in networks of the effects (depth_standin, depth_standin_colorize,\n"
           "      upres_standin_2x, upres_standin_4x, upres_standin_enhance,\n"
           "      denoiser_standin_stage1, denoiser_standin_stage2, optical_flow_standin,\n"
           "      flow_viz-288x512, flow_max, retiming_standin, lp_detection_standin_detector,\n"
           "      lp_detection_standin_nms).\n"
           "  --help\n"
           "      This text.\n"
           "\n"
           "Formats are <layout>-<type>-<channels>: layout HWC or CHW, type U8, F16 or F32,\n"
           "channels RGB, RGBA, R, RG, ARGB or BGR. Example: HWC-U8-RGBA_TO_CHW-F16-RGB.\n"
           "\n"
           "Exit status: 0 done, 1 a file or folder could not be written or a network not\n"
           "imported, 2 bad arguments.\n";
}

int runCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    static const std::map<std::string, std::function<int(const std::vector<std::string>&, std::ostream&)>>
        commands{{"default", commandDefault},       {"imgcvt", commandImgcvt},   {"config", commandConfig},
                 {"normalizer", commandNormalizer}, {"sampler", commandSampler}, {"standins", commandStandIns},
                 {"import", commandImport}};
    try {
        if (args.empty()) throw UsageError("no command given");
        bool help = args[0] == "help";
        for (const std::string& a : args) help = help || a == "--help" || a == "-h";
        if (help) {
            out << usageText();
            return kExitOk;
        }
        const auto it = commands.find(args[0]);
        if (it == commands.end()) throw UsageError("unknown command '" + args[0] + "'");
        return it->second(std::vector<std::string>(args.begin() + 1, args.end()), out);
    } catch (const UsageError& e) {
        err << "quillon-pkg: error: " << e.what() << " (see quillon-pkg --help)\n";
        return kExitUsage;
    } catch (const std::exception& e) {
        err << "quillon-pkg: error: " << e.what() << "\n";
        return kExitFailure;
    }
}

}  // namespace qpkg
