#include "Host/Cli/Session.h"

#include <algorithm>

#include "Host/Cli/CliError.h"
#include "Host/Cli/Paths.h"

namespace QCli {

namespace {

std::filesystem::path configFolder(const std::filesystem::path& package) { return package / "config"; }
std::filesystem::path modelFolder(const std::filesystem::path& package) { return package / "models"; }

}  // namespace

Session::Session(const SessionConfig& config, std::ostream& log)
    : package_(config.package.empty() ? defaultPackageDir() : config.package) {
    std::error_code error;
    if (!std::filesystem::is_directory(configFolder(package_), error))
        throw CliError(EXIT_HOST, "model package not found: " + package_.string() +
                                      " (make one with 'quillon-pkg default " + package_.string() + "')");
    const auto plugin = config.plugin.empty() ? defaultPluginPath() : config.plugin;

    host_ = std::make_unique<QHost::Host>(std::make_shared<QHost::ComputeCache>(config.cacheBytes));
    host_->logger().setLogLevel(std::clamp(config.verbosity + 1, 1, 3));
    host_->logger().setEcho(&log);
    try {
        library_ = std::make_unique<QHost::PluginLibrary>(plugin);
    } catch (const std::exception& e) {
        throw CliError::because(EXIT_HOST, "cannot load the plug-in", e);
    }
}

Session::~Session() {
    library_.reset();  // mlShutdown while the host still lives
    host_.reset();
}

std::shared_ptr<QHost::CallSettings> Session::newSettings(int mode, int target) const {
    auto settings = std::make_shared<QHost::CallSettings>(mode, target);
    settings->setDataFolder(configFolder(package_).string());
    settings->setAuxFolder(modelFolder(package_).string());
    return settings;
}

int Session::run(const std::shared_ptr<QHost::CallSettings>& settings) { return library_->run(*host_, settings); }

void Session::publishTables() {
    if (library_->queryFunctions() && library_->paramFunctions()) return;
    const int result = library_->publishQueryTables(*host_, newSettings(2, 0));
    if (result != 0 || !library_->queryFunctions() || !library_->paramFunctions()) {
        const std::string why = lastPluginError();
        const int code = result != 0 ? exitCodeForResult(result) : EXIT_FAILURE_OTHER;
        const std::string what = "the plug-in did not publish its query tables";
        if (why.empty()) throw CliError(code, what);
        throw CliError::because(code, what, why);
    }
}

const ML::PluginQueryFunctions& Session::queries() {
    publishTables();
    return *library_->queryFunctions();
}

const ML::PluginParamFunctions& Session::params() {
    publishTables();
    return *library_->paramFunctions();
}

std::string Session::lastPluginError() const {
    const auto lines = host_->logger().linesWith("] [E] ");
    if (lines.empty()) return "";
    std::string text = lines.back();
    const auto at = text.find("] [E] ");
    return text.substr(at + 6);
}

}  // namespace QCli
