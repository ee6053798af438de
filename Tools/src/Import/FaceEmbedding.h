#pragma once
// The face-embedding family: the appearance of one aligned face as a vector, for telling faces
// apart across frames.
//
//   input   crop       1x3x112x112 RGB planar in 0..1 (the face straightened onto the five-point
//                      template by "warp_affine_crop")
//   output  embedding  1x512
//
// The crop is resized (bilinear) to the network's input size and mapped to its value range. A
// network giving fewer than 512 values is padded with zeros, which change neither dot products
// nor norms, so cosine similarity is that of the network's own embedding. One giving more is
// projected onto 512 orthonormal directions drawn once from a fixed seed: inner products, and so
// cosine similarity, are kept up to the part of the embedding outside those directions, which for
// features spread over many channels is small and the same on average for every pair.
//
// Both tensors have the family's type (F16, the precision of the package's backends); the
// network runs in F32.
#include <cstdint>
#include <string>
#include <vector>

#include "Importer.h"

namespace qpkg::tfjs {

constexpr int64_t kFaceEmbeddingInput = 112;
constexpr int64_t kFaceEmbeddingSize = 512;

struct FaceEmbeddingAdapter {
    int64_t size = 112;                  // the network's square input size
    float inLow = 0.0f, inHigh = 1.0f;   // what the network takes for the family's 0..1
    std::string output;                  // the embedding output; empty: the network's only output
};

onnx::ModelProto importFaceEmbedding(const Model& model, const std::string& name, const FaceEmbeddingAdapter& adapter,
                                     ML::u32 dataType = ML::F16);

// The fixed projection from `width` values to 512: 512 orthonormal rows of `width` values,
// row-major.
std::vector<float> embeddingProjection(int64_t width);

}  // namespace qpkg::tfjs
