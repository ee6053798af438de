#include "Package.h"

#include "Configs.h"
#include "Conversion.h"
#include "GammaStats.h"
#include "Resize.h"
#include "StandIns.h"

namespace qpkg {

std::filesystem::path configFolderOf(const std::filesystem::path& packageDir) { return packageDir / "config"; }

std::filesystem::path modelFolderOf(const std::filesystem::path& packageDir) { return packageDir / "models"; }

void writeImgcvt(const std::filesystem::path& modelFolder) {
    writeConversionNetworks(modelFolder, allConversionPairs());
    writeResizeNetworks(modelFolder);
    writeGammaAndStatsNetworks(modelFolder);
}

void writeDefaultPackage(const std::filesystem::path& packageDir, bool encrypt) {
    writeConfigs(configFolderOf(packageDir), encrypt);
    writeImgcvt(modelFolderOf(packageDir));
    writeStandIns(modelFolderOf(packageDir));
}

}  // namespace qpkg
