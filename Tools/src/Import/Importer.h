#pragma once
// From a TensorFlow.js model to ONNX nodes. The importer writes the network's nodes into a graph
// that the caller builds, so that an adapter can put its own nodes before and after the
// network's (casts, layout, value range, resizing, decoding) in one file.
//
// Layout: TensorFlow computes in N,H,W,C. The importer tracks each value's layout and keeps 4-D
// values in N,C,H,W where it can, so that the written graph needs only a few transposes. Its
// inputs and outputs of rank 4 are N,C,H,W; the others keep TensorFlow's order.
#include <map>
#include <string>
#include <vector>

#include "GraphBuilder.h"
#include "TfjsModel.h"

namespace qpkg::tfjs {

// One input or output of a network as ONNX sees it.
struct TensorSignature {
    std::string name;            // TensorFlow's tensor name without a trailing ":0"
    int elemType = 1;            // onnx::TensorProto element type (FLOAT, INT32, ...)
    std::vector<int64_t> shape;  // in ONNX order (N,C,H,W for rank 4); -1 where free; empty if unknown
};

struct ImportOptions {
    // Extents given to free input dimensions, by input name, in TensorFlow's order (N,H,W,C).
    std::map<std::string, std::vector<int64_t>> inputShapes;
    // Inputs fixed to constants at import time (for example a scalar ratio), by input name;
    // conditionals that depend only on constants are then resolved when the graph is built.
    std::map<std::string, std::vector<float>> inputConstants;
};

// Inputs and outputs of the network, in the order of its signature (graph models) or of the
// model's input and output layers (layers models).
std::vector<TensorSignature> networkInputs(const Model& model, const ImportOptions& options = {});
std::vector<TensorSignature> networkOutputs(const Model& model, const ImportOptions& options = {});

// Writes the network's nodes into g. inputs maps each input name of networkInputs to a value of
// g holding it (ONNX order, the signature's element type); the result maps each output name of
// networkOutputs to its value. ImportError for ops the importer does not know, for loops and
// tensor arrays, naming the op and the node.
std::map<std::string, std::string> importInto(GraphBuilder& g, const Model& model,
                                              const std::map<std::string, std::string>& inputs,
                                              const ImportOptions& options = {});

// The plain import: a graph whose inputs and outputs are the network's own.
onnx::ModelProto importModel(const Model& model, const ImportOptions& options = {});

// Format-specific halves of importInto (graph models and layers models).
std::vector<TensorSignature> graphModelInputs(const Model& model, const ImportOptions& options);
std::vector<TensorSignature> graphModelOutputs(const Model& model, const ImportOptions& options);
std::map<std::string, std::string> importGraphModel(GraphBuilder& g, const Model& model,
                                                    const std::map<std::string, std::string>& inputs,
                                                    const ImportOptions& options);
std::vector<TensorSignature> layersModelInputs(const Model& model, const ImportOptions& options);
std::vector<TensorSignature> layersModelOutputs(const Model& model, const ImportOptions& options);
std::map<std::string, std::string> importLayersModel(GraphBuilder& g, const Model& model,
                                                     const std::map<std::string, std::string>& inputs,
                                                     const ImportOptions& options);

// Adds a weight as an initializer and returns a value of g holding it as float (or int64 for
// integer weights). Weights stored as halves stay halves in the file, behind a Cast to float.
// perm, when given, transposes the weight first (e.g. H,W,I,O kernels to O,I,H,W).
std::string addWeight(GraphBuilder& g, const Weight& weight, const std::vector<int64_t>& perm = {});

}  // namespace qpkg::tfjs
