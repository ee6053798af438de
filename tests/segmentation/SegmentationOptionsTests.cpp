// The prompt of interactive segmentation on the command line: clicks, negative clicks by a
// leading minus sign or --negative, one box, each turned into the effect's input buffers; bad
// values are usage errors.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Host/Cli/CliError.h"
#include "Host/Cli/FrameRenderer.h"
#include "Host/Cli/Options.h"

namespace {

using Words = std::vector<std::string>;
using Buffers = std::map<int, std::vector<float>>;

Words renderWith(const Words& prompt, const std::string& target = "interactive-segmentation") {
    Words words{"render", "--target", target, "-i", "in.png", "-o", "out.png"};
    words.insert(words.end(), prompt.begin(), prompt.end());
    return words;
}

TEST(SegmentationOptions, PromptsBecomeInputBuffers) {
    const std::pair<Words, Buffers> cases[] = {
        {{"--point", "120,80", "--point", "-300,40", "--box", "50,20,400,300"},
         {{900, {120, 80}}, {901, {300, 40}}, {902, {50, 20, 400, 300}}}},
        {{"--point", "1.5,2", "--negative", "3,4", "--point", "5,6"}, {{900, {1.5f, 2, 5, 6}}, {901, {3, 4}}}},
        {{"--box", "0,0,10,10"}, {{902, {0, 0, 10, 10}}}},
    };
    for (const auto& [words, buffers] : cases) {
        const QCli::Options o = QCli::parseArguments(renderWith(words));
        EXPECT_EQ(QCli::renderRequestFor(o).inputBuffers, buffers) << testing::PrintToString(words);
    }
}

TEST(SegmentationOptions, BadValuesAreUsageErrors) {
    const Words cases[] = {
        renderWith({"--point", "1"}),
        renderWith({"--point", "a,b"}),
        renderWith({"--negative", "-3,4", "--point", "1,1"}),
        renderWith({"--box", "5,5,1,1"}),
        renderWith({"--box", "1,2,3"}),
        renderWith({"--box", "0,0,4,4", "--box", "1,1,5,5"}),
        renderWith({"--negative", "100,10"}),  // nothing to select
        renderWith({}),
        renderWith({"--point", "1,1"}, "depth"),
    };
    for (const Words& words : cases)
        EXPECT_THROW(QCli::parseArguments(words), QCli::UsageError) << testing::PrintToString(words);
}

}  // namespace

// A click or a box beside the picture would select nothing: the frame's size refuses it.
TEST(SegmentationOptions, PromptsOutsideThePictureAreRefused) {
    const std::pair<Buffers, bool> cases[] = {
        {{{900, {639, 479}}, {902, {-10, -10, 1, 1}}}, true},
        {{{900, {640, 10}}}, false},
        {{{901, {10, 480}}, {902, {0, 0, 10, 10}}}, false},
        {{{902, {640, 0, 700, 10}}}, false},
        {{{902, {-20, -20, 0, 10}}}, false},
    };
    for (const auto& [buffers, inside] : cases) {
        if (inside) {
            EXPECT_NO_THROW(QCli::checkPromptInPicture(buffers, 640, 480)) << testing::PrintToString(buffers);
            continue;
        }
        try {
            QCli::checkPromptInPicture(buffers, 640, 480);
            ADD_FAILURE() << testing::PrintToString(buffers);
        } catch (const QCli::CliError& e) {
            EXPECT_NE(std::string(e.what()).find("lies outside the picture (640x480)"), std::string::npos) << e.what();
        }
    }
}
