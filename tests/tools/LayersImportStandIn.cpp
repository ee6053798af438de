// The graph-model tests link the importer without its layers-model half while that half is not in
// the library; this stand-in refuses layers models. tests/tools/CMakeLists.txt drops it as soon as
// Tools/src/Import/LayersModelImporter.cpp exists.
#include "Import/ImportError.h"
#include "Import/Importer.h"

namespace qpkg::tfjs {

namespace {
[[noreturn]] void refuse(const Model& model) {
    throw ImportError(model.file.string() + ": layers models are not supported by this build");
}
}  // namespace

std::vector<TensorSignature> layersModelInputs(const Model& model, const ImportOptions&) { refuse(model); }
std::vector<TensorSignature> layersModelOutputs(const Model& model, const ImportOptions&) { refuse(model); }
std::map<std::string, std::string> importLayersModel(GraphBuilder&, const Model& model,
                                                     const std::map<std::string, std::string>&, const ImportOptions&) {
    refuse(model);
}

}  // namespace qpkg::tfjs
