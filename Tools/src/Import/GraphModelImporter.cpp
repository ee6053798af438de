// Graph models: a TensorFlow GraphDef as JSON. The importer walks back from the requested outputs
// and converts only the nodes they depend on, each once, inputs first (an explicit stack: graphs
// run deep). Control inputs ("^name") order execution in TensorFlow and carry nothing here.
//
// TF1 conditionals (Switch/Merge) are resolved while converting: a Switch whose condition is known
// at import time passes its input to one side and marks the other dead; whatever depends on a
// dead value is dead too, and a Merge takes its one live input.
#include <algorithm>
#include <set>

#include "GraphOps.h"
#include "ImportError.h"
#include "Importer.h"

namespace qpkg::tfjs {

namespace {

using namespace graph;

std::string withoutZero(const std::string& name) {
    return name.size() > 2 && name.compare(name.size() - 2, 2, ":0") == 0 ? name.substr(0, name.size() - 2) : name;
}

// "node:k" to node and output index.
std::pair<std::string, int> tensorRef(const std::string& ref) {
    const size_t colon = ref.rfind(':');
    if (colon != std::string::npos && colon + 1 < ref.size() &&
        ref.find_first_not_of("0123456789", colon + 1) == std::string::npos)
        return {ref.substr(0, colon), std::stoi(ref.substr(colon + 1))};
    return {ref, 0};
}

int64_t dimSize(const nlohmann::json& d) {
    if (!d.contains("size")) return 0;  // protobuf's JSON leaves zero out
    const nlohmann::json& s = d.at("size");
    return jsonInteger(s, "a dimension's size");
}

// A tensor of the signature or a placeholder, in TensorFlow's terms.
struct Entry {
    std::string name;
    bool typed = false;
    DType type = DType::Float;
    bool ranked = false;
    std::vector<int64_t> shape;  // TensorFlow order
};

void readShape(const nlohmann::json& tensorShape, Entry& e) {
    if (!tensorShape.is_object() || tensorShape.value("unknownRank", false)) return;
    e.ranked = true;
    e.shape.clear();
    for (const nlohmann::json& d : tensorShape.value("dim", nlohmann::json::array())) e.shape.push_back(dimSize(d));
}

TensorSignature toSignature(const Entry& e) {
    TensorSignature s;
    s.name = e.name;
    s.elemType = !e.typed || e.type == DType::Float ? onnx::TensorProto::FLOAT
                 : e.type == DType::Int             ? onnx::TensorProto::INT32
                                                    : onnx::TensorProto::BOOL;
    if (e.ranked) {
        s.shape = e.shape;
        if (s.shape.size() == 4) s.shape = {e.shape[0], e.shape[3], e.shape[1], e.shape[2]};
    }
    return s;
}

// The graph: nodes by name, with dilated convolutions marked.
class GraphDef {
public:
    explicit GraphDef(const Model& model) : model_(model) {
        if (!model.topology.is_object() || !model.topology.contains("node") || !model.topology.at("node").is_array())
            throw ImportError(model.file.string() + ": \"modelTopology.node\" is not a list of nodes");
        const nlohmann::json& list = model.topology.at("node");  // nodes keep pointers into it
        for (const nlohmann::json& j : list) {
            Node n;
            try {
                n.name = j.at("name").get<std::string>();
                n.op = j.at("op").get<std::string>();
                for (const nlohmann::json& in : j.value("input", nlohmann::json::array())) {
                    const std::string ref = in.get<std::string>();
                    if (!ref.empty() && ref[0] != '^') n.inputs.push_back(tensorRef(ref));
                }
            } catch (const nlohmann::json::exception& e) {
                throw ImportError(model.file.string() + ": a node is not well-formed: " + e.what());
            }
            if (j.contains("attr")) n.attr = &j.at("attr");
            order_.push_back(n.name);
            if (!nodes_.emplace(n.name, std::move(n)).second)
                throw ImportError(model.file.string() + ": two nodes are named " + order_.back());
        }
        markDilatedConvolutions();
        for (auto& [name, n] : nodes_)
            for (const auto& in : n.inputs)
                if (Node* producer = mutableFind(in.first)) producer->consumers.push_back(&n);
    }

    const Node* find(const std::string& name) const {
        const auto it = nodes_.find(name);
        return it == nodes_.end() ? nullptr : &it->second;
    }
    const Node& at(const std::string& name) const {
        const Node* n = find(name);
        if (!n) throw ImportError(model_.file.string() + ": the graph has no node named " + name);
        return *n;
    }
    const std::vector<std::string>& order() const { return order_; }

private:
    // SpaceToBatchND -> convolution -> BatchToSpaceND: the BatchToSpaceND takes the chain's inputs.
    void markDilatedConvolutions() {
        static const std::set<std::string> convs = {"Conv2D", "_FusedConv2D", "DepthwiseConv2dNative",
                                                    "FusedDepthwiseConv2dNative"};
        for (auto& [name, b] : nodes_) {
            if (b.op != "BatchToSpaceND" || b.inputs.size() != 3 || b.inputs[0].second != 0) continue;
            Node* conv = mutableFind(b.inputs[0].first);
            if (!conv || !convs.count(conv->op) || conv->inputs.empty() || conv->inputs[0].second != 0) continue;
            const Node* s2b = find(conv->inputs[0].first);
            if (!s2b || s2b->op != "SpaceToBatchND" || s2b->inputs.size() != 3) continue;
            std::vector<std::pair<std::string, int>> inputs{s2b->inputs[0]};
            inputs.insert(inputs.end(), conv->inputs.begin() + 1, conv->inputs.end());
            inputs.push_back(s2b->inputs[2]);
            inputs.push_back(b.inputs[2]);
            inputs.push_back(b.inputs[1]);
            inputs.push_back(s2b->inputs[1]);
            b.inputs = std::move(inputs);
            b.conv = conv;
        }
    }
    Node* mutableFind(const std::string& name) {
        const auto it = nodes_.find(name);
        return it == nodes_.end() ? nullptr : &it->second;
    }

    const Model& model_;
    std::map<std::string, Node> nodes_;
    std::vector<std::string> order_;
};

const nlohmann::json* signatureSection(const Model& model, const char* section) {
    if (!model.signature.is_object() || !model.signature.contains(section)) return nullptr;
    const nlohmann::json& j = model.signature.at(section);
    return j.is_object() && !j.empty() ? &j : nullptr;
}

Entry placeholderEntry(const Node& n) {
    Entry e;
    e.name = n.name;
    if (n.attr && n.attr->contains("dtype")) {
        e.typed = true;
        e.type = dtypeOf(n.attr->at("dtype").value("type", std::string("DT_FLOAT")));
    }
    if (n.attr && n.attr->contains("shape")) readShape(n.attr->at("shape").value("shape", nlohmann::json()), e);
    return e;
}

// Inputs in signature order (or the placeholders'), with ImportOptions::inputShapes applied.
std::vector<Entry> inputEntries(const Model& model, const GraphDef& graph, const ImportOptions& options) {
    std::vector<Entry> entries;
    try {
        if (const nlohmann::json* inputs = signatureSection(model, "inputs")) {
            for (const auto& [key, j] : inputs->items()) {
                const std::string name = withoutZero(j.value("name", key));
                Entry e;
                if (const Node* n = graph.find(tensorRef(name).first); n && n->op == "Placeholder")
                    e = placeholderEntry(*n);
                e.name = name;
                if (j.contains("dtype")) {
                    e.typed = true;
                    e.type = dtypeOf(j.at("dtype").get<std::string>());
                }
                if (j.contains("tensorShape")) readShape(j.at("tensorShape"), e);
                entries.push_back(e);
            }
        } else {
            for (const std::string& name : graph.order())
                if (graph.at(name).op == "Placeholder") entries.push_back(placeholderEntry(graph.at(name)));
        }
    } catch (const std::exception& e) {
        throw ImportError(model.file.string() + ": the network's inputs cannot be read: " + e.what());
    }
    for (Entry& e : entries) {
        const auto it = options.inputShapes.find(e.name);
        if (it == options.inputShapes.end()) continue;
        if (e.ranked && e.shape.size() != it->second.size())
            throw ImportError(model.file.string() + ": input " + e.name + " has rank " +
                              std::to_string(e.shape.size()) + ", the shape given for it has " +
                              std::to_string(it->second.size()) + " extents");
        if (!e.ranked) e.shape.assign(it->second.size(), -1);
        e.ranked = true;
        for (size_t i = 0; i < e.shape.size(); ++i)
            if (it->second[i] >= 0) {
                if (e.shape[i] >= 0 && e.shape[i] != it->second[i])
                    throw ImportError(model.file.string() + ": input " + e.name + " has a fixed extent " +
                                      std::to_string(e.shape[i]) + " where " + std::to_string(it->second[i]) +
                                      " is given");
                e.shape[i] = it->second[i];
            }
    }
    return entries;
}

// Outputs as the signature (or the graph's unconsumed nodes) names them; type and shape where the
// signature gives them.
std::vector<Entry> outputEntries(const Model& model, const GraphDef& graph) {
    std::vector<Entry> entries;
    try {
        if (const nlohmann::json* outputs = signatureSection(model, "outputs")) {
            for (const auto& [key, j] : outputs->items()) {
                Entry e;
                e.name = withoutZero(j.value("name", key));
                if (j.contains("dtype")) {
                    e.typed = true;
                    e.type = dtypeOf(j.at("dtype").get<std::string>());
                }
                if (j.contains("tensorShape")) readShape(j.at("tensorShape"), e);
                entries.push_back(e);
            }
            return entries;
        }
    } catch (const std::exception& e) {
        throw ImportError(model.file.string() + ": the network's outputs cannot be read: " + e.what());
    }
    std::set<std::string> consumed;
    for (const std::string& name : graph.order())
        for (const auto& in : graph.at(name).inputs) consumed.insert(in.first);
    for (const std::string& name : graph.order()) {
        const std::string& op = graph.at(name).op;
        if (consumed.count(name) || op == "NoOp" || op == "Const" || op == "Placeholder") continue;
        Entry e;
        e.name = name;
        entries.push_back(e);
    }
    return entries;
}

// Converts the nodes that requested values depend on.
class GraphImporter {
public:
    GraphImporter(GraphBuilder& g, const Model& model, const GraphDef& graph, const ImportOptions& options,
                  const std::map<std::string, std::string>& inputs)
        : graph_(graph), options_(options), inputs_(inputs), ctx_(g, model) {
        for (const Entry& e : inputEntries(model, graph, options)) entries_[e.name] = e;
    }

    Context& context() { return ctx_; }

    ValuePtr value(const std::string& ref) {
        const auto [name, index] = tensorRef(ref);
        ensure(graph_.at(name));
        return output(name, index);
    }

private:
    ValuePtr output(const std::string& name, int index) {
        if (dead_.count(name)) return ctx_.deadValue();
        const std::vector<ValuePtr>& outs = done_.at(name);
        if (index < 0 || static_cast<size_t>(index) >= outs.size())
            throw ImportError(ctx_.model.file.string() + ": node " + name + " has no output " + std::to_string(index));
        return outs[static_cast<size_t>(index)];
    }

    void check(const Node& n) {
        if (n.op == "Placeholder" || n.op == "Const" || converterFor(n.op)) return;
        ctx_.node = &n;
        if (isLoopOp(n.op)) ctx_.fail("loops and tensor arrays are not supported");
        ctx_.fail("the importer does not know this op");
    }

    // Converts n after its inputs, without recursion.
    void ensure(const Node& root) {
        if (done_.count(root.name) || dead_.count(root.name)) return;
        check(root);
        std::vector<std::pair<const Node*, size_t>> stack{{&root, 0}};
        std::set<std::string> open{root.name};
        while (!stack.empty()) {
            const Node* n = stack.back().first;
            const size_t next = stack.back().second;
            if (next < n->inputs.size()) {
                ++stack.back().second;
                const std::string& in = n->inputs[next].first;
                if (done_.count(in) || dead_.count(in)) continue;
                const Node& m = graph_.at(in);
                if (open.count(in)) {
                    ctx_.node = &m;
                    ctx_.fail("the graph has a cycle through this node");
                }
                check(m);
                open.insert(in);
                stack.emplace_back(&m, 0);
                continue;
            }
            convert(*n);
            open.erase(n->name);
            stack.pop_back();
        }
    }

    void convert(const Node& n) {
        ctx_.node = &n;
        if (n.op == "Const") {
            done_[n.name] = {constant(n)};
            return;
        }
        if (n.op == "Placeholder") {
            done_[n.name] = {placeholder(n)};
            return;
        }
        ctx_.inputs.clear();
        bool anyDead = false;
        for (const auto& [in, index] : n.inputs) {
            ctx_.inputs.push_back(output(in, index));
            anyDead = anyDead || ctx_.inputs.back()->dead;
        }
        if (anyDead && n.op != "Merge") {
            dead_.insert(n.name);
            return;
        }
        if (n.op == "Switch" && ctx_.inputs.size() == 2 && !ctx_.inputs[1]->isConst()) {
            std::string names;
            for (const std::string& input : inputsUpstream(n.inputs[1].first))
                names += (names.empty() ? "" : ", ") + input;
            ctx_.fail("the condition of this conditional is known only at run time" +
                      (names.empty() ? std::string() : "; it depends on " + names) +
                      ": give them fixed values at import time (quillon-pkg import --const NAME=VALUE)");
        }
        std::vector<ValuePtr> outs;
        try {
            outs = converterFor(n.op)(ctx_);
        } catch (const ImportError&) {
            throw;
        } catch (const std::exception& e) {  // malformed attributes and the like
            ctx_.node = &n;
            ctx_.fail(std::string("the node is not well-formed: ") + e.what());
        }
        ctx_.node = &n;
        if (n.op == "Merge" && outs[0]->dead) {
            dead_.insert(n.name);
            return;
        }
        done_[n.name] = std::move(outs);
    }

    // The placeholders a node depends on.
    std::vector<std::string> inputsUpstream(const std::string& from) const {
        std::vector<std::string> found, stack{from};
        std::set<std::string> seen{from};
        while (!stack.empty()) {
            const Node& n = graph_.at(stack.back());
            stack.pop_back();
            if (n.op == "Placeholder") found.push_back(n.name);
            for (const auto& in : n.inputs)
                if (seen.insert(in.first).second) stack.push_back(in.first);
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    ValuePtr constant(const Node& n) {
        const Weight* w = ctx_.model.weights.count(n.name) ? &ctx_.model.weights.at(n.name) : nullptr;
        if (!w) ctx_.fail("its value is not among the weights");
        auto v = std::make_shared<Value>();
        v->weight = w;
        v->ranked = true;
        v->shape = w->shape;
        switch (w->type) {
            case WeightType::Float32: v->type = DType::Float; break;
            case WeightType::Int32: v->type = DType::Int; break;
            case WeightType::Bool: v->type = DType::Bool; break;
            case WeightType::String: ctx_.fail("string constants are not supported");
        }
        return v;
    }

    ValuePtr placeholder(const Node& n) {
        const auto entry = entries_.find(n.name);
        Entry e = entry != entries_.end() ? entry->second : placeholderEntry(n);
        const auto fixed = options_.inputConstants.find(n.name);
        if (fixed != options_.inputConstants.end()) {
            Host h{
                e.typed ? e.type : DType::Float, {}, std::vector<double>(fixed->second.begin(), fixed->second.end())};
            const auto shape = options_.inputShapes.find(n.name);
            if (shape != options_.inputShapes.end() && product(shape->second) == h.count())
                h.shape = shape->second;
            else if (h.count() != 1)
                h.shape = {h.count()};
            return ctx_.constantValue(std::move(h));
        }
        const auto given = inputs_.find(n.name);
        if (given == inputs_.end() || entry == entries_.end())
            ctx_.fail("the graph needs this input, and it is not among the network's inputs given");
        std::string name = given->second;
        if (e.typed && e.type == DType::Int)
            name = ctx_.g.op("Cast", {name}, {attrInt("to", onnx::TensorProto::INT64)});
        const DType type = e.typed ? e.type : DType::Float;
        if (!e.ranked) return ctx_.unranked(name, type);
        return ctx_.make(name, type, e.shape, e.shape.size() == 4 ? kNCHW : Perm{});
    }

    const GraphDef& graph_;
    const ImportOptions& options_;
    const std::map<std::string, std::string>& inputs_;
    Context ctx_;
    std::map<std::string, Entry> entries_;
    std::map<std::string, std::vector<ValuePtr>> done_;
    std::set<std::string> dead_;
};

ValuePtr liveOutput(GraphImporter& importer, const Model& model, const std::string& name) {
    ValuePtr v = importer.value(name);
    if (v->dead)
        throw ImportError(model.file.string() + ": output " + name + " lies on the untaken side of a conditional");
    return v;
}

}  // namespace

std::vector<TensorSignature> graphModelInputs(const Model& model, const ImportOptions& options) {
    const GraphDef graph(model);
    std::vector<TensorSignature> out;
    for (const Entry& e : inputEntries(model, graph, options)) out.push_back(toSignature(e));
    return out;
}

std::vector<TensorSignature> graphModelOutputs(const Model& model, const ImportOptions& options) {
    const GraphDef graph(model);
    std::vector<Entry> entries = outputEntries(model, graph);
    const bool complete =
        std::all_of(entries.begin(), entries.end(), [](const Entry& e) { return e.typed && e.ranked; });
    if (!complete) {
        // Types and shapes the signature leaves out: as the import finds them.
        GraphBuilder scratch("probe");
        std::map<std::string, std::string> inputs;
        for (const Entry& e : inputEntries(model, graph, options)) inputs[e.name] = e.name;
        GraphImporter importer(scratch, model, graph, options, inputs);
        for (Entry& e : entries) {
            const ValuePtr v = liveOutput(importer, model, e.name);
            if (!e.typed) {
                e.typed = true;
                e.type = v->type;
            }
            if (!e.ranked && v->ranked) {
                e.ranked = true;
                e.shape = v->shape;
            }
        }
    }
    std::vector<TensorSignature> out;
    for (const Entry& e : entries) out.push_back(toSignature(e));
    return out;
}

std::map<std::string, std::string> importGraphModel(GraphBuilder& g, const Model& model,
                                                    const std::map<std::string, std::string>& inputs,
                                                    const ImportOptions& options) {
    const std::vector<TensorSignature> outputs = graphModelOutputs(model, options);
    for (const TensorSignature& s : outputs) g.reserve(s.name);  // TensorFlow names such as "Relu_3"
    const GraphDef graph(model);
    GraphImporter importer(g, model, graph, options, inputs);
    Context& c = importer.context();
    std::map<std::string, std::string> result;
    for (const TensorSignature& s : outputs) {
        const ValuePtr v = liveOutput(importer, model, s.name);
        std::string name = v->rank() == 4 ? c.inLayout(*v, kNCHW) : c.plain(*v);
        if (onnxType(v->type) != s.elemType) name = g.op("Cast", {name}, {attrInt("to", s.elemType)});
        result[s.name] = name;
    }
    return result;
}

}  // namespace qpkg::tfjs
