// Graph models are not imported yet: the layers-model importer links against these until the
// graph-model importer lands.
#include "ImportError.h"
#include "Importer.h"

namespace qpkg::tfjs {

std::vector<TensorSignature> graphModelInputs(const Model&, const ImportOptions&) {
    throw ImportError("graph models are not supported yet");
}

std::vector<TensorSignature> graphModelOutputs(const Model&, const ImportOptions&) {
    throw ImportError("graph models are not supported yet");
}

std::map<std::string, std::string> importGraphModel(GraphBuilder&, const Model&,
                                                    const std::map<std::string, std::string>&, const ImportOptions&) {
    throw ImportError("graph models are not supported yet");
}

}  // namespace qpkg::tfjs
