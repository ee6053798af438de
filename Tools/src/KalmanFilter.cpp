#include "KalmanFilter.h"

#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

onnx::ModelProto buildKalmanFilter() {
    GraphBuilder g(kKalmanId);
    auto dims = [](int64_t rows, int64_t columns) { return Dims{Dim::fixed(rows), Dim::fixed(columns)}; };
    const std::string x = g.input("x", ML::F32, dims(4, 1));
    const std::string z = g.input("z", ML::F32, dims(2, 1));
    const std::string p = g.input("pos_var", ML::F32, dims(2, 1));
    const std::string c = g.input("pos_vel_covar", ML::F32, dims(2, 1));
    const std::string v = g.input("vel_var", ML::F32, dims(2, 1));
    const std::string q = g.input("q", ML::F32, {Dim::fixed(1)});
    const std::string r = g.input("r", ML::F32, dims(2, 1));
    const std::string h = g.input("H", ML::F32, dims(2, 4));
    for (const char* name : {"x_out", "pos_var_out", "pos_vel_covar_out", "vel_var_out"}) g.reserve(name);

    auto rowsOf = [&](const std::string& t, int64_t from, int64_t to) {
        return g.op("Slice", {t, g.constI64({from}, {1}), g.constI64({to}, {1}), g.constI64({0}, {1})});
    };
    auto add = [&](const std::string& a, const std::string& b) { return g.op("Add", {a, b}); };
    auto sub = [&](const std::string& a, const std::string& b) { return g.op("Sub", {a, b}); };
    auto mul = [&](const std::string& a, const std::string& b) { return g.op("Mul", {a, b}); };
    auto div = [&](const std::string& a, const std::string& b) { return g.op("Div", {a, b}); };

    const std::string pos = rowsOf(x, 0, 2), vel = rowsOf(x, 2, 4);
    // Covariance prediction.
    const std::string pPred = add(add(add(p, g.mulScalar(c, 2.0f)), v), g.mulScalar(q, 0.25f));
    const std::string cPred = add(add(c, v), g.mulScalar(q, 0.5f));
    const std::string vPred = add(v, q);
    // Measurement update.
    const std::string y = sub(z, g.op("MatMul", {h, x}));
    const std::string s = add(pPred, r);
    const std::string kp = div(pPred, s), kv = div(cPred, s);
    const std::string xOut = g.op("Concat", {add(pos, mul(kp, y)), add(vel, mul(kv, y))}, {attrInt("axis", 0)});
    const std::string oneMinusKp = sub(g.scalarF32(1.0f), kp);
    g.output(xOut, "x_out", ML::F32, dims(4, 1));
    g.output(mul(oneMinusKp, pPred), "pos_var_out", ML::F32, dims(2, 1));
    g.output(mul(oneMinusKp, cPred), "pos_vel_covar_out", ML::F32, dims(2, 1));
    g.output(sub(vPred, mul(kv, cPred)), "vel_var_out", ML::F32, dims(2, 1));
    return g.build();
}

void writeKalmanFilter(const std::filesystem::path& modelFolder) {
    makeFolder(modelFolder);
    writeModel(buildKalmanFilter(), modelFolder / (std::string(kKalmanId) + ".onnx"));
}

}  // namespace qpkg
