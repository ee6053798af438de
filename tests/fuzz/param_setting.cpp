// One --param argument of the command-line host: ID[.INDEX][:int|float|str]=VALUE.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "Host/CallSettings.h"
#include "Host/Cli/CliError.h"
#include "Host/Cli/ParamSetting.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // An argument ends at its first NUL.
    const char* text = reinterpret_cast<const char*>(data);
    const std::string arg(text, strnlen(text, size));
    QCli::ParamSetting param;
    try {
        param = QCli::parseParam(arg);
    } catch (const QCli::UsageError&) {  // the usage message and exit code
        return 0;
    }
    const bool setsSomething = param.setsInt || param.setsFloat || param.setsString;
    if (param.id < 0 || param.index < -1 || !setsSomething || !std::isfinite(param.floatValue)) __builtin_trap();
    if (param.setsString && param.text != arg.substr(arg.find('=') + 1)) __builtin_trap();

    QHost::CallSettings settings;
    QCli::applyParam(settings, param);
    return 0;
}
