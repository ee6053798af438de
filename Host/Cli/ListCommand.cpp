// quillon list: backends, devices and the models of every target, from the plug-in's query tables;
// for each model whether the package holds a real network for it or a stand-in (networks.json).
#include <algorithm>
#include <cctype>
#include <functional>
#include <map>

#include "Host/Cli/CliError.h"
#include "Host/Cli/Commands.h"
#include "Host/Cli/Session.h"
#include "Host/Cli/Targets.h"
#include "Package.h"

namespace QCli {

namespace {

// The query functions may throw (they run outside mlMain); a failure shows as text.
std::string text(const std::function<ML::Ptr<ML::StringT<char>>()>& query) {
    try {
        return ML::toStd(query());
    } catch (const std::exception& e) {
        return "<" + plainReason(e.what()) + ">";
    }
}

int number(const std::function<int()>& query, int fallback = -1) {
    try {
        return query();
    } catch (const std::exception&) {
        return fallback;
    }
}

// Whether file is the model's own network: its id, its id and a scale ("<id>_2x"), or the
// detector of a detector and its helper networks ("<id>_detector", with "<id>_nms").
bool isNetworkOf(const std::string& file, const std::string& id) {
    if (file == id || file == id + "_detector") return true;
    if (file.size() < id.size() + 3 || file.compare(0, id.size() + 1, id + "_") != 0 || file.back() != 'x') return false;
    return std::all_of(file.begin() + static_cast<long>(id.size()) + 1, file.end() - 1, ::isdigit);
}

// "network <source>, <licence>" for a model whose networks were imported from a real network,
// "stand-in" otherwise (stand-in records, or no record at all).
std::string networkOf(const std::map<std::string, qpkg::tfjs::NetworkRecord>& records, const std::string& id) {
    for (const auto& [file, r] : records)
        if (r.imported && isNetworkOf(file, id)) return "network " + r.source + (r.licence.empty() ? "" : ", " + r.licence);
    return "stand-in";
}

}  // namespace

int runList(const Options& o, std::ostream& out, std::ostream& err) {
    Session session({o.plugin, o.package, o.verbosity, o.cacheMb << 20}, err);
    const ML::PluginQueryFunctions& q = session.queries();
    const ML::PluginParamFunctions& p = session.params();

    const int backends = number(q.getNumBackends, 0);
    const int defaultBackend = number(q.getDefaultBackendIndex);
    out << "Backends:";
    if (backends == 0) out << " none";
    out << "\n";
    for (int b = 0; b < backends; ++b) {
        out << "  " << text([&] { return q.getBackendName(b); }) << (b == defaultBackend ? " (default)" : "");
        const std::string label = text([&] { return q.getBackendLabel(b); });
        const std::string detail = text([&] { return q.getBackendDetail(b); });
        if (!label.empty()) out << "  " << label;
        if (!detail.empty()) out << "  [" << detail << "]";
        out << "\n";
        const int devices = number([&] { return q.getNumDevices(b); }, 0);
        const int defaultDevice = number([&] { return q.getDefaultDeviceIndex(b); });
        for (int d = 0; d < devices; ++d)
            out << "    device " << d << ": " << text([&] { return q.getDeviceName(b, d); })
                << (d == defaultDevice ? " (default)" : "") << "\n";
    }
    if (defaultBackend >= 0 && defaultBackend < backends)
        out << "Default backend: " << text([&] { return q.getBackendName(defaultBackend); }) << ", device "
            << number([&] { return q.getDefaultDeviceIndex(defaultBackend); }) << "\n";
    else
        out << "Default backend: none\n";

    std::map<std::string, qpkg::tfjs::NetworkRecord> records;
    for (qpkg::tfjs::NetworkRecord& r : qpkg::tfjs::readNetworkIndex(qpkg::modelFolderOf(session.packageDir())))
        records[r.modelId] = std::move(r);
    out << "Models:\n";
    for (const TargetName& t : allTargets()) {
        const int count = number([&] { return p.getIntPluginParam(t.number, 100, 0); }, 0);
        out << "  " << t.name << " (" << t.number << "): " << count << (count == 1 ? " model" : " models") << "\n";
        for (int m = 0; m < count; ++m) {
            const int w = number([&] { return p.getIntPluginParam(t.number, 104, m); });
            const int h = number([&] { return p.getIntPluginParam(t.number, 105, m); });
            const std::string id = text([&] { return p.getStringPluginParam(t.number, 102, m); });
            out << "    " << m << ": " << text([&] { return p.getStringPluginParam(t.number, 101, m); }) << "  id " << id
                << "  tile " << (w > 0 && h > 0 ? std::to_string(w) + "x" + std::to_string(h) : std::string("any"))
                << "  " << networkOf(records, id) << "\n";
            const std::string description = text([&] { return p.getStringPluginParam(t.number, 103, m); });
            if (!description.empty()) out << "       " << description << "\n";
        }
    }
    return EXIT_OK;
}

}  // namespace QCli
