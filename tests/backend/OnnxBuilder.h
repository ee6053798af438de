#pragma once
// Writes tiny ONNX networks for tests and benchmarks, with the ONNX protobuf classes.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace TestNetworks {

// One extent of a tensor: a number, or a name for a free extent.
struct Dim {
    Dim(int64_t value) : value(value) {}
    Dim(const char* name) : name(name) {}
    int64_t value = -1;
    std::string name;
};

// ONNX element type numbers used here.
enum ElementType : int { FLOAT = 1, UINT8 = 2, FLOAT16 = 10 };

class GraphBuilder {
public:
    GraphBuilder& input(const std::string& name, ElementType type, const std::vector<Dim>& dims);
    GraphBuilder& output(const std::string& name, ElementType type, const std::vector<Dim>& dims);
    GraphBuilder& scalar(const std::string& name, float value);  // a float constant
    GraphBuilder& node(const std::string& op, const std::vector<std::string>& inputs,
                       const std::vector<std::string>& outputs);
    GraphBuilder& cast(const std::string& input, const std::string& output, ElementType to);

    // Creates the parent folders as needed.
    void save(const std::filesystem::path& file) const;

private:
    struct Port {
        std::string name;
        ElementType type;
        std::vector<Dim> dims;
    };
    struct Node {
        std::string op;
        std::vector<std::string> inputs, outputs;
        int castTo = 0;
    };
    std::vector<Port> inputs_, outputs_;
    std::vector<std::pair<std::string, float>> scalars_;
    std::vector<Node> nodes_;
};

// y = x + addend on F16 tensors [1,3,height,width], computed in F32: input "x", output "y".
void writeCastAddNetwork(const std::filesystem::path& file, float addend);

// sum = a + b on F32 tensors [1,4]: inputs "a", "b", output "sum".
void writeSumNetwork(const std::filesystem::path& file);

}  // namespace TestNetworks
