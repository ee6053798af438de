#include "Cli.h"

#include <filesystem>
#include <functional>
#include <map>

#include "Configs.h"
#include "Conversion.h"
#include "Formats.h"
#include "Normalize.h"
#include "Package.h"
#include "Sampler.h"
#include "StandIns.h"

namespace fs = std::filesystem;

namespace qpkg {

namespace {

// The arguments of one command: one folder, then options.
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

// Parses "<dir> [options]" against the options the command accepts.
Arguments parseArguments(const std::string& command, const std::vector<std::string>& args,
                         const std::vector<std::string>& valueOptions, const std::vector<std::string>& flagOptions) {
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
            if (arg.empty()) throw UsageError("the folder of '" + command + "' is empty");
            a.dir = arg;
            haveDir = true;
        } else {
            throw UsageError("unexpected argument '" + arg + "' for '" + command + "'");
        }
    }
    if (!haveDir) throw UsageError("'" + command + "' needs a folder");
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

int commandDefault(const std::vector<std::string>& args, std::ostream& out) {
    const Arguments a = parseArguments("default", args, {}, {"--encrypt"});
    writeDefaultPackage(a.dir, a.has("--encrypt"));
    out << "Wrote the default package to " << a.dir.string() << "\n";
    return kExitOk;
}

int commandImgcvt(const std::vector<std::string>& args, std::ostream& out) {
    const Arguments a = parseArguments("imgcvt", args, {"--pair"}, {});
    if (a.all("--pair").empty()) {
        writeImgcvt(a.dir);
    } else {
        std::vector<FormatPair> pairs;
        for (const std::string& p : a.all("--pair")) pairs.push_back(parseConversionName(p));
        writeConversionNetworks(a.dir, pairs);
    }
    out << "Wrote helper networks to " << (a.dir / "imgcvt").string() << "\n";
    return kExitOk;
}

int commandConfig(const std::vector<std::string>& args, std::ostream& out) {
    const Arguments a = parseArguments("config", args, {}, {"--encrypt"});
    writeConfigs(a.dir, a.has("--encrypt"));
    out << "Wrote configuration files (" << targetConfigs().size() << ") to " << a.dir.string() << "\n";
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
    const Arguments a = parseArguments("sampler", args, {"--type", "--size"}, {"--split"});
    const std::vector<ML::u32> types = typesOf(a);
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

std::string usageText() {
    return "Usage: quillon-pkg <command> [arguments]\n"
           "\n"
           "Writes model packages: configuration files and helper networks.\n"
           "\n"
           "Commands:\n"
           "  default <dir> [--encrypt]\n"
           "      The default package: <dir>/config (the sixteen configuration files, the host's\n"
           "      data folder) and <dir>/models (imgcvt networks and stand-ins, the aux folder).\n"
           "  imgcvt <dir> [--pair <A>_TO_<B>]...\n"
           "      Into <dir>/imgcvt: every format conversion, resize_<type>_<layout>,\n"
           "      CONVERT_GAMMA_<type> and GET_IMAGE_STATS_<type>; with --pair only those conversions.\n"
           "  config <dir> [--encrypt]\n"
           "      The configuration files; --encrypt adds their encrypted .bin twins.\n"
           "  normalizer <dir> --type F16|F32 --size NxHxW [--type ...] [--size ...]\n"
           "      normalize-input_<type>_<N>x<H>x<W> and denormalize-output_<type>_<N>x<H>x<W>.\n"
           "  sampler <dir> --type F16|F32 --size NxHxW [--type ...] [--size ...] [--split]\n"
           "      upres_sampler_<type>_<N>x<H>x<W>; --split takes 13 parameters instead of 7.\n"
           "  standins <dir>\n"
           "      Stand-in networks of the effects (depth_standin, depth_standin_colorize).\n"
           "  --help\n"
           "      This text.\n"
           "\n"
           "Formats are <layout>-<type>-<channels>: layout HWC or CHW, type U8, F16 or F32,\n"
           "channels RGB, RGBA, R, RG, ARGB or BGR. Example: HWC-U8-RGBA_TO_CHW-F16-RGB.\n"
           "\n"
           "Exit status: 0 done, 1 a file or folder could not be written, 2 bad arguments.\n";
}

int runCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    static const std::map<std::string, std::function<int(const std::vector<std::string>&, std::ostream&)>>
        commands{{"default", commandDefault},       {"imgcvt", commandImgcvt},   {"config", commandConfig},
                 {"normalizer", commandNormalizer}, {"sampler", commandSampler}, {"standins", commandStandIns}};
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
