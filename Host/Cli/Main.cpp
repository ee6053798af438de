#include <iostream>
#include <string>
#include <vector>

#include "Host/Cli/CliError.h"
#include "Host/Cli/Commands.h"
#include "Host/Media/MediaLog.h"

namespace QCli {

const char* helpText() {
    return R"(usage: quillon <command> [options]

Commands:
  list                       backends, devices and the models of every target
  render --target T -i IN -o OUT [options]
                             render frames of IN through an effect into OUT
  demo [--out DIR]           make the default package if missing, a sample image, and its depth
  bench [--target T] [--frames N] [--size WxH] [--scale F] [--offset N]
                             time N renders through the plug-in against the bare networks
                             (targets: depth, upres, denoise, optical-flow, retiming,
                             interactive-segmentation; defaults: 1920x1080, but upres 640x360 x2;
                             denoise also on two host threads; interactive-segmentation: encoder
                             and decoder apart, and a prompt change on an encoded frame)
  help                       this text

Inputs and outputs are image files (.png .exr .tif .jpg ...), numbered image sequences
(frame.%04d.exr or frame.####.exr) or video files (.mp4 .mov .mkv .avi .webm).

Common options:
  --plugin PATH              plug-in library (default: Quillon.so beside this program)
  --package DIR              model package, made by 'quillon-pkg default DIR'
                             (default: <this program's folder>/package)
  --cache-mb N               compute cache budget in MiB (default 2048)
  -v, --verbose              show the plug-in's info lines; twice (-vv) also verbose lines
                             (by default errors and warnings are shown)

Render options:
  -t, --target T             effect by name or number: denoise 1, upres 2, optical-flow 3,
                             mask-propagation 4, retiming 5, face-detection 6,
                             interactive-segmentation 7, plate-detection 8, depth 9, matting 10,
                             pose 11, photo-restoration 12, point-tracking 13, hdr 14, heads3d 15,
                             deinterlace 16
  -m, --model N              model index of the target (default 0; see 'quillon list')
  -i, --input PATH           input image, sequence or video
  -o, --output PATH          output image 0 (depth: one channel, float)
  --output1 PATH             output image 1 (depth: the colourised view)
  --buffer ID[.INDEX]=PATH   write output buffer ID to PATH (.json: as text, else the raw bytes);
                             with several frames PATH needs a frame number (%04d or ####)
  -p, --param ID[.INDEX][:TYPE]=VALUE
                             a host parameter (index 0 unless given). TYPE is int, float or str;
                             without it, a whole number sets both the int and float parameter,
                             another number ("2.5" or "2.5f") the float one, anything else the
                             string one. Examples: --param 4=2  --param 5:float=0.5  --param 6:str=a
  -f, --frames A-B           frames to render, inside the input (default: all of it)
  --backend NAME             backend (default: the plug-in's default; see 'quillon list')
  --device N                 device of the backend (default: the backend's default)
  --roi x0,y0,x1,y1          region of interest, x1 and y1 exclusive (default: the whole frame)
  -j, --threads N            render N frames at once where the effect allows it (depth does)
  --scale F                  upres: the factor, above 1 and up to 10 (float parameter 200); the
                             output is the input's size times F
  --origin X,Y               upres: the point that stays in place (int parameters 202, 203)
  --offset N                 optical-flow: flow from each frame to the frame N later (int parameter
                             700); past the clip's end the last frame repeats
  --speed S                  retiming: each output frame moves on by S source frames (0.5: twice as
                             slow); the source position goes to the effect as float parameter 400
  --fps F                    retiming: output frame rate F for a video input (frame-rate conversion)
  mask-propagation (output 0: the mask; --output1: the picture with the object tinted):
  --keyframe N=PATH          the object's mask on frame N, from an image (repeat for more
                             keyframes); the walk starts at the first keyframe
  interactive-segmentation (output 0: the object's mask; --output1: the picture with the mask
  tinted and the prompt drawn); a clip gets the same prompt on every frame:
  --point X,Y                a click on the object, in pixels; with a leading minus sign
                             (--point -300,40) a click off it, a negative point (repeat for more)
  --negative X,Y             a negative point, as --point -X,Y
  --box X0,Y0,X1,Y1          a box around the object (one)
  face-detection and plate-detection (output 0: the objects' mask; --output1: the picture with
  the objects blurred away):
  --json PATH                the objects as JSON (buffer 234): PATH with a frame number gives a
                             file a frame, else one file for the clip, an array of the frames
  --segmentation PATH        faces: soft parsing masks, one byte a pixel (buffer 235; the JSON
                             says where each mask lies); needs --json
  --tracking MODE            faces: none, motion (the default) or advanced (appearance) ids
                             across frames (int parameter 502)
  --smoothing MODE           none, gaussian (needs --tracking none) or kalman (with tracking) (503)
  --smoothing-level L        gaussian: 0.25 to 2.5 (float parameter 505)
  --first-frame N            the frame where tracking starts (default: the first rendered) (504)
  --shape-scale S[,SY]       grow the drawn shapes by S across and SY down (default 1) (500, 501)

Demo options:
  --out DIR                  folder for the sample and its results (default ./quillon-demo)

Bench options:
  --frames N                 renders to time (default 10)
  --size WxH                 picture size (default 1920x1080)

Exit codes:
  0    success
  1    failure of the effect or another failure (plug-in result 4)
  2    usage error: bad option, unknown target, bad parameter or frame range
  3    host-side failure: missing or unreadable input, output folder missing, package or
       plug-in missing (plug-in result 2)
  4    backend failure (plug-in result 3)
  130  cancelled (Ctrl-C, or plug-in result 1)
On failure no partial output file is left behind: each file appears only when complete, and a
video only when all its frames are written.
)";
}

namespace {
// The one plain line a user reads; with -v also the internal text behind it.
int reportFailure(const std::string& message, const std::string& detail, int verbosity, int exitCode) {
    std::cerr << "quillon: error: " << message << "\n";
    if (verbosity > 0 && !detail.empty()) std::cerr << "quillon: detail: " << detail << "\n";
    return exitCode;
}
}  // namespace

int runMain(int argc, char** argv) {
    std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    int verbosity = 0;
    try {
        const Options options = parseArguments(args);
        verbosity = options.verbosity;
        QMedia::setLogVerbosity(verbosity);
        switch (options.command) {
            case Command::Help: std::cout << helpText(); return EXIT_OK;
            case Command::List: return runList(options, std::cout, std::cerr);
            case Command::Render: return runRender(options, std::cout, std::cerr);
            case Command::Demo: return runDemo(options, std::cout, std::cerr);
            case Command::Bench: return runBench(options, std::cout, std::cerr);
        }
        return EXIT_OK;
    } catch (const UsageError& e) {
        std::cerr << "quillon: error: " << e.what() << " (see 'quillon --help')\n";
        return e.exitCode();
    } catch (const CliError& e) {
        return reportFailure(e.what(), e.detail(), verbosity, e.exitCode());
    } catch (const std::exception& e) {
        const std::string plain = plainReason(e.what());
        return reportFailure(plain, plain == e.what() ? "" : e.what(), verbosity, EXIT_FAILURE_OTHER);
    }
}

}  // namespace QCli
