// quillon demo: the first thing to run. Makes the default package if missing, a sample
// picture, and its depth with the colourised view.
#include <filesystem>

#include "Host/Cli/CliError.h"
#include "Host/Cli/Commands.h"
#include "Host/Cli/Paths.h"
#include "Host/Cli/SampleImage.h"
#include "Host/Media/ImageWriter.h"
#include "Package.h"

namespace QCli {

int runDemo(const Options& o, std::ostream& out, std::ostream& err) {
    const std::filesystem::path package = o.package.empty() ? defaultPackageDir() : o.package;
    std::error_code error;
    if (!std::filesystem::is_directory(qpkg::configFolderOf(package), error)) {
        out << "Making the default model package in " << package.string() << "\n";
        try {
            std::filesystem::create_directories(package);
            qpkg::PackageOptions options;
            options.networks = qpkg::defaultNetworksFolder();
            for (const std::string& note : qpkg::writeDefaultPackage(package, options)) out << note << "\n";
        } catch (const std::exception& e) {
            throw CliError::because(EXIT_HOST, "cannot make the model package in " + package.string(), e);
        }
    }

    const std::filesystem::path dir = o.outDir.empty() ? std::filesystem::path("quillon-demo") : o.outDir;
    try {
        std::filesystem::create_directories(dir);
    } catch (const std::exception& e) {
        throw CliError::because(EXIT_HOST, "cannot make the folder " + dir.string(), e);
    }
    const auto sample = dir / "sample.png";
    try {
        QMedia::writeImage(sample, makeSampleImage(640, 360));
    } catch (const std::exception& e) {
        throw CliError::because(EXIT_HOST, "cannot write " + sample.string(), e, sample.string());
    }

    Options render = o;
    render.command = Command::Render;
    render.package = package;
    render.target = 9;
    render.input = sample;
    render.output = dir / "depth.exr";
    render.output1 = dir / "depth_colour.png";
    render.frames.reset();
    const int code = runRender(render, out, err);
    if (code != EXIT_OK) return code;

    out << "Sample picture:  " << sample.string() << "\n"
        << "Depth (float):   " << render.output.string() << "\n"
        << "Depth (colour):  " << render.output1.string() << "\n";
    return EXIT_OK;
}

}  // namespace QCli
