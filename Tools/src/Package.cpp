#include "Package.h"

#include <cstdlib>

#include "Configs.h"
#include "Conversion.h"
#include "FaceMaskNetworks.h"
#include "FlowStandIns.h"
#include "MaskPropagationStandIn.h"
#include "MaskRleNetworks.h"
#include "GammaStats.h"
#include "KalmanFilter.h"
#include "Resize.h"
#include "Sampler.h"
#include "SegmentationStandIn.h"
#include "StandIns.h"
#include "WarpAffineCrop.h"

namespace qpkg {

std::filesystem::path defaultNetworksFolder() {
    const char* env = std::getenv("QUILLON_NETWORKS");
    if (env && *env) return env;
    return QUILLON_DEFAULT_NETWORKS;
}

std::filesystem::path configFolderOf(const std::filesystem::path& packageDir) { return packageDir / "config"; }

std::filesystem::path modelFolderOf(const std::filesystem::path& packageDir) { return packageDir / "models"; }

void writeImgcvt(const std::filesystem::path& modelFolder, bool portable) {
    writeConversionNetworks(modelFolder, allConversionPairs(), portable);
    writeResizeNetworks(modelFolder, portable);
    writeGammaAndStatsNetworks(modelFolder);
    writeBlendNetwork(modelFolder);
}

std::vector<std::string> writeDefaultPackage(const std::filesystem::path& packageDir, const PackageOptions& options) {
    const std::filesystem::path models = modelFolderOf(packageDir);
    writeConfigs(configFolderOf(packageDir), options.encrypt);
    writeImgcvt(models, options.portable);
    writeStandIns(models);
    writeKalmanFilter(models);
    for (ML::u32 t : {ML::F16, ML::F32}) writeDynamicSamplerNetwork(models, t);
    writeWarpAffineCrop(models);
    writeMaskRleNetworks(models);
    writeMaskPropagationStandIns(models);
    writeSegmentationStandIns(models);
    tfjs::RealNetworks real;
    if (!options.networks.empty())
        real = tfjs::writeRealNetworks(models, options.networks, options.sources ? *options.sources : tfjs::networkSources(),
                                       options.with);
    for (const std::string& id : standInModelIds()) real.records.push_back({id, false, "quillon-pkg", "", "", "", ""});
    for (const std::string& id : segmentationStandInModelIds())
        real.records.push_back({id, false, "quillon-pkg", "", "", "", ""});
    real.records.push_back({kKalmanId, false, "quillon-pkg", "", "",
                            "constant-velocity Kalman filter update, exact arithmetic (no trained weights)", "", true});
    real.records.push_back({kWarpAffineCropName, false, "quillon-pkg", "", "", "", "", true});
    real.records.push_back({kMaskBlurId, false, "quillon-pkg", "", "", "", "", true});
    tfjs::writeNetworkIndex(models, real.records);
    return real.notes;
}

void writeDefaultPackage(const std::filesystem::path& packageDir, bool encrypt) {
    PackageOptions options;
    options.encrypt = encrypt;
    writeDefaultPackage(packageDir, options);
}

}  // namespace qpkg
