#pragma once
// Host parameters given on the command line: --param ID[.INDEX][:TYPE]=VALUE
//
//   TYPE is int, float or str. Without a type it is read from the value: a whole number sets
//   both the int and the float parameter (so that it serves either reading), another number
//   (also with a trailing 'f', "2.2f") the float parameter, anything else the string parameter.
//   INDEX defaults to 0.
#include <string>

namespace QHost {
class CallSettings;
}

namespace QCli {

enum class ParamType { Inferred, Int, Float, String };

struct ParamSetting {
    int id = 0;
    int index = 0;
    ParamType type = ParamType::Inferred;
    std::string text;  // the value as given

    bool setsInt = false;
    bool setsFloat = false;
    bool setsString = false;
    int intValue = 0;
    float floatValue = 0.0f;
};

// Throws UsageError with the reason for a malformed setting.
ParamSetting parseParam(const std::string& text);

void applyParam(QHost::CallSettings& settings, const ParamSetting& param);

}  // namespace QCli
