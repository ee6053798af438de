#include "Host/Cli/BufferFile.h"

#include <fstream>

#include "Host/Cli/CliError.h"
#include "Host/Media/PendingFile.h"
#include "Host/Media/SequencePattern.h"

namespace QCli {

std::filesystem::path bufferPathFor(const std::filesystem::path& path, int frame) {
    if (QMedia::SequencePattern::isPattern(path)) return QMedia::SequencePattern(path).pathFor(frame);
    return path;
}

void writeBufferFile(const std::filesystem::path& path, const std::string& bytes) {
    try {
        QMedia::PendingFile file(path);
        {
            std::ofstream stream(file.tempPath(), std::ios::binary);
            stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            stream.close();
            if (!stream) throw std::runtime_error("write failed");
        }
        file.commit();
    } catch (const std::exception& e) {
        throw CliError::because(EXIT_HOST, "cannot write " + path.string(), e, path.string());
    }
}

}  // namespace QCli
