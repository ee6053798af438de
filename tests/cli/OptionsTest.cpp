// Parsing of the command line, in process.
#include <gtest/gtest.h>

#include <set>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/Cli/CliError.h"
#include "Host/Cli/Options.h"
#include "Host/Cli/ParamSetting.h"
#include "Host/Cli/Targets.h"

using namespace QCli;

namespace {

Options parse(std::vector<std::string> args) { return parseArguments(args); }

int usageCode(const std::vector<std::string>& args) {
    try {
        parseArguments(args);
    } catch (const CliError& e) {
        return e.exitCode();
    }
    return 0;
}

}  // namespace

TEST(CliTargets, ByNameAndNumber) {
    EXPECT_EQ(parseTarget("depth"), 9);
    EXPECT_EQ(parseTarget("9"), 9);
    EXPECT_EQ(parseTarget("Optical_Flow"), 3);
    EXPECT_EQ(parseTarget("interactive-segmentation"), 7);
    EXPECT_EQ(parseTarget("plate-detection"), 8);
    EXPECT_EQ(parseTarget("16"), 16);
    for (const TargetName& t : allTargets()) EXPECT_EQ(parseTarget(t.name), t.number);
    EXPECT_EQ(allTargets().size(), 16u);
    EXPECT_THROW(parseTarget("0"), UsageError);
    EXPECT_THROW(parseTarget("17"), UsageError);
    EXPECT_THROW(parseTarget("deep"), UsageError);
    EXPECT_THROW(parseTarget(""), UsageError);
    EXPECT_EQ(targetName(9), "depth");
}

TEST(CliParams, TypeInferredFromValue) {
    const ParamSetting whole = parseParam("4=2");
    EXPECT_EQ(whole.id, 4);
    EXPECT_EQ(whole.index, 0);
    EXPECT_TRUE(whole.setsInt && whole.setsFloat && !whole.setsString);
    EXPECT_EQ(whole.intValue, 2);
    EXPECT_FLOAT_EQ(whole.floatValue, 2.0f);

    const ParamSetting real = parseParam("5=2.2f");
    EXPECT_TRUE(real.setsFloat && !real.setsInt && !real.setsString);
    EXPECT_FLOAT_EQ(real.floatValue, 2.2f);

    const ParamSetting text = parseParam("6=a cat");
    EXPECT_TRUE(text.setsString && !text.setsInt && !text.setsFloat);
    EXPECT_EQ(text.text, "a cat");

    const ParamSetting empty = parseParam("6=");
    EXPECT_TRUE(empty.setsString);
    EXPECT_EQ(empty.text, "");
}

TEST(CliParams, ExplicitTypeAndIndex) {
    const ParamSetting p = parseParam("7.2:float=1");
    EXPECT_EQ(p.id, 7);
    EXPECT_EQ(p.index, 2);
    EXPECT_TRUE(p.setsFloat && !p.setsInt);
    EXPECT_FLOAT_EQ(p.floatValue, 1.0f);
    const ParamSetting s = parseParam("8:str=12");
    EXPECT_TRUE(s.setsString && !s.setsInt);
    EXPECT_EQ(s.text, "12");
    EXPECT_EQ(parseParam("3:int=-1").intValue, -1);
}

TEST(CliParams, ReachThePlugInThroughTheHost) {
    auto settings = std::make_shared<QHost::CallSettings>();
    applyParam(*settings, parseParam("4=3"));
    applyParam(*settings, parseParam("5.1=0.25"));
    applyParam(*settings, parseParam("6:str=hello"));
    QHost::Host host;
    const ML::u64 call = host.beginCall(settings);
    EXPECT_EQ(host.getIntParam(call, 4, 0), 3);
    EXPECT_FLOAT_EQ(host.getFloatParam(call, 4, 0), 3.0f);
    EXPECT_FLOAT_EQ(host.getFloatParam(call, 5, 1), 0.25f);
    EXPECT_EQ(host.getIntParam(call, 5, 1), 0);
    EXPECT_EQ(ML::toStd(host.getStringParam(call, 6, 0)), "hello");
    host.endCall(call);
}

TEST(CliParams, MalformedAreUsageErrors) {
    for (const char* bad : {"4", "x=1", "=1", "4:int=1.5", "4:float=abc", "4:bool=1", "4.x=1", "-2=1", "4:int="}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(parseParam(bad), UsageError);
    }
}

TEST(CliOptions, RenderCommandLine) {
    const Options o = parse({"render", "--target", "depth", "--model", "0", "-i", "in.png", "-o", "out.%04d.exr",
                             "--output1", "c.%04d.png", "--param", "4=2", "-p", "5:float=1", "--frames", "3-7",
                             "--backend", "ort_cpu", "--device", "0", "--roi", "1,2,30,40", "--threads", "3",
                             "--cache-mb", "64", "-vv", "--buffer", "0=objects.%04d.json"});
    EXPECT_EQ(o.command, Command::Render);
    EXPECT_EQ(o.target, 9);
    EXPECT_EQ(o.input, "in.png");
    EXPECT_EQ(o.output, "out.%04d.exr");
    EXPECT_EQ(o.output1, "c.%04d.png");
    ASSERT_EQ(o.params.size(), 2u);
    ASSERT_TRUE(o.frames);
    EXPECT_EQ(o.frames->first, 3);
    EXPECT_EQ(o.frames->last, 7);
    EXPECT_EQ(o.backend, "ort_cpu");
    EXPECT_EQ(o.device, 0u);
    ASSERT_TRUE(o.roi);
    EXPECT_EQ(o.roi->x0, 1);
    EXPECT_EQ(o.roi->y1, 40);
    EXPECT_EQ(o.threads, 3);
    EXPECT_EQ(o.cacheMb, 64u);
    EXPECT_EQ(o.verbosity, 2);
    ASSERT_EQ(o.buffers.size(), 1u);
    EXPECT_EQ(o.buffers[0].id, 0);
    EXPECT_EQ(o.buffers[0].index, -1);
}

TEST(CliOptions, FramesMeanACountForBench) {
    const Options o = parse({"bench", "--frames", "5", "--size", "320x200"});
    EXPECT_EQ(o.command, Command::Bench);
    EXPECT_EQ(o.target, 9);
    EXPECT_EQ(o.benchFrames, 5);
    EXPECT_EQ(o.benchWidth, 320);
    EXPECT_EQ(o.benchHeight, 200);
    EXPECT_FALSE(o.frames);
}

TEST(CliOptions, RangesAndRegions) {
    EXPECT_EQ(parseFrameRange("5").first, 5);
    EXPECT_EQ(parseFrameRange("5").last, 5);
    EXPECT_EQ(parseFrameRange("-3-2").first, -3);
    EXPECT_EQ(parseFrameRange("-3-2").last, 2);
    EXPECT_THROW(parseFrameRange("7-3"), UsageError);
    EXPECT_THROW(parseFrameRange("a-b"), UsageError);
    EXPECT_THROW(parseFrameRange(""), UsageError);
    EXPECT_THROW(parseRoi("1,2,3"), UsageError);
    EXPECT_THROW(parseRoi("5,5,5,9"), UsageError);
    EXPECT_THROW(parseBufferOutput("0"), UsageError);
    EXPECT_EQ(parseBufferOutput("2.1=x.bin").index, 1);
}

TEST(CliOptions, UsageErrors) {
    EXPECT_EQ(usageCode({}), EXIT_USAGE);
    EXPECT_EQ(usageCode({"paint"}), EXIT_USAGE);
    EXPECT_EQ(usageCode({"render", "-i", "a.png", "-o", "b.exr"}), EXIT_USAGE);  // no target
    EXPECT_EQ(usageCode({"render", "-t", "depth", "-o", "b.exr"}), EXIT_USAGE);  // no input
    EXPECT_EQ(usageCode({"render", "-t", "depth", "-i", "a.png"}), EXIT_USAGE);  // no output
    EXPECT_EQ(usageCode({"render", "-t", "depth", "-i", "a.png", "-o"}), EXIT_USAGE);
    EXPECT_EQ(usageCode({"list", "--bogus"}), EXIT_USAGE);
    EXPECT_EQ(usageCode({"list", "extra"}), EXIT_USAGE);
    EXPECT_EQ(usageCode({"render", "-t", "depth", "-i", "a", "-o", "b", "--threads", "0"}), EXIT_USAGE);
    EXPECT_EQ(parse({"--help"}).command, Command::Help);
}

TEST(CliExitCodes, ResultsMapToDistinctCodes) {
    EXPECT_EQ(exitCodeForResult(1), EXIT_CANCELLED);
    EXPECT_EQ(exitCodeForResult(2), EXIT_HOST);
    EXPECT_EQ(exitCodeForResult(3), EXIT_BACKEND);
    EXPECT_EQ(exitCodeForResult(4), EXIT_FAILURE_OTHER);
    const std::set<int> codes = {EXIT_OK, EXIT_FAILURE_OTHER, EXIT_USAGE, EXIT_HOST, EXIT_BACKEND, EXIT_CANCELLED};
    EXPECT_EQ(codes.size(), 6u);
}
