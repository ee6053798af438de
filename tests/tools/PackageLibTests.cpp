// Pieces of the package tool's library that the command line does not reach on its own.
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>

#include "GraphBuilder.h"
#include "PackageFiles.h"
#include "Util/ML_FileUtil.h"
#include "util/TempDir.h"

namespace fs = std::filesystem;

TEST(GraphBuilder, RejectsAGraphTheCheckerRefuses) {
    qpkg::GraphBuilder g("broken");
    const std::string x = g.input("input", ML::F32, {qpkg::Dim::named("N")});
    g.output(g.op("Add", {x}), "output", ML::F32, {qpkg::Dim::named("N")});  // Add needs two inputs
    try {
        g.build();
        FAIL() << "expected the checker to refuse the graph";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("network broken fails the ONNX checker"), std::string::npos) << e.what();
    }
}

TEST(PackageFiles, FailedWriteLeavesTheOldFileAndNoTemporary) {
    TempDir temp;
    const fs::path& dir = temp.path();
    fs::create_directories(dir / "target.json");  // a folder where the file should go: rename must fail
    EXPECT_THROW(qpkg::writeFileAtomic(dir / "target.json", "{}"), std::runtime_error);
    qpkg::writeFileAtomic(dir / "plain.json", "first");
    qpkg::writeFileAtomic(dir / "plain.json", "second");
    EXPECT_EQ(ML::readBinaryFile(dir / "plain.json"), "second");
    // The folder and the file, no temporaries.
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), fs::directory_iterator()), 2);
}
